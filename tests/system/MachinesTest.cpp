// What befalls links, machines and the network between them.
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>

#include "MachinesFixture.h"

namespace machines {
namespace {

using namespace std::chrono_literals;

/** The service manager's end, to which a link tells how it is. */
class Manager {
public:
    Manager() : path_(folder_.path() + "/notify"), socket_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path_.c_str());
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Manager() { close(socket_); }
    Manager(Manager const&) = delete;
    Manager& operator=(Manager const&) = delete;

    /** Of a program that it ends when it hears nothing of it. */
    testsupport::ChildProgram::Environment environment() const {
        return {{"NOTIFY_SOCKET", path_}, {"WATCHDOG_USEC", std::to_string(kPatience.count())}};
    }
    testsupport::ChildProgram::Environment withoutWatchdog() const {
        return {{"NOTIFY_SOCKET", path_}};
    }
    /** Whether it is told that before the time is up. */
    bool hears(std::string const& what,
               std::chrono::milliseconds limit = testsupport::kPatience) const {
        return testsupport::eventually([&] { return next().find(what) != std::string::npos; },
                                       limit);
    }
    /** Takes no more until it has been asked what it hears. */
    void fill() const {
        sockaddr_un own{};
        socklen_t size = sizeof own;
        getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size);
        int const other = socket(AF_UNIX, SOCK_DGRAM, 0);
        while (sendto(other, "x", 1, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&own), size) == 1) {
        }
        close(other);
    }
    /** Forgets what it has been told. */
    void forget() const {
        while (!next().empty()) {
        }
    }

    static constexpr std::chrono::microseconds kPatience{900'000};

private:
    /** Empty when there is nothing. */
    std::string next() const {
        char text[512];
        ssize_t const size = recv(socket_, text, sizeof text, MSG_DONTWAIT);
        return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    }

    testsupport::RendezvousFolder const folder_;
    std::string const path_;
    int const socket_;
};

/** The thread of a process that has this name; 0: none. */
pid_t threadOf(pid_t process, std::string const& name) {
    for (auto const& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        if (comm == name)
            return std::stoi(task.path().filename().string());
    }
    return 0;
}

TEST(LinkOptionsTest, a_fault_in_the_configuration_file_is_told_with_its_line) {
    testsupport::RendezvousFolder const folder;
    std::string const file = folder.path() + "/link.conf";
    auto const toldOf = [&file](std::string const& text, std::string const& line) {
        std::ofstream(file) << text;
        ChildProgram link({LINK_PROGRAM, "--config", file});
        EXPECT_EQ(link.exitCode(), 2);
        EXPECT_TRUE(link.waitForErrorLine(file + line)) << text;
    };
    toldOf("# domain\ndomain = 999\n", ":2: --domain: ");
    toldOf("peers = 10.0.0.1, 10.0.0.2 10.0.0.3\n", ":1: --peers: \"10.0.0.2 10.0.0.3\" is no");
    toldOf("\n\nbridge = lo\n", ":3: there is no option \"bridge\"");
    toldOf("help = true", ":1: there is no option \"help\"");
    toldOf("open", ":1: \"open\" is not \"key = value\"");
    toldOf("open = perhaps", ":1: Could not convert: --open");
    toldOf("machine = a\n machine=b\n", ":2: \"machine\" stands here twice");
    toldOf("machine =", ":1: \"machine\" has no value");
    ChildProgram without({LINK_PROGRAM, "--config", file + ".d"});
    EXPECT_EQ(without.exitCode(), 2);
}

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
        EXPECT_EQ(machine->link->exitCode(), -SIGKILL);
        machine->startLink();
        awaitLinked();
        EXPECT_TRUE(told("arrived "));
        EXPECT_TRUE(sender->does("ping " + receiverId));
    }
    awaitAllAccountedFor();
}

