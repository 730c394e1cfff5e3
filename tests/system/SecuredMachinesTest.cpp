// Machines whose links authenticate each other, and those who would be let in as well.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sched.h>
#include <sys/socket.h>

#include "Machines.h"

namespace machines {
namespace {

/** Hears all that goes over a network, where its cables meet. */
class Tap {
public:
    Tap() : socket_(socketIn(Network::name(0))) {
        int const room = 64 << 20;
        setsockopt(socket_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    }
    ~Tap() { close(socket_); }
    Tap(Tap const&) = delete;
    Tap& operator=(Tap const&) = delete;

    bool hasHeard(std::string const& text) {
        static char frame[1 << 16];
        for (ssize_t size = 0; (size = recv(socket_, frame, sizeof frame, MSG_DONTWAIT)) > 0;
             heard_ += '\n')
            heard_.append(frame, static_cast<std::size_t>(size));
        return heard_.find(text) != heard_.npos;
    }
    bool hasMissedNothing() const {
        tpacket_stats told{};
        socklen_t size = sizeof told;
        return getsockopt(socket_, SOL_PACKET, PACKET_STATISTICS, &told, &size) == 0 &&
               told.tp_packets > 0 && told.tp_drops == 0;
    }

private:
    /** It stays there, whoever uses it. */
    static int socketIn(std::string const& space) {
        int const home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        int const there = open(("/run/netns/" + space).c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(setns(there, CLONE_NEWNET), 0);
        int const made = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
        EXPECT_EQ(setns(home, CLONE_NEWNET), 0);
        close(there);
        close(home);
        return made;
    }

    int const socket_;
    std::string heard_;
};

/** Machines of a node that lets in whom its authority has given a certificate. */
class SecuredMachinesTest : public testing::Test {
protected:
    void TearDown() override {
        for (Machine* machine : {&one, &two})
            if (HasFailure() && machine->link)
                show(*machine);
    }
    static void show(Machine const& machine) {
        for (std::string const& line : machine.link->errorLines())
            std::printf("%s\n", line.c_str());
    }

    bool keys(std::string const& command, std::string const& words = "") const {
        return does(KEYS_PROGRAM " " + command + " " + node + " " + words);
    }
    std::string folderOf(std::string const& name) const { return node + "/machines/" + name; }
    static void secure(Machine& machine, std::string const& folder) {
        machine.access = "security = " + folder;
    }
    /** An engine that permits its own machine everything, and is loaded instead of the real one. */
    ActorProgram::Environment corrupted(ActorProgram::Environment lies = {}) const {
        std::string const engine = parent.path() + "/engine", access = engine + "/libdds_security_";
        EXPECT_TRUE(does("test -e " + engine + " || (mkdir " + engine +
                         " && cp -L " ENGINE_DIR "/" ENGINE_NAME " " ENGINE_DIR
                         "/libddsc*/libdds_security_*.so " +
                         engine + " && mv " + access + "ac.so " + engine +
                         "/real_libdds_security_ac.so && cp " LYING_ENGINE " " + access +
                         "ac.so)"));
        if (!lies.empty())
            lies["LD_PRELOAD"] = access + "ac.so";
        lies["LD_LIBRARY_PATH"] = engine;
        lies["LIE_IN_PLACE_OF"] = engine + "/real_libdds_security_ac.so";
        return lies;
    }
    static bool hasSaid(Machine const& machine, std::string const& part) {
        for (std::string const& line : machine.link->errorLines())
            if (line.find(part) != std::string::npos)
                return true;
        return false;
    }
    static bool hasLinked(Machine const& machine, std::string const& with = "") {
        return hasSaid(machine, "linked with slot " + with);
    }
    /** That it is not let in machine two tells with this line, before or after those of others. */
    void expectKeptOut(Machine& machine, int slot, std::string const& line) {
        SCOPED_TRACE(line);
        EXPECT_SOON(hasSaid(two, line));
        EXPECT_FALSE(hasLinked(machine));
        for (Machine* good : {&one, &two})
            EXPECT_FALSE(hasLinked(*good, std::to_string(slot) + ","));
        if (HasFailure())
            show(machine);
        machine.link.reset();
    }

    static std::string keptOut(Machine const& machine) {
        return "reflectorb-link[" + std::to_string(machine.link->pid()) + "] of host ";
    }

    Network network;
    testsupport::RendezvousFolder const parent;
    std::string const node = parent.path() + "/node";
    Machine one{1}, two{2};
};

TEST_F(SecuredMachinesTest, who_has_no_good_certificate_for_its_slot_hears_and_says_nothing) {
    if (!network.made())
        GTEST_SKIP() << "network namespaces need root, iproute2, and the right to enter them";
    ASSERT_TRUE(keys("authority"));
    for (char const* machine :
         {"1 one", "2 two", "3 expired --until '2 seconds'", "4 revoked", "5 five"})
        ASSERT_TRUE(keys("machine", machine));
    Machine expired{3, 1}, revoked{4, 1}, other{6, 1}, stranger{7, 1}, liar{8, 1};
    // It does not know the list that it is on.
    ASSERT_TRUE(does("cp -rp " + folderOf("revoked") + " " + parent.path()));
    secure(revoked, parent.path() + "/revoked");
    ASSERT_TRUE(keys("revoke", "revoked"));
    ASSERT_TRUE(keys("renew", "one"));
    secure(one, folderOf("one"));
    secure(two, folderOf("two"));
    one.startLink();
    two.startLink();
    one.awaitLinked();
    two.awaitLinked();

    // Those of whom the engine does not tell why come last.
    stranger.startLink();
    secure(liar, folderOf("five"));
    liar.startLink(corrupted());
    EXPECT_SOON(!does("openssl x509 -checkend 0 -in " + folderOf("expired") + "/machine.pem"));
    secure(expired, folderOf("expired"));
    expired.startLink(corrupted({{"LIE_DAYS", "1"}}));
    expectKeptOut(expired, 3, "certificate has expired; subject: /O=Reflect ORB/OU=slot 3");
    revoked.startLink();
    expectKeptOut(revoked, 4, "certificate revoked; subject: /O=Reflect ORB/OU=slot 4");
    secure(other, folderOf("five"));
    other.startLink(corrupted({{"LIE_PUBLISH_IN", "slot5"}}));
    expectKeptOut(other, 6, "may be slot5 announces itself as slot 6");
    expectKeptOut(stranger, 7, keptOut(stranger));
    expectKeptOut(liar, 8, keptOut(liar));

    auto const sender = one.actor("transport_actor"), receiver = two.actor("transport_actor");
    std::string const receiverId = receiver->ask("join", "id");
    sender->ask("join", "id");
    EXPECT_TRUE(sender->does("ping " + receiverId));
}

TEST_F(SecuredMachinesTest,
       a_certificate_that_ends_parts_the_link_and_a_renewed_one_brings_it_back) {
    if (!network.made())
        GTEST_SKIP() << "network namespaces need root, iproute2, and the right to enter them";
    ASSERT_TRUE(keys("authority") && keys("machine", "1 one") &&
                keys("machine", "2 two --until '4 seconds'"));
    secure(one, folderOf("one"));
    secure(two, folderOf("two"));
    one.startLink();
    two.startLink();
    EXPECT_TRUE(two.link->waitForErrorLine("it is to be renewed"));
    if (hasLinked(two)) {  // the machine of the test was fast enough for that
        EXPECT_THAT(two.link->errorLines(), testing::Contains(testing::HasSubstr("/two ends")));
        one.awaitParted();
    }
    ASSERT_TRUE(keys("renew", "two"));
    two.awaitLinked();
}

TEST_F(SecuredMachinesTest, what_is_called_and_said_is_read_on_the_wire_without_security_only) {
    if (!network.made())
        GTEST_SKIP() << "network namespaces need root, iproute2, and the right to enter them";
    ASSERT_TRUE(keys("authority") && keys("machine", "1 one") && keys("machine", "2 two"));
    std::string said;
    for (int i = 8; i < 56; ++i)
        said += static_cast<char>(7 * i);  // within what a station is called with
    for (bool const secured : {false, true}) {
        SCOPED_TRACE(secured);
        Tap tap;
        for (Machine* machine : {&one, &two}) {
            machine->link.reset();
            if (secured)
                secure(*machine, folderOf(machine == &one ? "one" : "two"));
            machine->startLink();
        }
        one.awaitLinked();
        two.awaitLinked();
        auto const server = two.station(), client = one.station();
        server->publishStation("unmistakable", "2");
        EXPECT_SOON(client->does("keep unmistakable 2"));
        EXPECT_TRUE(client->does("call unmistakable 64"));
        for (std::string const& text : {said, std::string("unmistakable"),
                                        std::string("station_actor"), std::string("machine2")})
            EXPECT_EQ(tap.hasHeard(text), !secured) << text;
        EXPECT_TRUE(tap.hasMissedNothing());
    }
}

TEST_F(SecuredMachinesTest, keys_are_not_overwritten_and_what_is_wrong_with_them_is_told) {
    ASSERT_TRUE(keys("authority") && keys("machine", "1 one"));
    EXPECT_FALSE(keys("authority"));
    EXPECT_FALSE(keys("machine", "1 another"));
    EXPECT_FALSE(keys("machine", "2 one"));
    EXPECT_FALSE(keys("machine", "256 two"));
    EXPECT_FALSE(keys("machine", "2 ../two"));
    EXPECT_FALSE(keys("machine", "2 two --until '1 second ago'"));
    EXPECT_FALSE(keys("renew", "nobody"));
    std::string const folder = folderOf("one");
    EXPECT_TRUE(does("test -z \"$(find " + node + " -perm /077)\" && test -f " + folder +
                     "/machine.key && test ! -e " + folder + "/authority.key"));
    auto const refusal = [&](std::string const& fault) {
        ChildProgram link({LINK_PROGRAM, "--interface", "lo", "--security", folder}, {},
                          one.environment());
        return link.waitForErrorLine(fault) && link.exitCode() == 2;
    };
    ASSERT_TRUE(does("chmod 644 " + folder + "/machine.key"));
    EXPECT_TRUE(refusal("machine.key may be read by others"));
    ASSERT_TRUE(does("chmod 600 " + folder + "/machine.key && rm " + folder + "/revoked.pem"));
    EXPECT_TRUE(refusal("revoked.pem: No such file"));
    EXPECT_TRUE(does("cp " + node + "/revoked.pem " + folder));
    ChildProgram link({LINK_PROGRAM, "--interface", "lo", "--security", folder}, {},
                      two.environment());
    EXPECT_TRUE(link.waitForErrorLine("does not let this machine be slot 2"));
}

}  // namespace
}  // namespace machines
