// The parts of a broker that need no broker.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "reflect/broker/InternalIds.h"
#include "reflect/broker/MessageQueue.h"
#include "reflect/broker/OngoingRequest.h"
#include "reflect/broker/OrbIdentity.h"
#include "reflect/broker/PerformanceCounters.h"
#include "reflect/broker/RequestTable.h"
#include "reflect/broker/ScriptRunner.h"
#include "transport/IdInfo.h"

namespace {

// ---- Ids of objects -----------------------------------------------------------------------------

TEST(InternalIds, takenOrZeroGivesTheNextFreeOne) {
    handlerthreads::trustPermission();
    InternalIds ids;
    EXPECT_EQ(ids.take(100), 100u);
    EXPECT_EQ(ids.take(101), 101u);
    EXPECT_EQ(ids.take(100), 102u);
    EXPECT_EQ(ids.take(0), 1u);
    EXPECT_EQ(ids.take(0xFFFFFFFF), 0xFFFFFFFFu);
    EXPECT_EQ(ids.take(0xFFFFFFFF), 2u) << "after the highest comes the lowest";
}

TEST(InternalIds, idRestsFor65536Registrations) {
    handlerthreads::trustPermission();
    InternalIds ids;
    ids.take(100);
    ids.giveBack(100, nullptr);
    for (unsigned int i = 0; i < 65536; ++i)
        ASSERT_NE(ids.take(100), 100u) << "registration " << i + 1;
    EXPECT_EQ(ids.take(100), 100u);
}

TEST(InternalIds, restingIdIsThatOfItsOwnerOnly) {
    handlerthreads::trustPermission();
    InternalIds ids;
    int owner = 0;
    int other = 0;
    ids.take(100);
    ids.take(101);
    ids.giveBack(100, &owner);
    ids.giveBack(101, &other);
    EXPECT_FALSE(ids.takeAgain(100, &other));
    EXPECT_FALSE(ids.takeAgain(102, &owner));
    EXPECT_TRUE(ids.takeAgain(100, &owner));
    EXPECT_FALSE(ids.takeAgain(100, &owner)) << "it is in use";
    for (unsigned int i = 0; i < 70000; ++i)
        ASSERT_NE(ids.take(100), 100u) << "and stays so";
}

// ---- Ids of brokers and terminations ------------------------------------------------------------

using Transport::TerminationId;

/** What this process is: its slot, the active controller's, the auxiliary units'. */
class OrbIdentityTest : public testing::Test {
protected:
    void be(int slot, int activeSlot) {
        ASSERT_TRUE(Transport::Setup::slot(slot));
        ASSERT_TRUE(Transport::Setup::activeSlot(activeSlot));
        ASSERT_TRUE(Transport::Setup::axuSlots({5, 9}));
    }
    TerminationId to(NamespaceId ns, unsigned char slot) {
        return identity_.toTerminationId(TreflectOrbId(0x1234, slot, ns));
    }
    TreflectOrbId from(unsigned char slot, Transport::GroupId group) {
        return identity_.toOrbId(TerminationId(0x1234, slot, group));
    }
    void expectLine(int level, std::string const& text) {
        EXPECT_EQ(log_.count(level, "ORB (orbId=0x1020304) " + text), 1u) << text;
        EXPECT_EQ(log_.records().size(), 1u) << text;
        log_.clear();
    }

    testsupport::LogCapture log_;
    OrbIdentity const identity_{TreflectOrbId(0x01020304)};
};

TEST_F(OrbIdentityTest, unitFollowsTheSlotOrTheActiveController) {
    be(1, 2);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 1);
    EXPECT_EQ(to(NSID_UNIT, 7), TerminationId(0x1234, 7, 2)) << "group of the active controller";
    EXPECT_EQ(to(NSID_UNIT, 0), TerminationId(0x1234, 2, 2)) << "slot 0 is the active one";
    be(2, 1);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 1);
    EXPECT_EQ(to(NSID_UNIT, 7), TerminationId(0x1234, 7, 1));
    EXPECT_EQ(to(NSID_UNIT, 0), TerminationId(0x1234, 1, 1));
    be(2, 2);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 2);
    be(5, 1);
    EXPECT_EQ(identity_.groupOf(NSID_UNIT), 2) << "an auxiliary unit, whoever is active";
    EXPECT_EQ(to(NSID_UNIT, 0), TerminationId(0x1234, 5, 2)) << "an auxiliary unit's own slot";
}

