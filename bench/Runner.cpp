#include "Runner.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

namespace bench {

namespace {

/** Milliseconds between a broker's start and its first use. */
constexpr double kPauseOfNewBroker = 100;

std::unique_ptr<Subject> makeSubject(std::string const& name) {
    if (name == "orb")
        return makeOrb();
    if (name == "sleeping")
        return makeSleepingFloor();
    if (name == "polling")
        return makePollingFloor();
    return makePermissionFloor();
}

/** A folder of its own for one measurement. */
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "reflectorb-bench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string const& path() const { return path_; }

private:
    std::string path_;
};

/** A copy of this program with other arguments; dies with its parent. */
class Child {
public:
    Child(std::vector<std::string> const& arguments, int processor = -1) {
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
    ~Child() {
        closeInput();
        if (!waited_ && pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (output_ != nullptr)
            std::fclose(output_);
    }
    Child(Child const&) = delete;
    Child& operator=(Child const&) = delete;

    pid_t pid() const { return pid_; }
    bool readLine(std::string& line) {
        std::array<char, 256> buffer{};
        if (output_ == nullptr || std::fgets(buffer.data(), buffer.size(), output_) == nullptr)
            return false;
        line = buffer.data();
        while (!line.empty() && line.back() == '\n')
            line.pop_back();
        return true;
    }
    /** Ends the child's input, which asks it to end. */
    void closeInput() {
        if (input_ >= 0)
            close(input_);
        input_ = -1;
    }
    bool waitForEnd() {
        int status = 0;
        waited_ = waitpid(pid_, &status, 0) == pid_;
        return waited_ && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    [[noreturn]] static void become(std::vector<std::string> const& arguments, int processor,
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

    pid_t pid_ = -1;
    int input_ = -1;
    std::FILE* output_ = nullptr;
    bool waited_ = false;
};

std::vector<std::unique_ptr<Child>> startBusyProcesses(Load load) {
    std::vector<std::unique_ptr<Child>> busy;
    long const processors = load == Load::kBusy ? sysconf(_SC_NPROCESSORS_ONLN) : 0;
    for (int i = 0; i < processors; ++i)
        busy.push_back(std::make_unique<Child>(std::vector<std::string>{"--busy"}, i));
    return busy;
}

Figures collect(Child& client) {
    Figures figures;
    std::string line;
    while (client.readLine(line)) {
        std::size_t const space = line.find(' ');
        if (space != std::string::npos)
            figures[line.substr(0, space)] = std::atof(line.c_str() + space + 1);
    }
    return figures;
}

}  // namespace

Figures runPair(std::string const& subject, std::string const& scenario, Load load) {
    TemporaryFolder const folder;
    int const processor = load == Load::kOneProcessor ? 0 : -1;
    Child server({"--serve", subject, folder.path()}, processor);
    std::string line;
    if (!server.readLine(line) || line != "ready")
        return {};
    auto const busy = startBusyProcesses(load);
    auto const start = std::chrono::steady_clock::now();
    Child client({"--measure", subject, scenario, folder.path(), std::to_string(server.pid())},
                 processor);
    Figures figures;
    if (scenario == "start") {
        if (client.readLine(line) && line == "first")
            figures["start_ms"] =
                std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                    .count() -
                kPauseOfNewBroker;
    } else {
        figures = collect(client);
    }
    client.waitForEnd();
    server.closeInput();
    server.waitForEnd();
    return figures;
}

int serveMain(std::string const& subject, std::string const& folder) {
    makeSubject(subject)->serve(folder);
    return 0;
}

int clientMain(std::string const& subject, std::string const& scenario, std::string const& folder,
               int server) {
    std::unique_ptr<Client> const client = makeSubject(subject)->connect(folder);
    if (!client)
        return 1;
    if (scenario == "start") {
        client->enterThread();
        bool const answered = client->call();
        std::puts(answered ? "first" : "failed");
        client->leaveThread();
        return answered ? 0 : 1;
    }
    for (auto const& [name, value] : measure(*client, scenario, server))
        std::printf("%s %.3f\n", name.c_str(), value);
    std::fflush(stdout);
    return 0;
}

int busyMain() {
    for (unsigned long volatile n = 0;; n = n + 1) {
    }
}

void announceAndWait() {
    std::puts("ready");
    std::fflush(stdout);
    for (char byte = 0; read(STDIN_FILENO, &byte, 1) > 0;) {
    }
}

}  // namespace bench
