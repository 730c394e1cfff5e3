#include "Runner.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "Child.h"

namespace bench {

namespace {

/** Milliseconds between a broker's start and its first use. */
constexpr double kPauseOfNewBroker = 100;

std::unique_ptr<Subject> makeSubject(std::string const& name) {
    static std::map<std::string, std::unique_ptr<Subject> (*)()> const makers{
        {"orb", makeOrb},
        {"short", makeShortFloor},
        {"sleeping", makeSleepingFloor},
        {"polling", makePollingFloor},
        {"permission", makePermissionFloor},
#ifdef BENCH_PEERS
        {"omniorb", makeOmniOrb},
#endif
    };
    return makers.at(name)();
}

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
    bool const placed = load == Load::kOneProcessor || load == Load::kSplit;
    Child server({"--serve", subject, folder.path()}, placed ? 0 : -1);
    std::string line;
    if (!server.readLine(line) || line != "ready")
        return {};
    auto const busy = startBusyProcesses(load);
    auto const start = std::chrono::steady_clock::now();
    Child client({"--measure", subject, scenario, folder.path(), std::to_string(server.pid())},
                 load == Load::kSplit ? 1
                 : placed             ? 0
                                      : -1);
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

}  // namespace bench