TEST_F(OrbIdentityTest, terminationToBrokerIdIsNotTheInverse) {
    be(1, 1);
    EXPECT_EQ(from(7, 1), TreflectOrbId(0x1234, 7, NSID_UNIT));
    EXPECT_EQ(from(5, 2), TreflectOrbId(0x1234, 0, NSID_UNIT)) << "an auxiliary unit's slot";
    EXPECT_EQ(from(5, 3), TreflectOrbId(0x1234, 5, NSID_NODE));
}

TEST_F(OrbIdentityTest, namespacesAndGroupsThatHaveNoCounterpart) {
    be(5, 1);
    EXPECT_EQ(identity_.groupOf(NSID_NODE), 3);
    EXPECT_EQ(identity_.groupOf(static_cast<NamespaceId>(77)), 0);
    EXPECT_EQ(identity_.namespaceOf(1), NSID_UNIT);
    EXPECT_EQ(identity_.namespaceOf(2), NSID_UNIT);
    EXPECT_EQ(identity_.namespaceOf(3), NSID_NODE);
    EXPECT_EQ(identity_.namespaceOf(5), NSID_UNDEF);
    EXPECT_EQ(to(NSID_NODE, 7), TerminationId(0x1234, 7, 3));
    EXPECT_TRUE(log_.records().empty());

    EXPECT_EQ(identity_.groupOf(NSID_UNDEF), 0);
    expectLine(3, "can not handle namespace id NSID_UNDEF");
    EXPECT_EQ(identity_.namespaceOf(0), NSID_UNDEF);
    expectLine(3, "can not handle group id GRPID_UNDEF");
    EXPECT_EQ(identity_.namespaceOf(4), NSID_UNDEF);
    expectLine(6, "has group id TRSPCTRL");
    EXPECT_EQ(to(NSID_NODE, 0), TerminationId(0x1234, 0, 3));
    expectLine(3, "can not handle slot 0 for NSID_NODE");
    EXPECT_EQ(to(NSID_UNDEF, 7), TerminationId(0x1234, 7, 0));
    expectLine(3, "can not handle namespace NSID_UNDEF");
}

TEST(PerformanceCounters, ofThoseThatHaveGoneAFewThousandStay) {
    PerformanceCounters counters;
    for (unsigned int target = 1; target <= 3 * PerformanceCounters::kMany; ++target)
        ++counters.of(target).sent;
    auto const left = counters.all();
    EXPECT_LE(left.getLength(), PerformanceCounters::kMany);
    EXPECT_EQ(left[left.getLength() - 1].sent, 1u);
}

// ---- The queue of messages ----------------------------------------------------------------------

using Need = MessageQueue::Need;

constexpr Transport::Backlog kNoBound{1 << 20, 1'000'000, 1 << 20, 1'000'000};

/** A process each. */
int ownProcess(TerminationId sender) {
    return static_cast<int>(sender.value());
}
/** A thousand senders each. */
int processOf(TerminationId sender) {
    return static_cast<int>(sender.value() / 1000);
}

class Taker final : public MessageQueue::Taker {
public:
    bool lineUp() override {
        ++linedUp;
        return false;
    }

    std::size_t linedUp = 0;
};

Transport::AddressedMessage message(std::size_t size) {
    return Transport::AddressedMessage::allocate(size);
}

TEST(MessageQueue, keepsOrderWhileItsRingGrowsAndWraps) {
    MessageQueue queue(kNoBound);
    Taker next;
    Need need = Need::Nothing;
    std::size_t pushed = 0;
    std::size_t taken = 0;
    for (std::size_t round = 0; round < 200; ++round) {
        for (std::size_t i = 0; i < 1 + round % 7; ++i)
            queue.push(message(20 + pushed++));
        for (std::size_t i = 0; i < 1 + round % 5 && taken < pushed; ++i) {
            ASSERT_EQ(queue.next(taken == 0, next, need), MessageQueue::Turn::Serve);
            ASSERT_EQ(next.taken.message.size(), 20 + taken++);
            ASSERT_EQ(next.linedUp, taken);
        }
    }
    EXPECT_GT(pushed, taken + 128);
}

Transport::AddressedMessage from(unsigned int sender, std::size_t size = 20) {
    Transport::AddressedMessage made = message(size);
    made.originator(sender);
    return made;
}

