// Machines whose links talk over a real network, of which each is a network namespace here.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ActorProgram.h"
#include "Namespaces.h"
#include "RendezvousFolder.h"
#include "StationActor.h"
#include "Waiting.h"

namespace machines {

using testsupport::ActorProgram;
using testsupport::ChildProgram;
using testsupport::does;
using Command = ActorProgram::Command;

/** Whether the program takes SIGTERM as something to read, which it does first of all. */
inline bool readsSignals(ChildProgram const& program) {
    return does("grep -q '^SigBlk:.*4203$' /proc/" + std::to_string(program.pid()) + "/status");
}

class Network : public testsupport::Namespaces {
public:
    explicit Network(int machines = 2) : Namespaces(machines) {}

    static void unplug(int slot) { EXPECT_TRUE(Namespaces::unplug(slot)); }
    static void plugIn(int slot) { EXPECT_TRUE(Namespaces::plugIn(slot)); }
    static void keepApart(int slot, bool apart) { EXPECT_TRUE(Namespaces::keepApart(slot, apart)); }
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
