#include "ChildProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "TestPrograms.h"

extern char** environ;

namespace testsupport {
namespace {

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;

    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        readEnd = ends[0];
        writeEnd = ends[1];
    }
};

void closeDescriptor(int& descriptor) {
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

std::vector<std::string> joined(std::vector<std::string> command,
                                std::vector<std::string> const& arguments) {
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

/** The test's environment with additions, which win. */
std::vector<std::string> mergedEnvironment(ChildProgram::Environment const& additions) {
    std::vector<std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string const text(*entry);
        if (additions.count(text.substr(0, text.find('='))) == 0)
            merged.push_back(text);
    }
    for (auto const& [name, value] : additions)
        merged.push_back(name + "=" + value);
    return merged;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

/** Ends the forked child at once. `_exit` would not do: the thread sanitizer, asked at that moment,
 * misses the threads of the parent, which the child never had, and replaces the exit code. */
[[noreturn]] void giveUp() {
    for (;;)
        syscall(SYS_exit_group, 127);
}

/** In the forked child: only async-signal-safe calls until exec. */
[[noreturn]] void becomeProgram(pid_t parent, int const (&standard)[3], char* const* arguments,
                                char* const* environment) {
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
    execvpe(arguments[0], arguments, environment);
    giveUp();
}

/** Whether the thread of a status file of /proc has stopped. */
bool isStopped(std::filesystem::path const& file) {
    std::ifstream status(file);
    for (std::string line; std::getline(status, line);)
        if (line.rfind("State:\tT", 0) == 0)
            return true;
    return false;
}

}  // namespace

ChildProgram::ChildProgram(std::string const& name, std::vector<std::string> const& arguments,
                           Environment const& environment)
    : ChildProgram(programCommand(name), arguments, environment) {}

ChildProgram::ChildProgram(std::vector<std::string> command,
                           std::vector<std::string> const& arguments,
                           Environment const& environment) {
    start(joined(std::move(command), arguments), environment);
    reader_ = std::thread([this] { readOutputs(); });
}

void ChildProgram::start(std::vector<std::string> const& command, Environment const& environment) {
    ::signal(SIGPIPE, SIG_IGN);  // a child that is gone shows as a failed write
    Pipe in;
    Pipe out;
    Pipe error;
    Pipe stop;
    std::vector<std::string> commandTexts = command;
    std::vector<std::string> environmentTexts = mergedEnvironment(environment);
    std::vector<char*> const argv = pointers(commandTexts);
    std::vector<char*> const envp = pointers(environmentTexts);
    int const standard[3] = {in.readEnd, out.writeEnd, error.writeEnd};
    pid_t const parent = getpid();
    pid_ = fork();
    if (pid_ == 0)
        becomeProgram(parent, standard, argv.data(), envp.data());
    int const failure = errno;
    ::close(in.readEnd);
    ::close(out.writeEnd);
    ::close(error.writeEnd);
    input_ = in.writeEnd;
    out_.descriptor = out.readEnd;
    error_.descriptor = error.readEnd;
    stopReading_ = stop.writeEnd;
    readerStop_ = stop.readEnd;
    if (pid_ < 0)
        throw std::system_error(failure, std::generic_category(), "fork");
}

ChildProgram::~ChildProgram() {
    if (!status_)
        kill();
    waitForExit(kPatience);
    closeDescriptor(stopReading_);
    reader_.join();
    closeDescriptor(input_);
    closeDescriptor(out_.descriptor);
    closeDescriptor(error_.descriptor);
    closeDescriptor(readerStop_);
}

/** The reader's body; ends with both outputs, or when the destructor closes the stop pipe. */
void ChildProgram::readOutputs() {
    pollfd waits[3] = {
        {out_.descriptor, POLLIN, 0}, {error_.descriptor, POLLIN, 0}, {readerStop_, POLLIN, 0}};
    Output* const outputs[2] = {&out_, &error_};
    while (waits[0].fd >= 0 || waits[1].fd >= 0) {
        if (poll(waits, 3, -1) < 0 && errno != EINTR)
            return;
        for (int i = 0; i < 2; ++i) {
            if (waits[i].fd < 0 || waits[i].revents == 0)
                continue;
            readSome(*outputs[i]);
            std::lock_guard<std::mutex> const lock(mutex_);
            if (outputs[i]->ended)
                waits[i].fd = -1;
        }
        if (waits[2].revents != 0)
            return;
    }
}

void ChildProgram::readSome(Output& output) {
    char buffer[4096];
    ssize_t const size = ::read(output.descriptor, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR)
        return;
    std::lock_guard<std::mutex> const lock(mutex_);
    if (size <= 0) {
        output.ended = true;
        if (!output.unfinished.empty())
            output.lines.push_back(std::move(output.unfinished));
    } else {
        output.unfinished.append(buffer, static_cast<std::size_t>(size));
        std::size_t begin = 0;
        for (std::size_t end; (end = output.unfinished.find('\n', begin)) != std::string::npos;
             begin = end + 1)
            output.lines.push_back(output.unfinished.substr(begin, end - begin));
        output.unfinished.erase(0, begin);
    }
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
    closeDescriptor(input_);
}

std::optional<std::string> ChildProgram::waitForLineIn(Output& output, std::string const& part,
                                                       std::chrono::milliseconds limit) {
    auto const end = std::chrono::steady_clock::now() + limit;
    std::unique_lock<std::mutex> lock(mutex_);
    for (std::size_t next = output.next;;) {
        for (; next < output.lines.size(); ++next)
            if (output.lines[next].find(part) != std::string::npos) {
                output.next = next + 1;
                return output.lines[next];
            }
        if (output.ended)
            return std::nullopt;
        if (changed_.wait_until(lock, end) == std::cv_status::timeout &&
            next == output.lines.size())
            return std::nullopt;
    }
}

std::optional<std::string> ChildProgram::waitForLine(std::string const& part,
                                                     std::chrono::milliseconds limit) {
    return waitForLineIn(out_, part, limit);
}

std::optional<std::string> ChildProgram::waitForErrorLine(std::string const& part,
                                                          std::chrono::milliseconds limit) {
    return waitForLineIn(error_, part, limit);
}

std::vector<std::string> ChildProgram::lines() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return out_.lines;
}

std::vector<std::string> ChildProgram::errorLines() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return error_.lines;
}

void ChildProgram::signal(int number) {
    if (!status_)
        ::kill(pid_, number);
}

void ChildProgram::kill() {
    signal(SIGKILL);
}

bool ChildProgram::stopWholly(std::chrono::milliseconds limit) {
    signal(SIGSTOP);
    std::string const tasks = "/proc/" + std::to_string(pid_) + "/task";
    return eventually(
        [&] {
            std::filesystem::directory_iterator const all(tasks);
            return std::all_of(begin(all), end(all),
                               [](auto const& task) { return isStopped(task.path() / "status"); });
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
    waitForOutputEnd(std::chrono::seconds(1));
    return status_;
}

/** What a dead child has written is in the pipes; the reader only has to get there. */
void ChildProgram::waitForOutputEnd(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, limit, [this] { return out_.ended && error_.ended; });
}

int ChildProgram::exitCode(std::chrono::milliseconds limit) {
    std::optional<int> const status = waitForExit(limit);
    if (!status)
        return -1000;
    return WIFEXITED(*status) ? WEXITSTATUS(*status) : -WTERMSIG(*status);
}

}  // namespace testsupport