TEST(MessageQueue, sendersShareWhatIsFreeAndWhoSendsLittleFindsRoom) {
    MessageQueue queue({1 << 20, 100, 1 << 20, 300}, &ownProcess);
    auto const countOf = [&](unsigned int sender) {
        int count = 0;
        while (queue.push(from(sender)).fate == MessageQueue::Fate::Kept)
            ++count;
        return count;
    };
    EXPECT_EQ(countOf(1), 100);
    EXPECT_EQ(countOf(2), 100);
    EXPECT_EQ(countOf(3), 50) << "as much as is left then";
    EXPECT_EQ(countOf(4), 25);
    int small = 0;
    for (unsigned int sender = 5; sender < 15; ++sender)
        small += queue.push(from(sender)).fate == MessageQueue::Fate::Kept ? 1 : 0;
    EXPECT_EQ(small, 10);
}

TEST(MessageQueue, boundsBytesButTakesOneLargeMessage) {
    MessageQueue queue({16, 1000, 64, 1000}, &ownProcess);
    EXPECT_EQ(queue.push(from(1, 1 << 20)).fate, MessageQueue::Fate::Kept) << "alone";
    EXPECT_EQ(queue.push(from(2, 20)).fate, MessageQueue::Fate::TooMuch);
    Taker taker;
    Need need = Need::Nothing;
    queue.next(true, taker, need);
    EXPECT_EQ(queue.push(from(2, 20)).fate, MessageQueue::Fate::TooMuch) << "it waits until begun";
    queue.begin(taker.taken);
    EXPECT_EQ(queue.push(from(2, 20 << 10)).fate, MessageQueue::Fate::Kept);
    EXPECT_EQ(queue.push(from(2, 1)).fate, MessageQueue::Fate::Kept) << "behind a large one";
    EXPECT_EQ(queue.push(from(2, 20 << 10)).fate, MessageQueue::Fate::TooMuch);
    for (int large = 0; large < 3; ++large)
        EXPECT_EQ(queue.push(from(1, 10 << 10)).fate,
                  large < 2 ? MessageQueue::Fate::Kept : MessageQueue::Fate::TooMuch);
}

TEST(MessageQueue, ofOneSenderOnlySoMuchIsServedAtATime) {
    MessageQueue queue(kNoBound, &ownProcess);
    Need need = Need::Nothing;
    std::vector<Taker> takers(Backlog::kMostServed / 2);
    auto const serves = [&](unsigned int sender, Taker& taker) {
        queue.push(from(sender));
        queue.next(true, taker, need);
        queue.begin(taker.taken);
        return !taker.taken.isTooMuch;
    };
    EXPECT_TRUE(
        std::all_of(takers.begin(), takers.end(), [&](Taker& each) { return serves(1, each); }));
    Taker another;
    EXPECT_FALSE(serves(1, another)) << "half of all";
    EXPECT_TRUE(serves(2, another));
    EXPECT_TRUE(serves(2, another)) << "its former one has been served";
    EXPECT_TRUE(serves(1, takers[0]));
    queue.end(takers[0].taken);
    EXPECT_TRUE(serves(1, takers[0]));
}

