// What a process uses, and where it hangs.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace testsupport {

/** What a process uses; zeros when it is not there. */
struct Resources {
    long kilobytes = 0;  // resident
    long descriptors = 0;
    long threads = 0;

    static Resources of(pid_t pid) {
        std::string const process = "/proc/" + std::to_string(pid);
        long pages = 0;
        long resident = 0;
        std::ifstream(process + "/statm") >> pages >> resident;
        return {resident * (sysconf(_SC_PAGESIZE) / 1024), count(process + "/fd"),
                count(process + "/task")};
    }

private:
    static long count(std::string const& folder) {
        std::error_code ignored;
        std::filesystem::directory_iterator const all(folder, ignored);
        return ignored ? 0 : static_cast<long>(std::distance(begin(all), end(all)));
    }
};

/** Writes the stacks of a process into a file, as far as there is a debugger. */
inline bool keepStacks(pid_t pid, std::string const& file) {
    std::string const command = "timeout 60 gdb -p " + std::to_string(pid) +
                                " -batch -ex 'thread apply all bt' >'" + file + "' 2>&1";
    return std::system(command.c_str()) == 0;
}

}  // namespace testsupport
