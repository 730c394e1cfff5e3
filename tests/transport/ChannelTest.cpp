#include <sched.h>

#include <ctime>
#include <deque>
#include <optional>

#include "HandMadeLink.h"
#include "Threads.h"
#include "TransportActor.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/ReceiverOwner.h"
#include "platform/transport/local/ReceiverPool.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"

namespace transporttest {
namespace {

using Transport::kLargestMessage;

class ChannelTest : public ActorsTest {
protected:
    void SetUp() override { ASSERT_EQ(own_.start(), 1); }
    /** Another process, which this one knows. */
    struct Met : Peer {
        explicit Met(TestTermination& own) { EXPECT_TRUE(own.waitUntilKnown(id())); }
    };
    /** Stops a process to which there is a channel. */
    void stop(Peer& peer) {
        ASSERT_TRUE(own_.ping(peer.id(), 1));
        ASSERT_TRUE(peer.child().stopWholly());
    }

    TestTermination own_;
};

TEST_F(ChannelTest, MessagesOfEverySizeComeBackAsTheyWereSent) {
    Met peer(own_);
    std::uint32_t number = 0;
    for (std::size_t const size : {8u, 9u, 100u, 4096u, 16'375u, 16'376u, 16'384u, 65'536u,
                                   300'000u, 1'048'576u, 5'000'001u})
        EXPECT_TRUE(own_.ping(peer.id(), ++number, size)) << size;
    EXPECT_TRUE(own_.ping(peer.id(), ++number, kLargestMessage));
    EXPECT_TRUE(own_.allocateMessage(kLargestMessage + 1, 5).empty());
    EXPECT_TRUE(own_.ping(peer.id(), ++number));
}

TEST_F(ChannelTest, OrderHoldsFromTheFirstMessageThroughGrowthAndFullRings) {
    Met peer(own_);
    ASSERT_TRUE(peer.child().stopWholly());
    std::uint32_t number = 0;
    // Queued before the channel stands, then by pieces and in rings of every capacity.
    for (int round = 0; round < 200; ++round)
        for (std::size_t const size : {8u, 40u, 3000u, 20'000u, 200'000u})
            ASSERT_EQ(own_.send(peer.id(), TestHead::Numbered, number++, size), 1) << number;
    peer.child().signal(SIGCONT);
    ASSERT_TRUE(peer.waitForReceived(number));
    for (int i = 0; i < 50'000; ++i)
        ASSERT_EQ(own_.send(peer.id(), TestHead::Numbered, number++, 8 + i % 500), 1) << number;
    EXPECT_TRUE(peer.waitForReceived(number));
    EXPECT_EQ(peer.report().faults, 0u);
}

TEST_F(ChannelTest, BothSidesMayConnectAtOnceAndFloodEachOther) {
    std::uint32_t received = 0;
    for (std::uint32_t const count : {1000u, 1000u, 1000u, 100'000u}) {
        Met peer(own_);
        peer.flood(own_.termId(), count, 200);
        for (std::uint32_t i = 0; i < count; ++i)
            ASSERT_EQ(own_.send(peer.id(), TestHead::Numbered, i, 200), 1);
        EXPECT_TRUE(own_.waitForReceived(received += count));
        EXPECT_TRUE(peer.waitForReceived(count));
        EXPECT_EQ(peer.report().faults + peer.report().returned, 0u);
    }
    EXPECT_EQ(own_.tally().faults, 0u);
    EXPECT_EQ(own_.tally().returned, 0u);
}

TEST_F(ChannelTest, ThoseWhoReadForThemselvesDoSoOneAtATimeAndInOrder) {
    constexpr std::uint32_t kAsked = 300;
    constexpr std::uint32_t kFlood = 10'000;
    std::atomic<int> inside{0};
    std::atomic<unsigned int> overlaps{0};
    std::deque<Asker> askers;
    own_.onReceive([&](auto const& message) {
        overlaps += inside++ != 0;
        TestHead const head = TestHead::of(message);
        if (head.kind == TestHead::Answer)
            askers[message.originator() == askers[0].peer() ? 0 : 1].answered(head.number);
        if (head.number % 64 == 0)
            sched_yield();
        --inside;
        return true;
    });
    Met one(own_);
    Met other(own_);
    for (Met* const peer : {&one, &other}) {
        askers.emplace_back(own_, peer->id());
        peer->flood(own_.termId(), kFlood, 100);
    }
    std::atomic<unsigned int> read{0};
    testsupport::TestThreads threads(askers.size(), [&](std::size_t i) {
        for (std::uint32_t number = 1; number <= kAsked; ++number) {
            ASSERT_EQ(askers[i].ask(number, number % 100 == 0 ? 300'000 : 8 + number), 1);
            for (; !askers[i].hasCome(); sched_yield())
                read += askers[i].read();
        }
    });
    threads.join();
    EXPECT_TRUE(own_.waitForReceived(2 * kFlood));
    EXPECT_EQ(own_.tally().faults, 0u);
    EXPECT_EQ(overlaps, 0u);
    EXPECT_GT(read, 0u);
}

TEST_F(ChannelTest, WhoIsWokenByTheReceivingThreadFindsTheRingFree) {
    constexpr std::uint32_t kAlone = 5;
    std::optional<Asker> asker;
    own_.onReceive([&](auto const& message) {
        std::uint32_t const number = TestHead::of(message).number;
        asker->answered(number);
        if (number == kAlone) {
            EXPECT_SOON(asker->reads());
        }
        return true;
    });
    Met peer(own_);
    asker.emplace(own_, peer.id());
    for (std::uint32_t number = 1; number <= kAlone; ++number) {
        ASSERT_EQ(asker->ask(number), 1);
        EXPECT_SOON(asker->hasCome());
    }
    ASSERT_EQ(asker->ask(kAlone + 1), 1);
    EXPECT_SOON(asker->read());
    EXPECT_SOON(asker->hasCome());
}

TEST_F(ChannelTest, SendingToAStoppedProcessNeverBlocksAndIsRefusedBeyondTheLimit) {
    Met peer(own_);
    stop(peer);
    std::uint32_t taken = 0;
    constexpr std::size_t kSize = 256 * 1024;
    while (own_.send(peer.id(), TestHead::Numbered, taken, kSize) == 1)
        ASSERT_LT(++taken, 400u) << "no limit";
    EXPECT_GE(taken, 64u * 1024 * 1024 / kSize - 1);
    EXPECT_EQ(own_.tally().returned, 0u);
    Met other(own_);
    EXPECT_TRUE(own_.ping(other.id(), 2)) << "a full queue disturbs another destination";
    peer.child().signal(SIGCONT);
    EXPECT_TRUE(peer.waitForReceived(taken));
    EXPECT_EQ(peer.report().faults, 0u);
    EXPECT_EQ(own_.send(peer.id(), TestHead::Numbered, taken), 1);
}

TEST_F(ChannelTest, WhatAKilledReceiverHasNotTakenComesBack) {
    Met peer(own_);
    stop(peer);
    // In the ring, in larger ones, in pieces and in the queue.
    std::uint32_t taken = 0;
    for (std::size_t const size : {100u, 100u, 10'000u, 100'000u, 900'000u, 2'000'000u, 100u})
        taken += own_.send(peer.id(), TestHead::Numbered, taken, size) == 1;
    ASSERT_EQ(taken, 7u);
    peer.child().kill();
    EXPECT_TRUE(own_.waitForReturned(taken));
    EXPECT_TRUE(own_.waitUntilGone(peer.id()));
    EXPECT_EQ(own_.tally().returned, taken);
    EXPECT_EQ(own_.tally().returnedFaults, 0u);
    EXPECT_EQ(own_.send(peer.id(), TestHead::Numbered, 0), 0);
}

TEST_F(ChannelTest, WhatCannotBePassedOnGoesBackToItsSenderForGood) {
    TestTermination other;
    ASSERT_EQ(other.start(), 1);
    auto& switchboard = Transport::Switchboard::instance();
    own_.onReceive([&](auto const& message) { return switchboard.sendBack(message) != 1; });
    Met peer(own_);
    std::uint32_t sent = 0;
    for (std::size_t const size : {8u, 3000u, 100'000u, 3'000'000u}) {
        peer.flood(own_.termId(), 20, size);
        EXPECT_SOON(peer.report().returned == sent + 20);
        sent += 20;
        ASSERT_EQ(other.send(own_.termId(), TestHead::Numbered, 0, size), 1);
    }
    EXPECT_EQ(peer.report().returnedFaults, 0u);
    EXPECT_TRUE(other.waitForReturned(4)) << "in the same process";
    EXPECT_EQ(own_.tally().received, 0u);
}

TEST_F(ChannelTest, WhatASenderHasNotTakenBackDiesWithItAndComesToNobody) {
    Met peer(own_);
    stop(peer);
    Transport::AddressedMessage message = own_.allocateMessage(50'000, 5);
    message.originator(peer.id());
    message.destination(own_.termId());
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(Transport::Switchboard::instance().sendBack(message), 1);
    ASSERT_EQ(own_.send(peer.id(), TestHead::Numbered, 0), 1);
    peer.child().kill();
    EXPECT_TRUE(own_.waitForReturned(1));
    EXPECT_TRUE(own_.waitUntilGone(peer.id()));
    EXPECT_EQ(own_.tally().returned, 1u) << "of all, its own";
    EXPECT_EQ(own_.tally().returnedFaults, 0u);
    EXPECT_EQ(Transport::Switchboard::instance().sendBack(message), 0);
}

Transport::ReceiverPool& ownPool() {
    static Transport::ReceiverPool pool(1);
    return pool;
}

/** Stands for a termination of another machine. */
class Proxy final : public Transport::ReceiverOwner {
public:
    explicit Proxy(Transport::TerminationId id, Transport::ReceiverPool& pool = ownPool(),
                   std::uint32_t releases = 0xFFFFFFFF)
        : id_(id),
          releases_(releases),
          receiver_(std::make_shared<Transport::Receiver>(id, *this)) {
        auto& rendezvous = Transport::Rendezvous::instance();
        EXPECT_TRUE(rendezvous.adopt(id, "elsewhere", "", Transport::Visibility::Member));
        EXPECT_TRUE(receiver_->prepare());
        Transport::Switchboard::instance().add(receiver_);
        EXPECT_TRUE(receiver_->start(std::move(rendezvous.publish(std::vector{id}).front()), pool));
    }
    ~Proxy() {
        receiver_->takeNoMore();
        Transport::Rendezvous::instance().withdraw(id_);
        receiver_->stop();
    }

    std::atomic<bool> keeps{false};      // what has come when its connection ends
    std::atomic<std::uint32_t> last{0};  // place that has come
    std::atomic<std::uint32_t> taken{0};
    std::atomic<std::uint32_t> takenBefore{0};  // the last end of a batch
    std::atomic<std::uint32_t> queued{0};       // of those that came back
    std::atomic<std::uint32_t> inRing{0};
    std::atomic<std::uint32_t> faults{0};      // of them, by what was told before
    std::atomic<std::uint64_t> left{0};        // the queue, up to this place
    std::atomic<int> channels{0};              // that have begun, and are not cleared
    std::atomic<std::uint32_t> backBefore{0};  // the last that was cleared

    /** The place of the message; nothing when it is refused. */
    std::optional<std::uint64_t> send(Transport::TerminationId to, std::uint32_t number,
                                      std::size_t size) {
        auto message = Transport::AddressedMessage::allocate(size);
        message.originator(id_);
        message.destination(to);
        TestHead{TestHead::Numbered, number}.fill(message);
        std::lock_guard<std::mutex> const lock(mutex_);
        std::uint64_t place = 0;
        if (Transport::Switchboard::instance().issue(message, to, Transport::Room::Usual, place) !=
            1)
            return std::nullopt;
        return places_[number] = place;
    }

private:
    void received(Transport::AddressedMessage const& message) override {
        last = Transport::MessageChain::endInRing(message);
        if (taken++ < releases_)
            Transport::Switchboard::instance().find(id_, message.originator())->release(last);
    }
    std::optional<std::uint32_t> connectionEnded(Transport::TerminationId, std::uint32_t,
                                                 bool takenBack) override {
        return keeps && !takenBack ? std::optional(last.load()) : std::nullopt;
    }
    void cameBack(Transport::AddressedMessage const& message, Transport::Reached reached) override {
        bool const wasInRing = reached == Transport::Reached::Ring;
        std::lock_guard<std::mutex> const lock(mutex_);
        faults += wasInRing != (places_[TestHead::of(message).number] <= left);
        ++(wasInRing ? inRing : queued);
    }
    void batchEnded() override { takenBefore = taken.load(); }
    void leftQueue(Transport::TerminationId, std::uint64_t place) override {
        std::lock_guard<std::mutex> const lock(mutex_);
        faults += place <= left;
        left = place;
    }
    void channelBegan(Transport::TerminationId, std::uint32_t) override { ++channels; }
    void channelCleared(Transport::TerminationId, std::uint32_t) override {
        backBefore = queued + inRing;
        --channels;
    }
    bool passesOn() const override { return true; }

    Transport::TerminationId const id_;
    std::uint32_t const releases_;  // so many; what comes then it keeps
    std::mutex mutex_;
    std::map<std::uint32_t, std::uint64_t> places_;  // guarded by mutex_
    std::shared_ptr<Transport::Receiver> const receiver_;
};

TEST_F(ChannelTest, ATerminationOfAnotherMachineIsReachedThroughWhoStandsForIt) {
    Proxy proxy(Transport::TerminationId(1, 9, kGroup));
    Met peer(own_);
    peer.flood(Transport::TerminationId(1, 9, kGroup), 300, 5000);
    EXPECT_SOON(proxy.takenBefore == 300u) << "the end of each batch is told";
    for (std::uint32_t number = 0; number < 10; ++number)
        ASSERT_TRUE(proxy.send(peer.id(), number, 8));
    EXPECT_TRUE(peer.waitForReceived(10));
    EXPECT_EQ(peer.report().faults, 0u);
}

TEST_F(ChannelTest, WhatWhoPassesItOnHasNotReleasedComesBackInOrderAndOnce) {
    constexpr std::uint32_t kReleased = 7;
    Transport::TerminationId const id(1, 9, kGroup);
    struct Case {
        std::uint32_t count;
        std::size_t size;
    };
    // In the ring; then also in the queue; then in pieces, and more than a ring takes of them.
    for (Case const each : {Case{100, 8}, Case{40, 40'000}, Case{10, 600'000}}) {
        SCOPED_TRACE(each.size);
        Met peer(own_);
        std::optional<Proxy> proxy;
        proxy.emplace(id, ownPool(), kReleased);
        peer.flood(id, each.count, each.size);
        std::string const all = std::to_string(each.count);
        std::string const kept = std::to_string(each.count - kReleased);
        EXPECT_EQ(peer.ask("accepted " + hex(id), "accepted"), all);
        EXPECT_SOON(proxy->taken > kReleased);
        proxy.reset();
        EXPECT_SOON(peer.ask("back " + hex(id), "back") == "0x7 1x" + kept);
        EXPECT_EQ(peer.report().returned, each.count - kReleased);
        EXPECT_EQ(peer.report().returnedFaults, 0u);
    }
}

TEST_F(ChannelTest, WhatWhoPassesItOnHasWhenHeEndsOneConnectionIsHisIfHeSaysSo) {
    using namespace Transport;
    TerminationId const id(1, 9, kGroup);
    for (bool const keeps : {true, false}) {
        SCOPED_TRACE(keeps);
        Proxy proxy(id, ownPool(), 1);
        proxy.keeps = keeps;
        testsupport::HandMadeEntry entry(kGroup);
        testsupport::HandMadeLink link = entry.connect(id);
        ASSERT_TRUE(link.open());
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(link.put("a message"));
        link.ring();
        EXPECT_SOON(proxy.taken == 3u);
        EXPECT_EQ(link.unread(), 2 * frameBytes(9));
        link.send(link.packet(99));  // nonsense
        EXPECT_SOON((link.hear(1), link.ended));
        EXPECT_EQ(link.unread(), keeps ? 0 : 2 * frameBytes(9));
        link = entry.connect(id);
        ASSERT_TRUE(link.open());
        ASSERT_TRUE(link.put("a message"));
        link.ring();
        EXPECT_SOON(proxy.taken == 4u);
        EXPECT_EQ(link.unread(), frameBytes(9));
    }
}

TEST_F(ChannelTest, WhatIsReleasedJustWhenItsConnectionEndsIsReleasedOnceOrNotAtAll) {
    using namespace Transport;
    TerminationId const id(1, 9, kGroup);
    Proxy proxy(id, ownPool(), 0);
    testsupport::HandMadeEntry entry(kGroup);
    std::atomic<bool> done{false};
    testsupport::TestThreads releasing(1, [&](std::size_t) {
        for (; !done; sched_yield())
            if (auto const channel = Switchboard::instance().find(id, entry.id()))
                channel->release(proxy.last);
    });
    testsupport::Mark const whenLeft{done};
    std::uint32_t sent = 0;
    for (int round = 0; round < 50; ++round) {
        testsupport::HandMadeLink link = entry.connect(id);
        ASSERT_TRUE(link.open());
        for (bool const stays : {true, false}) {
            for (int i = 0; i < 3; ++i, ++sent)
                ASSERT_TRUE(link.put("a message"));
            link.ring();
            if (stays) {
                EXPECT_SOON(link.unread() == 0);
            }
        }
        link = {};
        EXPECT_SOON(proxy.taken == sent);
    }
}

TEST_F(ChannelTest, WhoWritesOverWhatIsNotReleasedIsNotReadForEver) {
    using namespace Transport;
    constexpr std::uint32_t kFrame = 1024;
    TerminationId const id(1, 9, kGroup);
    Proxy proxy(id, ownPool(), 0);
    testsupport::HandMadeEntry entry(kGroup);
    testsupport::HandMadeLink link = entry.connect(id);
    ASSERT_TRUE(link.open(kLargestRing));
    std::string const bytes(kFrame - sizeof(FrameHead), 'x');
    FrameHead const head{static_cast<std::uint32_t>(bytes.size()),
                         static_cast<std::uint32_t>(bytes.size())};
    for (std::uint32_t tail = 0; tail <= kLargestRing; tail += kFrame) {
        if (tail == kLargestRing) {
            ASSERT_SOON(proxy.taken == kLargestRing / kFrame);
        }
        link.writeFrame(tail, head, bytes);
        link.own.page().tail.store(tail + kFrame);
        link.ring();
    }
    EXPECT_SOON((link.hear(1), link.ended));
    EXPECT_EQ(proxy.taken, kLargestRing / kFrame);
}

TEST_F(ChannelTest, EachTimeThatATerminationIsShownIsToldApart) {
    using namespace Transport;
    TerminationId const id(1, 9, kGroup);
    std::optional<Showing> former;
    for (int i = 0; i < 3; ++i) {
        Proxy const proxy(id);
        auto const showing = Rendezvous::instance().showingOf(id);
        ASSERT_TRUE(showing.has_value());
        EXPECT_FALSE(showing == former);
        EXPECT_TRUE(showing == Rendezvous::instance().showingOf(id));
        former = showing;
        // The disk's clock is a coarse one.
        EXPECT_SOON([&] {
            timespec now{};
            clock_gettime(CLOCK_REALTIME_COARSE, &now);
            return now.tv_sec * 1'000'000'000LL + now.tv_nsec > showing->since;
        }());
    }
    EXPECT_FALSE(Rendezvous::instance().showingOf(id).has_value());
}

TEST_F(ChannelTest, ManyWhoStandForOthersShareThreadsAndAreServedUntilEachEnds) {
    constexpr std::uint32_t kMany = 30, kEach = 200;
    Transport::ReceiverPool pool(2);
    std::map<std::uint16_t, std::unique_ptr<Proxy>> proxies;
    auto const id = [](std::uint16_t name) { return Transport::TerminationId(name, 9, kGroup); };
    auto const threads = [] { return testsupport::statesOfThreads("Receivers").size(); };
    std::size_t const before = threads();
    for (std::uint16_t name = 1; name <= kMany; ++name)
        proxies[name] = std::make_unique<Proxy>(id(name), pool);
    EXPECT_SOON(threads() == before + 2);
    Met peer(own_);
    std::uint32_t sent = 0;
    // With all of them asleep in between, and fewer each time.
    for (std::uint32_t round = 1; proxies.size() > kMany / 2; ++round) {
        for (auto const& [name, proxy] : proxies)
            peer.flood(id(name), kEach, 100);
        EXPECT_SOON(proxies.begin()->second->taken > 0u);
        proxies.erase(proxies.begin());
        for (auto const& entry : proxies) {
            Proxy& proxy = *entry.second;
            EXPECT_TRUE(proxy.send(peer.id(), round - 1, 8));
            ++sent;
            EXPECT_SOON(proxy.takenBefore == round * kEach)
                << entry.first << " has " << proxy.taken;
        }
    }
    EXPECT_TRUE(peer.waitForReceived(sent));
    EXPECT_EQ(peer.report().faults, 0u);
}

TEST_F(ChannelTest, WhatCannotBePassedOnWithinAProcessComesBackAsFromOutside) {
    Proxy proxy(Transport::TerminationId(1, 9, kGroup));
    own_.onReceive([](auto const& message) {
        return Transport::Switchboard::instance().sendBack(message) != 1;
    });
    ASSERT_TRUE(proxy.send(own_.termId(), 0, 8));
    EXPECT_SOON(proxy.inRing == 1u) << "it had come where its receiver takes it from";
}

TEST_F(ChannelTest, TheEndOfABatchIsToldAlsoWhenALargeMessageBehindItHasToWait) {
    using namespace Transport;
    constexpr std::uint32_t kSize = 1024 * 1024;
    PeerShare::total(PeerShare::Kind::Unfinished, 2 * kSize);
    Proxy proxy(TerminationId(1, 9, kGroup));
    testsupport::HandMadeEntry entry(kGroup);
    testsupport::HandMadeEntry other(kGroup);
    auto first = entry.connect(TerminationId(1, 9, kGroup));
    auto second = other.connect(TerminationId(1, 9, kGroup));
    ASSERT_TRUE(first.open() && second.open());
    auto const begin = [](testsupport::HandMadeLink& link, std::uint32_t at) {
        link.writeFrame(at, {8, kSize}, "a piece.");
        link.own.page().tail.store(at + frameBytes(8));
        link.ring();
    };
    begin(first, 0);
    EXPECT_SOON(first.unread() == 0);
    second.writeFrame(0, {8, 8}, "a whole.");
    begin(second, frameBytes(8));
    EXPECT_SOON(proxy.takenBefore == 1u);
    EXPECT_EQ(second.unread(), frameBytes(8)) << "the one behind it waits";
    PeerShare::total(PeerShare::Kind::Unfinished, PeerShare::kTotal);
}

TEST_F(ChannelTest, WhoseMessagesHaveToWaitIsToldWhenTheyWaitNoMore) {
    Proxy proxy(Transport::TerminationId(1, 9, kGroup));
    Met peer(own_);
    std::uint32_t number = 0;
    ASSERT_TRUE(proxy.send(peer.id(), number++, 8));
    ASSERT_TRUE(peer.waitForReceived(1));
    std::uint64_t last = proxy.left;
    auto const fill = [&] {
        ASSERT_TRUE(peer.child().stopWholly());
        EXPECT_EQ(proxy.send(peer.id(), number++, 8), 0u) << "straight into the ring";
        for (int i = 0; i < 100; ++i, ++number) {
            auto const place = proxy.send(peer.id(), number, 40'000);
            ASSERT_TRUE(place && (*place == 0 || *place == last + 1));
            last = std::max(last, *place);
        }
    };
    ASSERT_NO_FATAL_FAILURE(fill());
    EXPECT_LT(proxy.left, last);
    peer.child().signal(SIGCONT);
    EXPECT_SOON(proxy.left == last);
    ASSERT_TRUE(peer.waitForReceived(number));
    EXPECT_EQ(peer.report().faults, 0u);
    std::uint32_t const taken = number;
    ASSERT_NO_FATAL_FAILURE(fill());
    EXPECT_EQ(proxy.channels, 1);
    peer.child().kill();
    EXPECT_SOON(proxy.channels == 0);
    EXPECT_EQ(proxy.backBefore, number - taken) << "all are back when that is told";
    EXPECT_EQ(proxy.queued, last - proxy.left) << "and all others are told of";
    EXPECT_GT(proxy.inRing, 20u) << "a ring takes a mebibyte";
    EXPECT_EQ(proxy.faults, 0u);
}

TEST_F(ChannelTest, AProcessKilledWhileSendingHarmsNobody) {
    Met steady(own_);
    for (std::size_t const size : {24u, 3000u, 700'000u}) {
        auto peer = std::make_unique<Met>(own_);
        std::uint32_t const before = own_.tally().received;
        peer->flood(own_.termId(), 4'000'000'000, size);
        ASSERT_TRUE(own_.waitForReceived(before + 20));
        peer->child().kill();
        EXPECT_TRUE(own_.waitUntilGone(peer->id()));
        EXPECT_TRUE(own_.ping(steady.id(), static_cast<std::uint32_t>(size)));
    }
    EXPECT_EQ(own_.tally().faults, 0u) << "half a message, or a gap";
}

TEST_F(ChannelTest, MessagesSentJustBeforeTheEndOfTheirSenderArrive) {
    for (std::uint32_t round = 1; round <= 3; ++round) {
        Met peer(own_);
        peer.flood(own_.termId(), 300, 5000);
        peer.child().closeInput();
        EXPECT_EQ(peer.child().exitCode(), 0);
        EXPECT_TRUE(own_.waitForReceived(300 * round));
    }
    EXPECT_EQ(own_.tally().faults, 0u);
}

TEST_F(ChannelTest, AForkedCopyOfTheProcessLeavesItsTerminationsAlone) {
    Met peer(own_);
    ASSERT_TRUE(own_.ping(peer.id(), 1));
    EXPECT_TRUE(testsupport::holdsInForkedChild([&] {
        bool const refused = own_.send(peer.id(), TestHead::Numbered, 0) == 0;
        own_.stop();
        return refused;
    }));
    EXPECT_TRUE(own_.ping(peer.id(), 2));
}

TEST_F(ChannelTest, OneCannotSendInAnotherName) {
    Met peer(own_);
    Met other(own_);
    Transport::AddressedMessage message = own_.allocateMessage(64, 5);
    message.originator(other.id());
    EXPECT_EQ(Transport::Termination(peer.id()).issue(message), 0);
    message.originator(Transport::TerminationId());
    EXPECT_EQ(Transport::Termination(peer.id()).issue(message), 0);
    Transport::AddressedMessage none;
    EXPECT_EQ(Transport::Termination(peer.id()).issue(none), 0);
}

}  // namespace
}  // namespace transporttest