TEST(MessageQueue, sendersOfOneProcessOrOfNoneLeaveOthersAQuarterHoweverManyTheyAre) {
    MessageQueue queue({1 << 20, 100, 1 << 20, 1000}, &processOf);
    auto const countOf = [&](unsigned int sender) {
        unsigned int count = 0;
        while (queue.push(from(sender)).fate == MessageQueue::Fate::Kept)
            ++count;
        return count;
    };
    unsigned int messages = 0;
    for (unsigned int sender = 1; sender < 1000; ++sender)  // of none: they have gone
        messages += countOf(sender);
    EXPECT_GE(messages, 500u);
    EXPECT_LE(messages, 750u);
    EXPECT_EQ(countOf(2000), 100u) << "of another process";
    // Large ones count little of what a sender may have, and wholly of what its process may.
    MessageQueue bytes({8, 100, 64, 1000}, &processOf);
    std::size_t kept = 0;
    for (std::size_t size = 16'000; size >= 500; size /= 2)
        for (unsigned int sender = 1000; sender < 1032; ++sender)
            while (bytes.push(from(sender, size)).fate == MessageQueue::Fate::Kept)
                kept += size;
    EXPECT_GE(kept, 32u * 1024);
    EXPECT_LE(kept, 48u * 1024);
    EXPECT_EQ(bytes.push(from(2000, 4000)).fate, MessageQueue::Fate::Kept);
}

TEST(MessageQueue, ofOneProcessOnlySoMuchIsServedAtATime) {
    MessageQueue queue(kNoBound, &processOf);
    Need need = Need::Nothing;
    std::vector<Taker> takers(Backlog::kMostServed);
    std::size_t used = 0;
    auto const serves = [&](unsigned int sender) {
        Taker& taker = takers[used];
        queue.push(from(sender));
        queue.next(true, taker, need);
        queue.begin(taker.taken);
        used += taker.taken.isTooMuch ? 0 : 1;
        return !taker.taken.isTooMuch;
    };
    auto const servedOf = [&](unsigned int sender) {
        std::size_t const before = used;
        while (serves(sender)) {
        }
        return used - before;
    };
    EXPECT_EQ(servedOf(1000), Backlog::kMostServed / 2);
    EXPECT_GT(servedOf(1001), 100u) << "another one behind the same link";
    for (unsigned int sender = 1002; sender < 2000; ++sender)
        servedOf(sender);
    EXPECT_LE(used, Backlog::kMostServed * 3 / 4);
    EXPECT_GE(servedOf(2000), Backlog::kMostServed / 8) << "of another process";
    for (Taker& taker : takers)
        queue.end(taker.taken);
    used = 0;
    EXPECT_EQ(servedOf(1002), Backlog::kMostServed / 2) << "all have been served";
}

TEST(MessageQueue, sendersOfOneProcessAreHeldBackTogetherButForThoseWhoSendLittle) {
    constexpr unsigned int kMuch = Backlog::kLeastEnough;
    MessageQueue queue(kNoBound, &processOf);
    for (unsigned int i = 0; i < kMuch; ++i)
        ASSERT_FALSE(queue.push(from(1000 + i % 8)).isMuch);
    EXPECT_TRUE(queue.push(from(1000)).isMuch) << "none has been served";
    EXPECT_TRUE(queue.holdBack(1000));
    EXPECT_FALSE(queue.push(from(1100)).isMuch) << "has sent nothing else";
    EXPECT_FALSE(queue.push(from(2000)).isMuch) << "another process";
    Taker taker;
    Need need = Need::Nothing;
    unsigned int left = kMuch + 3;
    do
        queue.next(left == kMuch + 3, taker, need);
    while (--left > 0 && queue.begin(taker.taken).value() == 0);
    EXPECT_LE(left, kMuch / 2 + 8);
    EXPECT_GT(left, 8u) << "there must be some to go on with";
}

TEST(MessageQueue, senderIsHeldBackAtHalfAndGoesOnAtAQuarter) {
    MessageQueue queue({1 << 20, 8, 1 << 20, 1000});
    for (int i = 0; i < 4; ++i)
        EXPECT_FALSE(queue.push(from(1)).isMuch);
    EXPECT_TRUE(queue.push(from(1)).isMuch);
    EXPECT_FALSE(queue.holdBack(2)) << "nothing of it waits";
    EXPECT_TRUE(queue.holdBack(1));
    EXPECT_EQ(queue.letGo(1, Backlog::When::Little), Backlog::Mark::Stays);
    Taker taker;
    Need need = Need::Nothing;
    for (unsigned int left = 4; left > 2; --left) {
        queue.next(left == 4, taker, need);
        EXPECT_EQ(queue.begin(taker.taken).value(), 0u);
    }
    queue.next(false, taker, need);
    EXPECT_EQ(queue.begin(taker.taken).value(), 1u);
    EXPECT_FALSE(queue.holdsBack());
    EXPECT_TRUE(queue.holdBack(1));
    EXPECT_EQ(queue.letGo(1, Backlog::When::Anyway), Backlog::Mark::Taken);
    EXPECT_EQ(queue.letGo(1, Backlog::When::Anyway), Backlog::Mark::None);
}

// So that others need not wait behind thousands of its messages that take long to serve.
TEST(MessageQueue, senderIsHeldBackBeforeTheOthersMustWaitForLong) {
    constexpr unsigned int kMuch = Backlog::kLeastEnough;
    MessageQueue queue(kNoBound);
    for (unsigned int i = 0; i < kMuch; ++i)
        ASSERT_FALSE(queue.push(from(1)).isMuch);
    EXPECT_TRUE(queue.push(from(1)).isMuch) << "none has been served";
    EXPECT_TRUE(queue.holdBack(1));
    Taker taker;
    Need need = Need::Nothing;
    unsigned int left = kMuch + 1;
    do
        queue.next(left == kMuch + 1, taker, need);
    while (--left > 0 && queue.begin(taker.taken).value() == 0);
    EXPECT_EQ(left, kMuch / 2) << "there must be some to go on with";
}

TEST(MessageQueue, senderOfWhatIsServedSoonMayHaveMoreWaiting) {
    constexpr unsigned int kMuch = Backlog::kLeastEnough;
    MessageQueue queue(kNoBound);
    Taker taker;
    Need need = Need::Nothing;
    bool first = true;
    auto const serve = [&](unsigned int count) {
        for (; count > 0; --count) {
            queue.next(std::exchange(first, false), taker, need);
            queue.begin(taker.taken);
        }
    };
    auto const isMuchAfterQuickService = [&] {
        for (unsigned int served = 0; served < 20'000; ++served) {
            queue.push(from(2));
            serve(1);
        }
        bool isMuch = false;
        for (unsigned int i = 0; i <= kMuch; ++i)
            isMuch = queue.push(from(1)).isMuch;
        return isMuch;
    };
    // More than once only if this thread does not get on.
    for (int attempt = 0; isMuchAfterQuickService(); ++attempt) {
        ASSERT_LT(attempt, 100);
        serve(kMuch + 1);
    }
    unsigned int waiting = kMuch + 2;
    for (; !queue.push(from(1)).isMuch; ++waiting)
        ASSERT_LT(waiting, 3 * kMuch) << "nothing has been served since";
    // It goes on, and then they take long, though some of it waits all the time.
    EXPECT_TRUE(queue.holdBack(1));
    serve(waiting - kMuch / 2);
    EXPECT_FALSE(queue.holdsBack());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (waiting = kMuch / 2; waiting < kMuch; ++waiting)
        ASSERT_FALSE(queue.push(from(1)).isMuch);
    EXPECT_TRUE(queue.push(from(1)).isMuch);
}

TEST(MessageQueue, workerThatCannotBeStartedIsAskedForAgain) {
    MessageQueue queue(kNoBound);
    EXPECT_EQ(queue.push(message(20)).need, Need::Worker);
    queue.workerNotStarted();
    EXPECT_EQ(queue.push(message(21)).need, Need::Worker);
}

// ---- Requests that await their responses --------------------------------------------------------

using Answer = RequestTable::Answer;
using Beginning = RequestTable::Beginning;

constexpr unsigned int kSeed = 0x00021234;
constexpr unsigned int kStep = 0x00100000;

TEST(RequestTable, skipsIdsThatAreOutstanding) {
    auto const table = std::make_unique<RequestTable>(0xFFE00005u);
    OngoingRequest waiting;
    OngoingRequest other;
    EXPECT_EQ(table->begin(waiting, 7u, true).id, 0xFFF00005u);
    for (unsigned int i = 0; i < RequestTable::kCapacity - 1; ++i)
        EXPECT_EQ(table->begin(other, 7u, false).id, 5u + i * kStep);
    EXPECT_EQ(table->begin(other, 7u, false).id, 5u) << "the outstanding one is passed over";
}

TEST(RequestTable, with4096OutstandingThereIsNoId) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    std::vector<OngoingRequest> records(RequestTable::kCapacity);
    std::set<unsigned int> ids;
    for (OngoingRequest& record : records) {
        RequestTable::Ticket const ticket = table->begin(record, 7u, true);
        ASSERT_EQ(ticket.beginning, Beginning::Begun);
        EXPECT_EQ(ticket.id & 0xFFFFF, 0x21234u);
        ids.insert(ticket.id);
    }
    EXPECT_EQ(ids.size(), RequestTable::kCapacity);
    OngoingRequest late;
    RequestTable::Ticket const none = table->begin(late, 7u, true);
    EXPECT_EQ(none.beginning, Beginning::Exhausted);
    EXPECT_EQ(none.id, kSeed) << "the last id, after a whole round";
    EXPECT_EQ(table->take(kSeed + 3 * kStep), &records[2]);
    EXPECT_EQ(table->begin(late, 7u, true).id, kSeed + 3 * kStep);
}

