// Machines whose links talk over a real network, of which each is a network namespace here.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "ActorProgram.h"
#include "RendezvousFolder.h"
#include "StationActor.h"
#include "Waiting.h"

namespace {

using testsupport::ActorProgram;
using testsupport::ChildProgram;
using Command = ActorProgram::Command;

bool does(std::string const& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

/** Whether the program takes SIGTERM as something to read, which it does first of all. */
bool readsSignals(ChildProgram const& program) {
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
    void unplug(int slot) { EXPECT_TRUE(does("ip -n " + name(slot) + " link set cable down")); }
    void plugIn() {
        for (int slot : {1, 2})
            made_ = made_ && does("ip -n " + name(slot) + " link set cable up");
    }

private:
    static void remove() {
        for (int slot : {1, 2})
            does("ip netns del " + name(slot));
    }

    bool made_ = false;
};

/** A machine's folder and its link. */
class Machine {
public:
    explicit Machine(int slot) : slot_(slot), folder_(parent_.path() + "/machine") {
        mkdir(folder_.c_str(), 0700);
    }

    ActorProgram::Environment environment() const {
        return {{"TRANSPORT_DIR", folder_}, {"TRANSPORT_SLOT", std::to_string(slot_)}};
    }
    Command within(Command const& command) const {
        Command whole{"ip", "netns", "exec", Network::name(slot_)};
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
    std::unique_ptr<ChildProgram> program(std::string const& name) const {
        return std::make_unique<ChildProgram>(
            within({LINK_PROGRAM, "--interface", "cable", "--open", "--machine", name}),
            std::vector<std::string>(), environment());
    }
    void startLink() { link = program("machine" + std::to_string(slot_)); }
    void awaitLinked() { await("linked with slot"); }
    void awaitParted() { await("no link with slot"); }

    std::unique_ptr<ChildProgram> link;

private:
    void await(char const* line) { EXPECT_TRUE(link->waitForErrorLine(line)) << line; }

    int const slot_;
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
    /** All that was accepted has been delivered or has come back. */
    void awaitAllAccountedFor() {
        unsigned long const accepted =
            std::strtoul(sender->ask("accepted " + receiverId, "accepted").c_str(), nullptr, 10);
        EXPECT_GT(accepted, 0u);
        EXPECT_SOON(reportOf(*receiver).received + reportOf(*sender).returned >= accepted);
        EXPECT_EQ(reportOf(*sender).damaged, 0u);
        EXPECT_EQ(receiver->ask("doubled", "doubled"), "0");
    }

    Network network;
    Machine one{1}, two{2};
    std::unique_ptr<ActorProgram> sender, receiver;
    std::string senderId, receiverId;
};

TEST_F(MachinesTest, objects_are_called_across_machines_and_messages_of_all_sizes_come_in_order) {
    auto const server = one.station();
    auto const client = two.station();
    server->publishStation("far", "2");
    EXPECT_SOON(client->does("keep far 2"));
    EXPECT_EQ(client->ask("use far", "used"), "1");
    EXPECT_EQ(client->number("add far 1000", "added"), 1000u);
    EXPECT_SOON(server->number("total far", "total") == 1000u);
    join();
    sender->tell("flood " + receiverId + " 20000 64");
    sender->tell("flood " + receiverId + " 0 64");
    EXPECT_SOON(reportOf(*receiver).received == 20'000u);
    EXPECT_EQ(reportOf(*receiver).faults, 0u);
    receiver->tell("flood " + senderId + " 3 16777216");
    EXPECT_SOON(reportOf(*sender).received == 3u);
    EXPECT_EQ(reportOf(*sender).faults, 0u);
    EXPECT_EQ(reportOf(*sender).returned, 0u);
}

TEST_F(MachinesTest, the_end_of_a_process_or_of_a_link_is_told_and_all_comes_back_by_itself) {
    join();
    std::string const watcher = sender->ask("start 1", "id");
    auto const told = [&](char const* what) {
        return sender->child().waitForLine(what + watcher + " " + receiverId).has_value();
    };
    receiver->child().kill();
    EXPECT_TRUE(told("departed "));
    receiver = two.actor("transport_actor");
    receiverId = receiver->ask("join", "id");
    EXPECT_TRUE(told("arrived "));
    for (Machine* machine : {&one, &two}) {
        sender->tell("flood " + receiverId + " 30000 200");
        machine->link->kill();
        EXPECT_TRUE(told("departed "));
        machine->startLink();
        awaitLinked();
        EXPECT_TRUE(told("arrived "));
        EXPECT_TRUE(sender->does("ping " + receiverId));
    }
}

TEST_F(MachinesTest, a_parting_of_any_length_loses_no_message_silently) {
    join();
    for (unsigned const milliseconds : {600u, 2500u}) {
        SCOPED_TRACE(milliseconds);
        sender->tell("flood " + receiverId + " 100000 200");
        network.unplug(2);
        usleep(1000 * milliseconds);
        network.plugIn();
        EXPECT_SOON(sender->does("ping " + receiverId));
        awaitAllAccountedFor();
    }
}

TEST_F(MachinesTest, who_does_not_read_holds_up_nobody_and_all_that_he_has_not_read_comes_back) {
    join();
    auto const other = two.actor("transport_actor");
    std::string const otherId = other->ask("join", "id");
    ASSERT_TRUE(receiver->child().stopWholly());
    sender->tell("flood " + receiverId + " 100000 200");
    EXPECT_EQ(sender->ask("accepted " + receiverId, "accepted"), "100000");
    EXPECT_TRUE(sender->does("ping " + otherId));
    receiver->child().signal(SIGCONT);
    EXPECT_SOON(reportOf(*receiver).received == 100'000u);
    EXPECT_EQ(reportOf(*receiver).faults, 0u);
    ASSERT_TRUE(receiver->child().stopWholly());
    sender->tell("flood " + receiverId + " 100000 200");
    EXPECT_TRUE(sender->does("ping " + otherId));
    receiver->child().kill();
    EXPECT_SOON(reportOf(*sender).returned >= 100'000u);
    EXPECT_EQ(sender->ask("accepted " + receiverId, "accepted"), "200000");
    EXPECT_EQ(reportOf(*sender).returned, 100'000u);
    EXPECT_EQ(reportOf(*sender).damaged, 0u);
}

TEST_F(MachinesTest, a_second_link_of_a_folder_and_a_second_machine_of_a_slot_are_refused) {
    auto const second = one.program("machine1");
    EXPECT_EQ(second->exitCode(), 4);
    one.link->signal(SIGTERM);
    EXPECT_EQ(one.link->exitCode(), 0);
    two.awaitParted();
    Machine rival(1);
    rival.startLink();
    rival.awaitLinked();
    auto const late = one.program("other");
    EXPECT_EQ(late->exitCode(), 3);
}

TEST_F(MachinesTest, a_link_that_still_looks_who_has_its_slot_ends_when_told) {
    one.link.reset();
    auto const early = one.program("machine1");
    ASSERT_SOON(readsSignals(*early));
    early->signal(SIGTERM);
    EXPECT_EQ(early->exitCode(), 0);
}

}  // namespace
