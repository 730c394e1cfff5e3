#include "Child.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>

namespace bench {

namespace {

[[noreturn]] void become(std::vector<std::string> const& arguments, int processor,
                         std::array<int, 2> const& in, std::array<int, 2> const& out) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(in[0], 0);
    dup2(out[1], 1);
    if (processor >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<unsigned>(processor), &set);
        sched_setaffinity(0, sizeof set, &set);
    }
    std::vector<char*> argv{const_cast<char*>("reflectorb-bench")};
    for (std::string const& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv("/proc/self/exe", argv.data());
    _exit(127);
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
    std::string pattern = std::filesystem::temp_directory_path() / "reflectorb-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Child::Child(std::vector<std::string> const& arguments, int processor) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (pipe2(in.data(), O_CLOEXEC) < 0 || pipe2(out.data(), O_CLOEXEC) < 0)
        return;
    pid_ = fork();
    if (pid_ == 0)
        become(arguments, processor, in, out);
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = fdopen(out[0], "r");
}

Child::~Child() {
    closeInput();
    if (!waited_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (output_ != nullptr)
        std::fclose(output_);
}

void Child::writeLine(std::string const& line) {
    dprintf(input_, "%s\n", line.c_str());
}

bool Child::readLine(std::string& line) {
    std::array<char, 256> buffer{};
    if (output_ == nullptr || std::fgets(buffer.data(), buffer.size(), output_) == nullptr)
        return false;
    line = buffer.data();
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    return true;
}

void Child::closeInput() {
    if (input_ >= 0)
        close(input_);
    input_ = -1;
}

bool Child::waitForEnd() {
    int status = 0;
    waited_ = waitpid(pid_, &status, 0) == pid_;
    return waited_ && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void announceAndWait() {
    std::puts("ready");
    std::fflush(stdout);
    for (char byte = 0; read(STDIN_FILENO, &byte, 1) > 0;) {
    }
}

}  // namespace bench