TEST_F(MachinesTest, links_that_are_killed_take_nothing_with_them) {
    join();
    struct Other {
        char const* flood;  // more than rings and links hold
        std::unique_ptr<ActorProgram> actor;
        std::string id;
    };
    Other others[] = {{" 20000 200", {}, {}}, {" 100 40000", {}, {}}, {" 6 2097152", {}, {}}};
    for (Other& other : others) {
        other.actor = two.actor("transport_actor");
        other.id = other.actor->ask("join", "id");
        ASSERT_TRUE(sender->does("ping " + other.id));
        ASSERT_TRUE(other.actor->child().stopWholly());
        sender->tell("flood " + other.id + other.flood);
    }
    EXPECT_SOON(one.status().number("unsettledBytes") > 3'500'000);
    for (Machine const* machine : {&one, &two})
        machine->link->kill();
    for (Machine const* machine : {&one, &two})
        EXPECT_EQ(machine->link->exitCode(), -SIGKILL);
    for (Other const& other : others)
        other.actor->child().signal(SIGCONT);
    for (Machine* machine : {&one, &two})
        machine->startLink();
    awaitLinked();
    for (Other const& other : others) {
        SCOPED_TRACE(other.flood);
        EXPECT_SOON(sender->does("ping " + other.id));
        awaitAllAccountedFor(*other.actor, other.id);
    }
}

/** Also for a length in seconds that the environment names. */
TEST_F(MachinesTest, a_parting_of_any_length_loses_no_message_silently) {
    join();
    std::vector<unsigned> lengths{600, 2500};
    if (char const* const seconds = std::getenv("MACHINES_PARTED_SECONDS"))
        lengths.push_back(1000 * static_cast<unsigned>(std::atoi(seconds)));
    for (unsigned const milliseconds : lengths) {
        SCOPED_TRACE(milliseconds);
        sender->tell("flood " + receiverId + " 100000 200");
        network.unplug(2);
        usleep(1000 * milliseconds);
        network.plugIn(2);
        EXPECT_SOON(sender->does("ping " + receiverId));
        awaitAllAccountedFor();
    }
}

TEST_F(MachinesTest,
       a_network_that_carries_one_direction_only_parts_and_loses_no_message_silently) {
    if (!Network::mute(1) || !Network::unmute(1))
        GTEST_SKIP() << "the kernel has no queue that drops everything, or tc is missing";
    join();
    for (int const silent : {1, 2}) {
        SCOPED_TRACE(silent);
        sender->tell("flood " + receiverId + " 100000 200");
        ASSERT_TRUE(Network::mute(silent));
        (silent == 1 ? two : one).awaitParted();
        ASSERT_TRUE(Network::unmute(silent));
        EXPECT_SOON(sender->does("ping " + receiverId));
        awaitAllAccountedFor();
    }
}

