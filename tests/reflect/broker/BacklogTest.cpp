// More messages than a broker serves: between processes, where their senders can be held back.
#include <array>
#include <csignal>
#include <fstream>

#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "ReflectActor.h"

namespace {

constexpr int kMost = 200;
constexpr int kMostInAll = 5 * kMost;

class BacklogTest : public BrokerTest {
protected:
    BacklogTest()
        : bounded_(Transport::Setup::backlog({512, kMost, 8192, 100 * kMost})),
          peer_(group(), &knowsNobody),
          receiver_({{"TRANSPORT_SENDER_MESSAGES", std::to_string(kMost)},
                     {"TRANSPORT_SENDER_KIB", "512"},
                     {"TRANSPORT_BACKLOG_MESSAGES", std::to_string(kMostInAll)}}),
          probe_(receiver_.publish("probe")) {}

    static void knowsNobody(RawPeer& self, TreflectMessage& message) {
        if (message.type() == TreflectMessage::tResolve)
            self.answer(message, [](TipprmiStream& response) { response << 0u; });
    }
    Transport::TerminationId receiver() { return orb().convertId(TreflectOrbId(probe_.broker)); }
    /** Has the receiver's run permission held, so that all else waits. */
    void block() {
        peer_.sendCall(receiver(), 1, probe_.ioid, false, kProbeClass, kHoldPermission);
        ASSERT_SOON(receiver_.ask("entered probe", "entered") == "1");
    }
    void flood(unsigned int count, unsigned int size) { flood(peer_, count, size); }
    void flood(RawPeer& peer, unsigned int count, unsigned int size) {
        for (unsigned int i = 0; i < count; ++i) {
            TipprmiStream request(
                peer.make(100 + i, TreflectMessage::tPayload, TreflectMessage::kMsg, size), true);
            request << probe_.ioid << false << kProbeClass << unsigned{kEcho};
            EXPECT_EQ(peer.send(receiver(), request.msg()), 1);
        }
    }
    /** An answer of the peer is awaited from now on, so it must not be held back. */
    TreflectMessage askSomething(RawPeer& peer) {
        std::ostringstream name;
        name << "hold rmi_" << std::hex << std::uppercase << orb().convertId(peer.termId()).value()
             << "_77";
        receiver_.tell(name.str());
        return wire::awaitWhere(peer, [](TreflectMessage const& message) {
            return message.kind() == TreflectMessage::kRequest &&
                   message.type() == TreflectMessage::tPayload;
        });
    }
    bool sendOneWay(Transport::TerminationId to, int size) {
        TipprmiStream request(size);
        TipprmiStream response(100);
        request << probe_.ioid << false << kProbeClass << unsigned{kEcho};
        request.msg().type(TreflectMessage::tPayload);
        return orb().forwardMsg_(to, false, request.msg(), response);
    }
    long residentKibibytes() {
        std::ifstream status("/proc/" + std::to_string(receiver_.child().pid()) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmRSS:", 0) == 0)
                return std::stol(line.substr(6));
        return -1;
    }

    bool const bounded_;  // this process, too
    RawPeer peer_;        // the receiver knows it from its start
    ReflectActor receiver_;
    ReflectActor::Made const probe_;
};

TEST_F(BacklogTest, senderThatFloodsIsHeldBackAndLosesNothing) {
    constexpr unsigned int kMany = 4000;
    constexpr unsigned int kSize = 10'000;
    block();
    long const before = residentKibibytes();
    flood(kMany, kSize);
    peer_.sendCall(receiver(), 9, probe_.ioid, true, kProbeClass, kEcho);
    RawPeer other(group());
    other.sendCall(receiver(), 7, probe_.ioid, true, kProbeClass, kEcho);
    EXPECT_LT(residentKibibytes() - before, 16 * 1024);
    receiver_.tell("release probe");
    EXPECT_EQ(peer_.await(0).transactionId(), 9u) << "all before it has been served";
    EXPECT_EQ(other.await(0).transactionId(), 7u);
    EXPECT_EQ(peer_.count(), 1u) << "nothing has come back";
    receiver_.finish();
}

TEST_F(BacklogTest, beyondTheBoundMessagesComeBackWhereASenderCannotBeHeldBack) {
    TreflectMessage const question = askSomething(peer_);
    block();
    flood(1, 2u << 20);  // larger than all that a sender may have, and yet nothing beside it
    flood(3 * kMost, 100);
    for (unsigned int i = 1; i < kMost; ++i) {
        TreflectMessage const back = peer_.await(i);
        ASSERT_EQ(back.kind(), TreflectMessage::kNoDestination);
        ASSERT_EQ(back.size(), 20u) << "its head";
    }
    peer_.answer(question,
                 [](TipprmiStream& response) { response << TipprmiExceptionContainer() << 0u; });
    EXPECT_TRUE(receiver_.child().waitForErrorLine("too much waits"));
    EXPECT_LT(receiver_.child().errorLines().size(), kMost / 2u);
    receiver_.tell("release probe");
    std::size_t const returned = peer_.count() - 1;
    EXPECT_LE(returned, 2u * kMost + 3);
    peer_.sendCall(receiver(), 9, probe_.ioid, true, kProbeClass, kEcho);
    EXPECT_SOON(peer_.await(peer_.count() - 1).transactionId() == 9) << "served again";
    receiver_.finish();
}

TEST_F(BacklogTest, processThatFloodsFromManyTerminationsLeavesRoomForOthers) {
    constexpr unsigned int kSent = 2 * kMost;
    ReflectActor good;
    EXPECT_EQ(good.ask("call probe 6", "called"), "1 6");
    std::array<std::unique_ptr<RawPeer>, 16> peers;
    for (auto& peer : peers) {
        peer = std::make_unique<RawPeer>(group(), &knowsNobody);
        peer->sendCall(receiver(), 1, probe_.ioid, true, kProbeClass, kEcho);
        ASSERT_FALSE(wire::awaitWhere(*peer, [](TreflectMessage const& message) {
                         return message.kind() == TreflectMessage::kResponse;
                     }).empty());
        ASSERT_FALSE(askSomething(*peer).empty());
    }
    block();
    for (auto const& peer : peers) {  // each takes what the former ones have left
        flood(*peer, kSent, 100);
        EXPECT_FALSE(wire::awaitWhere(*peer, [](TreflectMessage const& message) {
                         return message.kind() == TreflectMessage::kNoDestination &&
                                message.transactionId() == 100 + kSent - 1;
                     }).empty());
    }
    good.tell("call probe 7");
    EXPECT_FALSE(good.child().waitForLine("called", std::chrono::milliseconds(300)))
        << "has come back at once";
    receiver_.tell("release probe");
    EXPECT_EQ(good.await("called"), "1 7");
    good.finish();
    std::fill(peers.begin(), peers.end(), nullptr);
    receiver_.finish();
}

// What it is asked must be answered, though nothing else can be sent any more.
TEST_F(BacklogTest, answerFindsRoomWhereAllElseIsRefused) {
    // Is asked by a process that it stops meanwhile, so that nothing it sends there gets through.
    std::atomic<int> jammed{0};
    auto const jam = [&, to = receiver()](int, TipprmiStream& in, TipprmiStream& out) {
        unsigned int answerSize = 0;
        in >> answerSize;
        kill(receiver_.child().pid(), SIGSTOP);
        for (int size = 1 << 20; size >= 64; size /= 2)
            while (sendOneWay(to, size)) {
            }
        ++jammed;  // with the permission, until the answer has been sent
        out << TipprmiExceptionContainer() << answerSize;
        std::vector<char> const bytes(answerSize);
        out.marshall(bytes.data(), static_cast<int>(bytes.size()));
        return true;
    };
    auto const jammer = makePermitted<Acting>("jammer", jam);
    int jams = 1;
    constexpr unsigned int kTooLarge = 10u << 20;
    for (auto const& [size, outcome] : {std::pair{7u, "1 7"}, std::pair{kTooLarge, "0 0"}}) {
        receiver_.tell("call jammer " + std::to_string(size));
        EXPECT_SOON(jammed == jams);
        ++jams;
        permitted([] {});  // has answered
        EXPECT_EQ(log_.contains("Sending response message failed rc=0"), size == kTooLarge);
        kill(receiver_.child().pid(), SIGCONT);
        EXPECT_EQ(receiver_.await("called"), outcome);
    }
    receiver_.finish();
}

// Each holds the other back, and awaits its answers.
TEST_F(BacklogTest, callsBothWaysAreAnsweredWhileBothFlood) {
    constexpr int kCalls = 100;
    auto const own = makePermitted<Probe>("own");
    std::atomic<bool> calm{false};
    std::thread flooding([&] {
        TreflectHandlerState const handlerState(true);
        for (ProbeClient client(oid("probe")); !calm; client.call(kEcho, 2))
            for (int i = 0; i < 2 * kMost; ++i)
                client.send(kEcho, 1);
    });
    receiver_.tell("flood own " + std::to_string(2 * kMost) + " 1");
    for (int i = 0; i < kCalls; ++i) {
        std::string const outcome = receiver_.ask("call own 7", "called");
        EXPECT_TRUE(outcome == "1 7" || outcome == "0 0") << outcome;
    }
    calm = true;
    flooding.join();
    receiver_.tell("calm");
    EXPECT_EQ(receiver_.ask("call own 7", "called"), "1 7");
    EXPECT_EQ(permitted([] { return ProbeClient(oid("probe")).call(kEcho, 8).number; }), 8u);
    receiver_.finish();
}

}  // namespace
