// Machines whose links talk over a real network, of which each is a network namespace here.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ActorProgram.h"
#include "RendezvousFolder.h"
#include "StationActor.h"
#include "Waiting.h"

namespace machines {

using testsupport::ActorProgram;
using testsupport::ChildProgram;
using Command = ActorProgram::Command;

inline bool does(std::string const& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/** Whether the program takes SIGTERM as something to read, which it does first of all. */
inline bool readsSignals(ChildProgram const& program) {
    return does("grep -q '^SigBlk:.*4203$' /proc/" + std::to_string(program.pid()) + "/status");
}

/** Two namespaces and the cable between them, of addresses that are known in there only. */
class Network {
public:
    Network() {
        remove();  // what one of the same process id has left
        made_ = geteuid() == 0 && does("ip netns add " + name(1)) &&
                does("ip netns add " + name(2)) &&
                does("ip link add cable netns " + name(1) + " type veth peer name cable netns " +
                     name(2));
        for (int slot : {1, 2})
            made_ = made_ && does("ip netns exec " + name(slot) + " true") &&
                    does("ip -n " + name(slot) + " addr add 10.77.0." + std::to_string(slot) +
                         "/24 dev cable") &&
                    does("ip -n " + name(slot) + " link set lo up");
        plugIn();
    }
    ~Network() { remove(); }
    Network(Network const&) = delete;
    Network& operator=(Network const&) = delete;

    bool made() const { return made_; }
    static std::string name(int slot) {
        return "reflectorb-" + std::to_string(getpid()) + "-" + std::to_string(slot);
    }
    static bool set(int slot, std::string const& what) {
        return does("ip -n " + name(slot) + " link set cable " + what);
    }
    void unplug(int slot) { EXPECT_TRUE(set(slot, "down")); }
    /** What a machine sends goes nowhere; what others send comes. False: this kernel cannot. */
    static bool mute(int slot) { return queue(slot, "replace dev cable root blackhole"); }
    static bool unmute(int slot) { return queue(slot, "del dev cable root"); }
    void plugIn() {
        for (int slot : {1, 2})
            made_ = made_ && set(slot, "up");
    }

private:
    static bool queue(int slot, std::string const& what) {
        return does("ip netns exec " + name(slot) + " tc qdisc " + what);
    }
    static void remove() {
        for (int slot : {1, 2})
            does("ip netns del " + name(slot));
    }

    bool made_ = false;
};

/** A machine's folder and its link. */
class Machine {
public:
    /** `place`: whose namespace it shares; 0: its own one. */
    explicit Machine(int slot, int place = 0)
        : slot_(slot), place_(place == 0 ? slot : place), folder_(parent_.path() + "/machine") {
        mkdir(folder_.c_str(), 0700);
    }

    ActorProgram::Environment environment() const {
        return {{"TRANSPORT_DIR", folder_},
                {"TRANSPORT_SLOT", std::to_string(slot_)},
                {"REFLECTORB_PROCESS_OBJECT", "1"}};
    }
    Command within(Command const& command) const {
        Command whole{"ip", "netns", "exec", Network::name(place_)};
        whole.insert(whole.end(), command.begin(), command.end());
        return whole;
    }
    std::unique_ptr<ActorProgram> actor(std::string const& program) const {
        return std::make_unique<ActorProgram>(within(testsupport::programCommand(program)),
                                              environment());
    }
    std::unique_ptr<StationActor> station() const {
        return std::make_unique<StationActor>(environment(),
                                              within(testsupport::programCommand("station_actor")));
    }
    /** On the one interface that there is. */
    std::unique_ptr<ChildProgram> program(std::string const& name,
                                          ActorProgram::Environment const& more = {}) const {
        std::string const file = parent_.path() + "/link.conf";
        std::ofstream(file) << "# of a test\n\n" << access << "\nmachine = another\n";
        auto all = environment();
        all.insert(more.begin(), more.end());
        return std::make_unique<ChildProgram>(
            within({LINK_PROGRAM, "--config", file, "--machine", name}), std::vector<std::string>(),
            all);
    }
    void startLink(ActorProgram::Environment const& more = {}) {
        link = program("machine" + std::to_string(slot_), more);
    }
    /** What `status` says, and its exit code. */
    struct Status {
        int exitCode;
        std::string text;
        /** The number behind a name that stands there once. */
        double number(std::string const& name) const {
            std::size_t const at = text.find("\"" + name + "\": ");
            EXPECT_NE(at, text.npos) << name << " in " << text;
            return at == text.npos ? 0 : std::strtod(text.c_str() + at + name.size() + 4, nullptr);
        }
    };
    Status status(Command const& arguments = {}) const {
        Command command{LINK_PROGRAM, "status", "--json"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        ChildProgram asking(within(command), {}, environment());
        Status status{asking.exitCode(), ""};
        for (std::string const& line : asking.lines())
            status.text += line;
        return status;
    }
    void awaitLinked() { await("linked with slot"); }
    void awaitParted() { await("no link with slot"); }

    std::unique_ptr<ChildProgram> link;
    std::string access = "open = true";  // who may join, in its configuration file

private:
    void await(char const* line) { EXPECT_TRUE(link->waitForErrorLine(line)) << line; }

    int const slot_;
    int const place_;
    testsupport::RendezvousFolder const parent_;
    std::string const folder_;
};

class MachinesTest : public testing::Test {
protected:
    void SetUp() override {
        if (!network.made())
            GTEST_SKIP() << "network namespaces need root, iproute2, and the right to enter them";
        one.startLink();
        two.startLink();
        awaitLinked();
    }
    void TearDown() override {
        for (Machine* machine : {&one, &two})
            if (HasFailure() && machine->link)
                for (std::string const& line : machine->link->errorLines())
                    std::printf("%s\n", line.c_str());
    }
    void awaitLinked() {
        one.awaitLinked();
        two.awaitLinked();
    }
    /** A termination on each machine; those of the other one are known to each. */
    void join() {
        sender = one.actor("transport_actor");
        receiver = two.actor("transport_actor");
        senderId = sender->ask("join", "id");
        receiverId = receiver->ask("join", "id");
        EXPECT_TRUE(sender->does("ping " + receiverId));
        EXPECT_TRUE(receiver->does("ping " + senderId));
    }
    struct Report {
        unsigned long received = 0, faults = 0, returned = 0, damaged = 0;
    };
    static Report reportOf(ActorProgram& actor) {
        std::istringstream words(actor.ask("report", "report"));
        Report report;
        words >> report.received >> report.faults >> report.returned >> report.damaged;
        return report;
    }
    /** How often each number has come, or has come back, as the actor writes it in runs. */
    static std::vector<unsigned> timesOf(ActorProgram& actor, std::string const& what,
                                         std::string const& id, std::size_t numbers) {
        std::istringstream runs(actor.ask(what + " " + id, what));
        std::vector<unsigned> times;
        unsigned often = 0;
        std::size_t count = 0;
        for (char by = 0; runs >> often >> by >> count;)
            times.insert(times.end(), count, often);
        times.resize(numbers);
        return times;
    }
    /** Of each message that was accepted. */
    struct Ledger {
        unsigned long accepted = 0, lost = 0, both = 0, doubled = 0;
        bool settled() const { return accepted > 0 && lost == 0; }
    };
    Ledger ledger() {
        Ledger ledger;
        ledger.accepted =
            std::strtoul(sender->ask("accepted " + receiverId, "accepted").c_str(), nullptr, 10);
        auto const came = timesOf(*receiver, "came", senderId, ledger.accepted);
        auto const back = timesOf(*sender, "back", receiverId, ledger.accepted);
        for (std::size_t i = 0; i < ledger.accepted; ++i) {
            ledger.lost += came[i] + back[i] == 0;
            ledger.both += came[i] > 0 && back[i] > 0;
            ledger.doubled += came[i] > 1 || back[i] > 1;
        }
        return ledger;
    }
    /** Each message that was accepted has been delivered or has come back, and no more than once:
     * both only when what settled it was lost. */
    void awaitAllAccountedFor() {
        EXPECT_SOON(ledger().settled());
        Ledger const end = ledger();
        EXPECT_EQ(end.lost, 0u);
        EXPECT_EQ(end.doubled, 0u);
        EXPECT_EQ(reportOf(*sender).damaged, 0u);
    }

    Network network;
    Machine one{1}, two{2};
    std::unique_ptr<ActorProgram> sender, receiver;
    std::string senderId, receiverId;
};

}  // namespace machines
