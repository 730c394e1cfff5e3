#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Waiting.h"

namespace testsupport {

/** The command that starts the test program `name` of this build (see `reflectorb_test_program` in
 * cmake/ReflectOrbTest.cmake), ready for execvp: the program's absolute path, and before it the
 * emulator where programs of this build need one. */
std::vector<std::string> programCommand(std::string const& name);

/** The same for the build of another word size that stands beside this one. Its build tree is
 * named by the environment variable `REFLECTORB_PEER_DIR` or, failing that, by the CMake variable
 * of that name. Empty if there is none, or if it lacks the program. */
std::vector<std::string> peerProgramCommand(std::string const& name);

/**
 * A program that a test has started (fork and exec) and that ends with this object at the latest.
 * Threads of its own read both outputs, so that the child never blocks on them.
 *
 * Start it on a thread that lives as long as the child shall: the kernel kills the child when that
 * thread ends, so that a test that crashes leaves nobody behind.
 */
class ChildProgram {
public:
    using Environment = std::map<std::string, std::string>;

    /** Starts a whole command; throws std::system_error when the system has no process to give. A
     * command that cannot be executed exits with 127. `environment` adds to the test's. */
    explicit ChildProgram(std::vector<std::string> const& command,
                          std::vector<std::string> const& arguments = {},
                          Environment const& environment = {});
    /** Starts a test program by its name. */
    explicit ChildProgram(std::string const& name, std::vector<std::string> const& arguments = {},
                          Environment const& environment = {})
        : ChildProgram(programCommand(name), arguments, environment) {}
    /** Kills the child if it still runs, with all that it has started, and waits for its end. */
    ~ChildProgram();
    ChildProgram(ChildProgram const&) = delete;
    ChildProgram& operator=(ChildProgram const&) = delete;

    /** For a program whose end is what is judged: under the thread sanitizer its threads go on for
     * a second when all else of it has ended, not for the moment only that the preset gives others.
     */
    static Environment longEnd();

    pid_t pid() const { return pid_; }

    /** Writes a line to the child's standard input; false when it no longer reads. */
    bool writeLine(std::string const& line);
    void closeInput();

    /** Waits for the next line on standard output that contains `part`, beginning behind the one
     * found last, and answers it; nothing when the child's output has ended or the time is up. */
    std::optional<std::string> waitForLine(std::string const& part,
                                           std::chrono::milliseconds limit = kPatience) {
        return waitForLineIn(out_, part, limit);
    }
    /** The same for standard error, where the child's log goes. */
    std::optional<std::string> waitForErrorLine(std::string const& part,
                                                std::chrono::milliseconds limit = kPatience) {
        return waitForLineIn(error_, part, limit);
    }
    /** All lines so far. */
    std::vector<std::string> lines() const { return linesOf(out_); }
    std::vector<std::string> errorLines() const { return linesOf(error_); }

    /** Sends a signal: SIGKILL, SIGSTOP, SIGCONT, ... */
    void signal(int number);
    void kill() { signal(SIGKILL); }
    /** Sends SIGSTOP and waits until none of the child's threads runs any more; SIGCONT lets them
     * go on. False when the time is up. */
    bool stopWholly(std::chrono::milliseconds limit = kPatience);
    /** Waits for the child's end and answers its status as waitpid gives it; nothing when the time
     * is up. All output is in `lines` afterwards, unless a grandchild still holds it open. */
    std::optional<int> waitForExit(std::chrono::milliseconds limit = kPatience);
    /** As `waitForExit`, as a plain number: the exit code, or minus the number of the signal that
     * ended the child; -1000 when the time is up. */
    int exitCode(std::chrono::milliseconds limit = kPatience);

private:
    /** Lines of one output, in the order of arrival. */
    struct Output {
        std::vector<std::string> lines;
        std::size_t next = 0;  // first line that no wait has passed yet
        bool ended = false;
        std::thread reader;
    };

    void read(Output& output, int descriptor);
    std::vector<std::string> linesOf(Output const& output) const;
    std::optional<std::string> waitForLineIn(Output& output, std::string const& part,
                                             std::chrono::milliseconds limit);

    pid_t pid_ = -1;
    int input_ = -1;
    std::optional<int> status_;  // test's thread only
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Output out_;    // guarded by mutex_, but for the thread
    Output error_;  // guarded by mutex_, but for the thread
};

}  // namespace testsupport
