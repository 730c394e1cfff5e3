// Logs wherever a process can still log on its way out, with threads still running.
#include <cstdlib>
#include <thread>

#include "logging/Log.h"

namespace {

struct LogsWhenDestroyed {
    ~LogsWhenDestroyed() { REFLECTORB_LOG(3, "LogAtExit", "static destructor"); }
} const logsWhenDestroyed;

struct LogsWhenBuilt {
    LogsWhenBuilt() { REFLECTORB_LOG(3, "LogAtExit", "static constructor"); }
} const logsWhenBuilt;

[[noreturn]] void logForEver() {
    for (int i = 0;; ++i)
        REFLECTORB_LOG(4, "LogAtExit", "thread %d", i);
}

}  // namespace

int main(int argc, char** argv) {
    std::atexit([] { REFLECTORB_LOG(3, "LogAtExit", "exit handler"); });
    std::thread(logForEver).detach();
    std::thread(logForEver).detach();
    if (argc > 1 && argv[1][0] == 't')
        std::thread([] { std::exit(0); }).join();
    return 0;
}
