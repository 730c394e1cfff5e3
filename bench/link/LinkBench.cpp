// What two machines and more can do over their links, held against the bare engine between the
// same two machines, and against one machine, in the same run.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "Measure.h"
#include "Subject.h"
#include "link/Bare.h"
#include "link/Member.h"
#include "link/Moment.h"
#include "link/Network.h"

namespace {

using bench::Child;
using bench::Figures;
using bench::Machine;
using bench::Network;
using Words = std::vector<std::string>;

constexpr int kRounds = 3;

// ---- Results -----------------------------------------------------------------------------------

std::map<std::string, std::vector<double>> results;
std::vector<std::string> unshown;

void note(std::string const& what, double value) {
    std::vector<double>& values = results[what];
    if (values.empty())
        unshown.push_back(what);
    values.push_back(value);
}

/** The median; not a number when there is none. */
double result(std::string const& what) {
    std::vector<double> values = results[what];
    if (values.empty())
        return std::nan("");
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/** What has been noted since the last time, in the order of noting. */
void show() {
    for (std::string const& what : unshown)
        std::printf("  %-60s %12.2f\n", what.c_str(), result(what));
    std::fflush(stdout);
    unshown.clear();
}

int missed = 0;

void judge(std::string const& what, double value, bool atLeast, double limit) {
    bool const met = atLeast ? value >= limit : value <= limit;
    missed += met ? 0 : 1;
    std::printf("  %-6s %10.2f  (%s %.2f)  %s\n", met ? "met" : "MISSED", value,
                atLeast ? "at least" : "at most", limit, what.c_str());
}
void atMost(double limit, std::string const& what, double value) {
    judge(what, value, false, limit);
}
void atLeast(double limit, std::string const& what, double value) {
    judge(what, value, true, limit);
}

// ---- Programs on machines ----------------------------------------------------------------------

std::string ask(Child& child, std::string const& command) {
    child.writeLine(command);
    std::string line;
    if (!child.readLine(line))
        return "ended";
    return line;
}

/** Not a number when the answer is none. */
double numberFrom(Child& child, std::string const& command) {
    std::string const answer = ask(child, command);
    char* end = nullptr;
    double const value = std::strtod(answer.c_str(), &end);
    return end == answer.c_str() ? std::nan("") : value;
}

/** Two machines that are linked. */
struct Two {
    explicit Two(Network const& network) : one(network, 1), two(network, 2) {
        one.startLink();
        two.startLink();
        linked = one.awaitLog("linked with slot") && two.awaitLog("linked with slot");
    }
    Machine one, two;
    bool linked = false;
};

/** A pair of processes of the broker: the server on one machine, the client on another, or both on
 * the same one. */
Figures call(Machine const& at, Machine const& from, std::string const& scenario) {
    auto const server = at.run({"serve"});
    std::string line;
    if (!server->readLine(line) || line != "ready")
        return {};
    auto const client = from.run({"call", scenario, std::to_string(server->pid())});
    Figures figures;
    while (client->readLine(line)) {
        std::istringstream words(line);
        std::string name;
        words >> name >> figures[name];
    }
    client->waitForEnd();
    server->closeInput();
    server->waitForEnd();
    return figures;
}

/** Two processes that have met over the bare engine. */
struct BarePair {
    explicit BarePair(Two const& machines)
        : answering(machines.one.run({"bare", "1"})), asking(machines.two.run({"bare", "2"})) {
        answering->writeLine("meet");
        asking->writeLine("meet");
        std::string line;
        met = answering->readLine(line) && line == "met" && asking->readLine(line) && line == "met";
    }
    std::unique_ptr<Child> answering, asking;
    bool met = false;
};

/** Two terminations that know each other. */
struct MemberPair {
    explicit MemberPair(Two const& machines)
        : receiver(machines.one.run({"member"})), sender(machines.two.run({"member"})) {
        met = std::isfinite(numberFrom(*sender, "know 1")) &&
              std::isfinite(numberFrom(*receiver, "know 1"));
        id = ask(*receiver, "id");
    }
    double stream(unsigned long count, std::size_t bytes) const {
        return numberFrom(
            *sender, "stream " + id + " " + std::to_string(count) + " " + std::to_string(bytes));
    }
    std::unique_ptr<Child> receiver, sender;
    std::string id;
    bool met = false;
};

// ---- Speed -------------------------------------------------------------------------------------

struct Trip {
    double p50 = std::nan(""), p99 = std::nan(""), mean = std::nan("");
};

Trip bareTrip(BarePair const& pair, double seconds, bool direct) {
    std::istringstream words(
        ask(*pair.asking, "ping " + std::to_string(seconds) + " 128 " + std::to_string(direct)));
    Trip trip;
    words >> trip.p50 >> trip.p99 >> trip.mean;
    return trip;
}

constexpr unsigned long kSmallCount = 400'000, kLargeCount = 6'000;
constexpr unsigned long kSmallOfEngine = 100'000;  // it takes longer for each
constexpr unsigned long kLarge = 64 * 1024;
constexpr double kMega = 1e6;

constexpr char const* kSmallRate = ", 64 bytes one way, million/s";
constexpr char const* kLargeRate = ", 64 KiB one way, MB/s";

void noteRates(std::string const& whose, double small, double largeBytes, double large) {
    note(whose + kSmallRate, small / kMega);
    note(whose + kLargeRate, kLargeCount * largeBytes / large / kMega);
}

void rates() {
    Network const network(2);
    Two const machines(network);
    for (int round = 0; machines.linked && round < kRounds; ++round) {
        {
            BarePair const pair(machines);
            double const small =
                numberFrom(*pair.asking, "stream " + std::to_string(kSmallOfEngine) + " 64 1");
            double const large =
                numberFrom(*pair.asking, "stream " + std::to_string(kLargeCount) + " 65024 0");
            noteRates("engine", kSmallOfEngine / small, 65'024, large);
        }
        MemberPair const pair(machines);
        double const small = pair.stream(kSmallCount, 64);
        noteRates("links", kSmallCount / small, kLarge, pair.stream(kLargeCount, kLarge));
    }
    std::printf("\nOne-way messages: medians of %d runs in turn\n", kRounds);
    show();
    atLeast(std::min(1.0, 0.8 * result(std::string("engine") + kSmallRate)),
            "64 bytes one way, million/s", result(std::string("links") + kSmallRate));
    atLeast(0.7, "64 KiB one way / the engine",
            result(std::string("links") + kLargeRate) / result(std::string("engine") + kLargeRate));
}

void calls() {
    Network const network(2);
    Two const machines(network);
    for (int round = 0; machines.linked && round < kRounds; ++round) {
        note("engine, round trip, us", bareTrip(BarePair(machines), 0.7, true).p50);
        note("links, call, us", call(machines.one, machines.two, "single")["p50_us"]);
        note("one machine, call, us", call(machines.one, machines.one, "single")["p50_us"]);
        note("links, 64 callers, calls/s",
             call(machines.one, machines.two, "threads64")["calls_per_s"]);
        note("one machine, 64 callers, calls/s",
             call(machines.one, machines.one, "threads64")["calls_per_s"]);
    }
    std::printf("\nCalls: medians of %d runs in turn\n", kRounds);
    show();
    atMost(2.5, "call over the links / round trip of the engine",
           result("links, call, us") / result("engine, round trip, us"));
    atLeast(std::min(60'000.0, 0.5 * result("one machine, 64 callers, calls/s")),
            "64 callers, calls/s", result("links, 64 callers, calls/s"));
}

// ---- Datagrams lost ----------------------------------------------------------------------------

void lossOf(Network const& network, int percent) {
    if (!network.lose(percent)) {
        std::printf("  without nft, which drops datagrams: nothing measured\n");
        return;
    }
    Two const machines(network);
    std::string const of = " with " + std::to_string(percent) + " % lost, us";
    for (int round = 0; machines.linked && round < kRounds; ++round) {
        BarePair const pair(machines);
        Trip const bare = bareTrip(pair, 2, false);
        note("engine, mean" + of, bare.mean);
        note("engine, p99" + of, bare.p99);
        Figures figures = call(machines.one, machines.two, "single");
        note("links, mean" + of, figures["mean_us"]);
        note("links, p99" + of, figures["p99_us"]);
    }
    network.lose(0);
    show();
    atMost(3, "mean with " + std::to_string(percent) + " % lost / the engine",
           result("links, mean" + of) / result("engine, mean" + of));
    if (percent == 1)
        atMost(20'000, "p99 with 1 % lost, us", result("links, p99" + of));
}

void loss() {
    std::printf("\nDatagrams lost where they arrive\n");
    Network const network(2);
    lossOf(network, 1);
    lossOf(network, 5);
}

// ---- Faults ------------------------------------------------------------------------------------

/** Milliseconds from a moment until the watcher answers with its clock. */
double after(double moment, Child& watcher, std::string const& command) {
    return (numberFrom(watcher, command) - moment) / 1000;
}

void faultsOf(Network const& network, Two& machines, Child& watcher) {
    auto remote = machines.two.run({"member"});
    numberFrom(watcher, "know 1");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    double start = bench::moment();
    kill(remote->pid(), SIGKILL);
    note("death of a process told after, ms", after(start, watcher, "lose 0"));
    remote = machines.two.run({"member"});
    numberFrom(watcher, "know 1");
    start = bench::moment();
    network.unplug(2);
    note("a cable pulled told after, ms", after(start, watcher, "lose 0"));
    start = bench::moment();
    network.plugIn(2);
    note("its return told after, ms", after(start, watcher, "know 1"));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    start = bench::moment();
    network.unplug(2);
    machines.two.endLink();
    remote.reset();
    note("death of a machine told after, ms", after(start, watcher, "lose 0"));
    remote = machines.two.run({"member"});
    numberFrom(*remote, "lose 0");
    network.plugIn(2);
    start = bench::moment();
    machines.two.startLink();
    note("a link started again told after, ms", after(start, watcher, "know 1"));
}

void faults() {
    Network const network(2);
    Two machines(network);
    auto const watcher = machines.one.run({"member"});
    for (int round = 0; machines.linked && round < kRounds; ++round) {
        faultsOf(network, machines, *watcher);
        numberFrom(*watcher, "lose 0");
    }
    std::printf("\nFaults\n");
    show();
    atMost(100, "death of a process, ms", result("death of a process told after, ms"));
    atMost(1500, "death of a machine, ms", result("death of a machine told after, ms"));
    atMost(1000, "return of the network, ms", result("its return told after, ms"));
    atMost(1000, "return of a link, ms", result("a link started again told after, ms"));
}

// ---- Cost --------------------------------------------------------------------------------------

/** A number behind a word of /proc/<process>/status. */
double statusOf(pid_t process, std::string const& word) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(word + ":", 0) == 0)
            return std::atof(line.c_str() + word.size() + 1);
    return std::nan("");
}

/** Milliseconds of processor time that all its threads have used. */
double processorTime(pid_t process) {
    double nanoseconds = 0;
    std::string const tasks = "/proc/" + std::to_string(process) + "/task";
    for (auto const& task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream file(task.path() / "schedstat");
        double used = 0;
        file >> used;
        nanoseconds += used;
    }
    return nanoseconds / 1e6;
}

/** Clock ticks (of 10 ms) that the process has been charged with. */
double ticks(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    std::getline(stat, line);
    std::istringstream words(line.substr(line.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        words >> skipped;
    double user = 0, system = 0;
    words >> user >> system;
    return user + system;
}

struct Traffic {
    double packets = 0, bytes = 0;
};

/** What has come in over the cable of a process' machine. */
Traffic trafficOf(pid_t process) {
    std::ifstream devices("/proc/" + std::to_string(process) + "/net/dev");
    Traffic traffic;
    for (std::string line; std::getline(devices, line);)
        if (std::size_t const at = line.find("cable:"); at != std::string::npos)
            std::istringstream(line.substr(at + 6)) >> traffic.bytes >> traffic.packets;
    return traffic;
}

void cost() {
    std::printf("\nCost of a link\n");
    Network const network(2);
    Two const machines(network);
    if (!machines.linked)
        return;
    pid_t const link = machines.one.linkPid();
    double const before = processorTime(link), ticksBefore = ticks(link);
    std::this_thread::sleep_for(std::chrono::seconds(10));
    note("idle, processor time in 10 s, ms", processorTime(link) - before);
    note("idle, clock ticks of 10 ms in 10 s", ticks(link) - ticksBefore);
    note("idle, resident MB", statusOf(link, "VmRSS") / 1000);
    note("idle, threads", statusOf(link, "Threads"));
    auto const watcher = machines.one.run({"member"});
    auto const many = machines.two.run({"member"});
    numberFrom(*watcher, "know 1");
    double const start = bench::moment();
    ask(*many, "show 1000");
    note("1,000 terminations come, told after, ms", after(start, *watcher, "know 1001"));
    note("1,000 proxies, resident MB", statusOf(link, "VmRSS") / 1000);
    note("1,000 proxies, threads", statusOf(link, "Threads"));
    double const end = bench::moment();
    kill(many->pid(), SIGKILL);
    note("1,000 terminations go, told after, ms", after(end, *watcher, "lose 0"));
    show();
    atMost(0, "idle, clock ticks in 10 s", result("idle, clock ticks of 10 ms in 10 s"));
    atMost(12, "idle, resident MB", result("idle, resident MB"));
    atMost(40, "1,000 proxies, resident MB", result("1,000 proxies, resident MB"));
    atMost(100, "1,000 proxies, threads", result("1,000 proxies, threads"));
}

// ---- Many links --------------------------------------------------------------------------------

void linksOf(int count) {
    Network const network(count);
    std::vector<std::unique_ptr<Machine>> machines;
    for (int slot = 1; slot <= count; ++slot)
        machines.push_back(std::make_unique<Machine>(network, slot));
    double const start = bench::moment();
    for (auto const& machine : machines)
        machine->startLink();
    for (auto const& machine : machines)
        if (!machine->awaitLog("linked with slot", count - 1))
            return;
    double const linked = (bench::moment() - start) / 1000;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    pid_t const link = machines.front()->linkPid();
    double const before = processorTime(link);
    Traffic const trafficBefore = trafficOf(link);
    std::this_thread::sleep_for(std::chrono::seconds(4));
    Traffic const traffic = trafficOf(link);
    std::printf("  %5d  %8.0f  %11.1f  %7.0f  %14.2f  %10.1f  %10.1f\n", count, linked,
                statusOf(link, "VmRSS") / 1000, statusOf(link, "Threads"),
                (processorTime(link) - before) / 4, (traffic.packets - trafficBefore.packets) / 4,
                (traffic.bytes - trafficBefore.bytes) / 4000);
    std::fflush(stdout);
}

void scale() {
    std::printf(
        "\nLinks of one node, at rest: until all know all; then of one of them\n"
        "  links  all in ms  resident MB  threads  processor ms/s  packets/s  kB/s in\n");
    for (int const count : {2, 4, 8, 16})
        linksOf(count);
}

// ---- The program -------------------------------------------------------------------------------

int doOnMachine(Words const& words) {
    if (words.at(0) == "member")
        return bench::memberMain();
    if (words[0] == "bare")
        return bench::bareMain(static_cast<unsigned char>(std::atoi(words.at(1).c_str())));
    std::string const folder = std::getenv("TRANSPORT_DIR");
    auto const subject = bench::makeOrbOfNode();
    if (words[0] == "serve") {
        subject->serve(folder);
        return 0;
    }
    auto const client = subject->connect(folder);
    if (!client)
        return 1;
    for (auto const& [name, value] :
         bench::measure(*client, words.at(1), std::atoi(words.at(2).c_str())))
        std::printf("%s %.3f\n", name.c_str(), value);
    return 0;
}

struct Part {
    char const* name;
    void (*measure)();
};
Part const kParts[] = {{"calls", calls},   {"rates", rates}, {"loss", loss},
                       {"faults", faults}, {"cost", cost},   {"scale", scale}};

}  // namespace

/** Without arguments: everything. With words: those parts. */
int main(int argc, char** argv) {
    Words const words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "--in")
        return doOnMachine(bench::enterMachine(words));
    if (!Network(1).made()) {
        std::puts("network namespaces need root, iproute2, and the right to enter them");
        return 1;
    }
    for (Part const& part : kParts)
        if (words.empty() || std::find(words.begin(), words.end(), part.name) != words.end())
            part.measure();
    std::printf("\n%d target%s missed\n", missed, missed == 1 ? "" : "s");
    return 0;
}
