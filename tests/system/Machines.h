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

/** Namespaces, each with a cable to a bridge in one of its own; their addresses are known in there
 * only. */
class Network {
public:
    explicit Network(int machines = 2) : machines_(machines) {
        remove();  // what one of the same process id has left
        made_ = geteuid() == 0 && does("ip netns add " + name(kHub)) &&
                does("ip -n " + name(kHub) + " link add bridge type bridge") &&
                does("ip -n " + name(kHub) + " link set bridge up");
        for (int slot = 1; slot <= machines_; ++slot)
            made_ = made_ && add(slot);
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
    void plugIn(int slot) { EXPECT_TRUE(set(slot, "up")); }
    /** What a machine sends goes nowhere; what others send comes. False: this kernel cannot. */
    static bool mute(int slot) { return queue(slot, "replace dev cable root blackhole"); }
    static bool unmute(int slot) { return queue(slot, "del dev cable root"); }
    /** Those of whom this holds reach each other no more, but all others. */
    void keepApart(int slot, bool apart) {
        EXPECT_TRUE(does("ip -n " + name(kHub) + " link set " + port(slot) +
                         " type bridge_slave isolated " + (apart ? "on" : "off")));
    }

private:
    static constexpr int kHub = 0;

    static std::string port(int slot) { return "port" + std::to_string(slot); }
    static bool add(int slot) {
        return does("ip netns add " + name(slot)) &&
               does("ip netns exec " + name(slot) + " true") &&
               does("ip link add cable netns " + name(slot) + " type veth peer name " + port(slot) +
                    " netns " + name(kHub)) &&
               does("ip -n " + name(kHub) + " link set " + port(slot) + " master bridge up") &&
               does("ip -n " + name(slot) + " addr add 10.77.0." + std::to_string(slot) +
                    "/24 dev cable") &&
               does("ip -n " + name(slot) + " link set lo up") && set(slot, "up");
    }
    static bool queue(int slot, std::string const& what) {
        return does("ip netns exec " + name(slot) + " tc qdisc " + what);
    }
    void remove() const {
        for (int slot = kHub; slot <= machines_; ++slot)
            does("ip netns del " + name(slot));
    }

    int const machines_;
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

}  // namespace machines