TEST_F(MachinesTest, a_clock_that_is_set_forth_and_back_parts_nobody_and_loses_nothing) {
#ifdef CLOCKS_ARE_THE_SANITIZERS
    GTEST_SKIP()
        << "the sanitizer's own functions stand before the clock and those who wait for it";
#endif
    testsupport::RendezvousFolder const folder;
    std::string const set = folder.path() + "/set";
    for (Machine* machine : {&one, &two}) {
        machine->link.reset();
        machine->startLink({{"LD_PRELOAD", JUMPING_CLOCK}, {"CLOCK_SET_BY", set}});
    }
    awaitLinked();
    join();
    int round = 0;
    for (char const* const seconds : {"100000", "-100000", "0", "3", "-3"}) {
        SCOPED_TRACE(seconds);
        std::ofstream(set + ".new") << seconds;
        std::filesystem::rename(set + ".new", set);
        sender->tell("flood " + receiverId + " 20000 200");
        EXPECT_TRUE(receiver->does("ping " + senderId));
        ++round;
        EXPECT_SOON(reportOf(*receiver).received == 20'000u * static_cast<unsigned>(round));
    }
    // Its log shows that a link goes by the clock that was set.
    one.link->signal(SIGUSR1);
    EXPECT_TRUE(one.link->waitForErrorLine("sent 100"));
    EXPECT_EQ(reportOf(*sender).returned, 0u);
    for (Machine const* machine : {&one, &two})
        for (std::string const& line : machine->link->errorLines())
            EXPECT_EQ(line.find("no link with slot"), line.npos) << line;
}

TEST_F(MachinesTest, a_link_begins_without_its_interface_and_joins_when_that_comes) {
    network.unplug(1);
    one.link.reset();
    one.startLink();
    EXPECT_TRUE(one.link->waitForErrorLine("which interface is to be used: there is none"));
    Machine::Status const alone = one.status();
    EXPECT_EQ(alone.exitCode, 1);
    EXPECT_NE(alone.text.find("waits for its interface"), alone.text.npos) << alone.text;
    network.plugIn(1);
    awaitLinked();
    join();
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

TEST_F(MachinesTest, what_goes_back_to_who_does_not_read_holds_up_nobody_else) {
    join();
    auto const caller = one.actor("transport_actor"), other = two.actor("transport_actor");
    caller->ask("join", "id");
    std::string const otherId = other->ask("join", "id");
    EXPECT_TRUE(caller->does("ping " + otherId));
    ASSERT_TRUE(sender->child().stopWholly());
    receiver->tell("flood " + senderId + " 200 40000");
    EXPECT_EQ(receiver->ask("accepted " + senderId, "accepted"), "200");
    EXPECT_SOON(two.status().number("messagesOut") >= 35) << "more than a ring holds";
    ASSERT_TRUE(receiver->child().stopWholly());
    sender->child().kill();
    EXPECT_SOON((two.link->signal(SIGUSR1),
                 two.link->waitForErrorLine(": open, 1 terminations", 20ms).has_value()));
    EXPECT_TRUE(caller->does("ping " + otherId));
    EXPECT_TRUE(other->does("exists " + senderId)) << "what it has not read still goes back";
    receiver->child().signal(SIGCONT);
    EXPECT_SOON(reportOf(*receiver).returned == 200u);
}

TEST_F(MachinesTest, creations_are_told_across_machines_and_the_tool_shows_who_is_where) {
    auto const server = two.station();
    server->publishStation("far", "2");
    auto const client = one.station();
    ASSERT_SOON(client->does("keep far 2"));
    EXPECT_TRUE(client->does("watch 2"));
    EXPECT_TRUE(server->does("make thing 2"));
    EXPECT_TRUE(client->does("await thing"));
    ChildProgram tool(one.within({TOOL_PROGRAM, "processes", "--json"}), {}, one.environment());
    EXPECT_EQ(tool.exitCode(), 0);
    std::string text;
    for (std::string const& line : tool.lines())
        text += line;
    auto const shown = [&text](std::string const& actor, int pid, char const* where) {
        return text.find("{\"actor\":\"" + actor + "\",\"pid\":" + std::to_string(pid) + where) !=
               text.npos;
    };
    EXPECT_TRUE(shown("reflectorb-link", one.link->pid(), R"(,"slot":1,"here":true)")) << text;
    EXPECT_TRUE(shown("station_actor", client->child().pid(), R"(,"slot":1,"here":true)")) << text;
    EXPECT_TRUE(shown("station_actor", server->child().pid(), R"(,"slot":2,"here":false)")) << text;
}

TEST_F(MachinesTest, a_link_tells_how_it_is_and_who_asks_where_there_is_none_is_told_so) {
    join();
    sender->tell("flood " + receiverId + " 5000 64");
    EXPECT_SOON(reportOf(*receiver).received == 5000u);
    Machine::Status const linked = one.status();
    EXPECT_EQ(linked.exitCode, 0) << linked.text;
    EXPECT_NE(linked.text.find(R"("interface": "cable")"), linked.text.npos);
    EXPECT_NE(linked.text.find(R"("machine": "machine2")"), linked.text.npos);
    EXPECT_NE(linked.text.find(R"("state": "linked")"), linked.text.npos);
    EXPECT_GE(linked.number("messagesOut"), 5000);
    EXPECT_EQ(linked.number("unsettledBytes"), 0);
    EXPECT_EQ(one.status({"--machines", "2"}).exitCode, 1);
    rlimit usual{}, few{};
    ASSERT_EQ(prlimit(one.link->pid(), RLIMIT_NOFILE, nullptr, &usual), 0);
    few.rlim_cur = 3;  // poll still works
    few.rlim_max = usual.rlim_max;
    ASSERT_EQ(prlimit(one.link->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    ChildProgram const waiting(one.within({LINK_PROGRAM, "status"}), {}, one.environment());
    EXPECT_TRUE(one.link->waitForErrorLine("no descriptor is left for who asks"));
    ASSERT_EQ(prlimit(one.link->pid(), RLIMIT_NOFILE, &usual, nullptr), 0);
    EXPECT_SOON(one.status().exitCode == 0);
    network.unplug(2);
    one.awaitParted();
    EXPECT_EQ(one.status().exitCode, 1);
    one.link->kill();
    EXPECT_EQ(one.link->exitCode(), -SIGKILL);
    EXPECT_EQ(one.status().exitCode, 5);
}

TEST_F(MachinesTest, the_service_manager_hears_nothing_more_of_a_link_with_a_thread_that_hangs) {
    Manager const manager, onlooker;
    one.link.reset();
    two.link.reset();
    manager.fill();
    two.startLink(manager.environment());
    one.startLink(onlooker.withoutWatchdog());
    two.awaitLinked();
    EXPECT_TRUE(manager.hears("READY=1"));
    EXPECT_TRUE(manager.hears("STATUS=runs, linked with 1 of 1 machines in sight"));
    EXPECT_TRUE(onlooker.hears("STATUS=runs, linked with 1 of 1 machines in sight"));
    for (char const* const name : {"LnSend", "LnShow"}) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(manager.hears("WATCHDOG=1"));
        pid_t const thread = threadOf(two.link->pid(), name);
        ASSERT_EQ(ptrace(PTRACE_SEIZE, thread, nullptr, nullptr), 0) << strerror(errno);
        ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr);
        ASSERT_EQ(waitpid(thread, nullptr, __WALL), thread);
        EXPECT_TRUE(two.link->waitForErrorLine("a thread has been at one thing"));
        manager.forget();
        EXPECT_FALSE(manager.hears("WATCHDOG=1", std::chrono::milliseconds(1000)));
        ptrace(PTRACE_DETACH, thread, nullptr, nullptr);
        EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    }
    manager.forget();
    two.link->signal(SIGTERM);
    EXPECT_TRUE(manager.hears("STOPPING=1"));
    EXPECT_EQ(two.link->exitCode(), 0);
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

TEST_F(MachinesTest, of_two_machines_of_a_slot_that_come_in_sight_of_each_other_one_stays) {
    if (!Network::mute(1))
        GTEST_SKIP() << "the kernel has no queue that drops everything, or tc is missing";
    ASSERT_TRUE(Network::mute(2));
    two.link.reset();
    one.awaitParted();
    Machine rival(1, 2);
    rival.link = rival.program("other");
    EXPECT_TRUE(rival.link->waitForErrorLine("slot 1, machine other, is linked"));
    ASSERT_TRUE(Network::unmute(1));
    ASSERT_TRUE(Network::unmute(2));
    EXPECT_EQ(rival.link->exitCode(), 3);
    EXPECT_TRUE(rival.link->waitForErrorLine("this one, other, gives it up"));
    two.startLink();
    awaitLinked();
}

TEST_F(MachinesTest, a_link_that_still_looks_who_has_its_slot_ends_when_told) {
    one.link.reset();
    auto const early = one.program("machine1");
    ASSERT_SOON(readsSignals(*early));
    early->signal(SIGTERM);
    EXPECT_EQ(early->exitCode(), 0);
}

}  // namespace
}  // namespace machines
