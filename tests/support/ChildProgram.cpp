#include "ChildProgram.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <ext/stdio_filebuf.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace testsupport {

std::vector<std::string> programCommand(std::string const& name) {
    std::vector<std::string> command;
    std::istringstream emulator(TEST_EMULATOR);
    for (std::string part; std::getline(emulator, part, ':');)
        command.push_back(part);
    command.push_back(std::string(TEST_PROGRAM_DIR) + "/" + name);
    return command;
}

std::vector<std::string> peerProgramCommand(std::string const& name) {
    char const* const fromEnvironment = std::getenv("REFLECTORB_PEER_DIR");
    std::string const directory = fromEnvironment ? fromEnvironment : TEST_PEER_DIR;
    std::string const path = directory + "/tests/programs/" + name;
    bool const isThere = !directory.empty() && access(path.c_str(), X_OK) == 0;
    return isThere ? std::vector<std::string>{path} : std::vector<std::string>();
}

namespace {

struct Pipe {
    int ends[2];

    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
    }
    int& readEnd() { return ends[0]; }
    int& writeEnd() { return ends[1]; }
};

/** The whole command, which sets the environment before it becomes the program. */
std::vector<std::string> joined(std::vector<std::string> const& command,
                                std::vector<std::string> const& arguments,
                                ChildProgram::Environment const& environment) {
    std::vector<std::string> all{"env"};
    for (auto const& [name, value] : environment)
        all.push_back(name + "=" + value);
    all.insert(all.end(), command.begin(), command.end());
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

/** Ends the forked child at once. `_exit` would not do: the thread sanitizer, asked at that moment,
 * misses the threads of the parent, which the child never had, and replaces the exit code. */
[[noreturn]] void giveUp() {
    for (;;)
        syscall(SYS_exit_group, 127);
}

/** In the forked child: only async-signal-safe calls until exec. */
[[noreturn]] void becomeProgram(pid_t parent, int const (&standard)[3], char* const* arguments) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        giveUp();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    for (int i = 0; i < 3; ++i)
        if (dup2(standard[i], i) < 0)
            giveUp();
    execvp(arguments[0], arguments);
    giveUp();
}

/** Whether a thread of another process has stopped. */
bool isStopped(std::filesystem::path const& task) {
    std::string stat;
    std::getline(std::ifstream(task / "stat"), stat);
    std::size_t const name = stat.rfind(") ");
    return name != std::string::npos && stat[name + 2] == 'T';
}

}  // namespace

ChildProgram::ChildProgram(std::vector<std::string> const& command,
                           std::vector<std::string> const& arguments,
                           Environment const& environment) {
    ::signal(SIGPIPE, SIG_IGN);  // a child that is gone shows as a failed write
    Pipe in;
    Pipe out;
    Pipe error;
    std::vector<std::string> texts = joined(command, arguments, environment);
    std::vector<char*> argv;
    for (std::string& text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    int const standard[3] = {in.readEnd(), out.writeEnd(), error.writeEnd()};
    pid_t const parent = getpid();
    pid_ = fork();
    if (pid_ == 0)
        becomeProgram(parent, standard, argv.data());
    int const failure = errno;
    for (int const end : standard)
        ::close(end);
    input_ = in.writeEnd();
    if (pid_ < 0)
        throw std::system_error(failure, std::generic_category(), "fork");
    out_.reader = std::thread([this, end = out.readEnd()] { read(out_, end); });
    error_.reader = std::thread([this, end = error.readEnd()] { read(error_, end); });
}

ChildProgram::~ChildProgram() {
    kill();
    waitForExit();
    ::kill(-pid_, SIGKILL);  // what it has started itself may hold the outputs open
    out_.reader.join();
    error_.reader.join();
    closeInput();
}

ChildProgram::Environment ChildProgram::longEnd() {
    char const* const options = std::getenv("TSAN_OPTIONS");
    return {{"TSAN_OPTIONS", std::string(options ? options : "") + ":atexit_sleep_ms=1000"}};
}

/** The body of a reader: ends when nobody can write any more. */
void ChildProgram::read(Output& output, int descriptor) {
    __gnu_cxx::stdio_filebuf<char> buffer(descriptor, std::ios::in);
    std::istream input(&buffer);
    for (std::string line; std::getline(input, line);) {
        std::lock_guard<std::mutex> const lock(mutex_);
        output.lines.push_back(std::move(line));
        changed_.notify_all();
    }
    std::lock_guard<std::mutex> const lock(mutex_);
    output.ended = true;
    changed_.notify_all();
}

bool ChildProgram::writeLine(std::string const& line) {
    std::string const text = line + "\n";
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t const size = ::write(input_, text.data() + done, text.size() - done);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            return false;
        done += static_cast<std::size_t>(size);
    }
    return true;
}

void ChildProgram::closeInput() {
    if (input_ >= 0)
        ::close(input_);
    input_ = -1;
}

std::optional<std::string> ChildProgram::waitForLineIn(Output& output, std::string const& part,
                                                       std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    std::size_t next = output.next;
    auto const found = [&] {
        while (next < output.lines.size() && output.lines[next].find(part) == std::string::npos)
            ++next;
        return next < output.lines.size();
    };
    changed_.wait_for(lock, limit, [&] { return found() || output.ended; });
    if (!found())
        return std::nullopt;
    output.next = next + 1;
    return output.lines[next];
}

std::vector<std::string> ChildProgram::linesOf(Output const& output) const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return output.lines;
}

void ChildProgram::signal(int number) {
    if (!status_)
        ::kill(pid_, number);
}

bool ChildProgram::stopWholly(std::chrono::milliseconds limit) {
    signal(SIGSTOP);
    std::string const tasks = "/proc/" + std::to_string(pid_) + "/task";
    return eventually(
        [&] {
            std::filesystem::directory_iterator const all(tasks);
            return std::all_of(begin(all), end(all),
                               [](auto const& task) { return isStopped(task.path()); });
        },
        limit);
}

std::optional<int> ChildProgram::waitForExit(std::chrono::milliseconds limit) {
    if (!status_ && !eventually(
                        [this] {
                            int status = 0;
                            if (waitpid(pid_, &status, WNOHANG) == pid_)
                                status_ = status;
                            return status_.has_value();
                        },
                        limit))
        return std::nullopt;
    // What a dead child has written is in the pipes; the readers only have to get there.
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(1), [this] { return out_.ended && error_.ended; });
    return status_;
}

int ChildProgram::exitCode(std::chrono::milliseconds limit) {
    std::optional<int> const status = waitForExit(limit);
    if (!status)
        return -1000;
    return WIFEXITED(*status) ? WEXITSTATUS(*status) : -WTERMSIG(*status);
}

}  // namespace testsupport