TEST(RequestTable, aCallEndsItsOwnEntryOnly) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest cancelled;
    unsigned int const id = table->begin(cancelled, 7u, true).id;
    EXPECT_EQ(table->take(id), &cancelled) << "to deliver to it";
    // All other ids are given meanwhile, and this one again.
    OngoingRequest other;
    while (table->begin(other, 7u, false).id != id - kStep) {
    }
    OngoingRequest next;
    EXPECT_EQ(table->begin(next, 7u, true).id, id);
    EXPECT_FALSE(table->withdraw(id, cancelled, Answer::CannotCome));
    EXPECT_TRUE(table->withdraw(id, next, Answer::CannotCome));
    EXPECT_FALSE(table->withdraw(id, next, Answer::CannotCome));
}

// All other ids are given meanwhile, and a call of the same target is next.
TEST(RequestTable, anAnswerThatComesTooLateIsNotThatOfALaterCall) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest abandoned;
    OngoingRequest next;
    unsigned int const id = table->begin(abandoned, 7u, true).id;
    EXPECT_TRUE(table->withdraw(id, abandoned, Answer::MayCome));
    EXPECT_FALSE(table->awaits(7u));
    while (table->begin(next, 7u, false).id != id - kStep) {
    }
    EXPECT_EQ(table->begin(next, 7u, true).id, id + kStep);
    EXPECT_EQ(table->take(id, 8u).target.value(), 0u) << "of another one";
    RequestTable::Found const late = table->take(id, 7u);
    EXPECT_EQ(late.record, nullptr);
    EXPECT_EQ(late.target.value(), 0u) << "nobody waits";
    EXPECT_EQ(table->take(id + kStep, 7u).record, &next);

    // The answer has come, so the id is given again; as when the target has gone.
    while (table->begin(next, 7u, false).id != id - kStep) {
    }
    EXPECT_EQ(table->begin(next, 7u, true).id, id);
    EXPECT_TRUE(table->withdraw(id, next, Answer::MayCome));
    EXPECT_TRUE(table->takeAllOf(8u).empty());
    EXPECT_TRUE(table->takeAllOf(7u).empty());
    while (table->begin(next, 7u, false).id != id - kStep) {
    }
    EXPECT_EQ(table->begin(next, 7u, true).id, id);
}

TEST(RequestTable, abandonedIdsAreGivenWhenNoOtherIsFree) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    std::vector<OngoingRequest> records(RequestTable::kCapacity);
    for (OngoingRequest& record : records)
        table->begin(record, 7u, true);
    EXPECT_TRUE(table->withdraw(kSeed + 5 * kStep, records[4], Answer::MayCome));
    EXPECT_TRUE(table->withdraw(kSeed + 3 * kStep, records[2], Answer::MayCome));
    EXPECT_EQ(table->take(kSeed + 9 * kStep, 7u).record, &records[8]);
    OngoingRequest first;
    OngoingRequest second;
    OngoingRequest third;
    EXPECT_EQ(table->begin(first, 7u, true).id, kSeed + 9 * kStep);
    EXPECT_EQ(table->begin(second, 7u, true).id, kSeed + 3 * kStep);
    EXPECT_EQ(table->begin(third, 7u, true).id, kSeed + 5 * kStep);
    OngoingRequest late;
    EXPECT_EQ(table->begin(late, 7u, true).beginning, Beginning::Exhausted);
    EXPECT_EQ(table->take(kSeed + 3 * kStep, 7u).record, &second);
    EXPECT_EQ(table->close().size(), RequestTable::kCapacity - 1);
}

TEST(RequestTable, closedItAnswersAllThatWaitAndTakesNoMore) {
    auto const table = std::make_unique<RequestTable>(kSeed);
    OngoingRequest waiting;
    unsigned int const id = table->begin(waiting, 7u, true).id;
    auto const entries = table->close();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].record, &waiting);
    EXPECT_EQ(table->take(id), nullptr);
    EXPECT_FALSE(table->withdraw(id, waiting, Answer::MayCome));
    EXPECT_TRUE(table->takeAllOf(7u).empty());
    EXPECT_EQ(table->begin(waiting, 7u, true).beginning, Beginning::Closed);
    EXPECT_TRUE(table->close().empty());
}

// ---- The script that collects logs --------------------------------------------------------------

TEST(ScriptRunner, answersTheStatusOfTheScript) {
    EXPECT_EQ(runScript("true"), 0);
    EXPECT_EQ(WEXITSTATUS(runScript("exit 3")), 3);
    EXPECT_NE(runScript("/nonexistent/script 2>/dev/null"), 0);
}

TEST(ScriptRunner, scriptOfAThreadThatBlocksSignalsCanBeStopped) {
    sigset_t all;
    sigset_t former;
    sigset_t after;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &former);
    int const blockedByScript = runScript("grep -q '^SigBlk:[[:space:]]*0*$' /proc/self/status");
    pthread_sigmask(SIG_SETMASK, &former, &after);
    EXPECT_EQ(blockedByScript, 0);
    EXPECT_EQ(sigismember(&after, SIGTERM), 1) << "the thread itself goes on as before";
}

}  // namespace
