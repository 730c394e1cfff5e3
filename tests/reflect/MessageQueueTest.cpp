#include "reflect/broker/MessageQueue.h"

#include <gtest/gtest.h>

namespace {

using Need = MessageQueue::Need;

constexpr Transport::Backlog kNoBound{1 << 20, 1'000'000, 1 << 20, 1'000'000};

class Taker final : public MessageQueue::Taker {
public:
    void lineUp() override { ++linedUp; }

    std::size_t linedUp = 0;
};

Transport::AddressedMessage message(std::size_t size) {
    return Transport::AddressedMessage::allocate(size);
}

TEST(MessageQueue, keepsOrderWhileItsRingGrowsAndWraps) {
    MessageQueue queue(kNoBound);
    Taker next;
    Need need = Need::nothing;
    std::size_t pushed = 0;
    std::size_t taken = 0;
    for (std::size_t round = 0; round < 200; ++round) {
        for (std::size_t i = 0; i < 1 + round % 7; ++i)
            queue.push(message(20 + pushed++));
        for (std::size_t i = 0; i < 1 + round % 5 && taken < pushed; ++i) {
            ASSERT_EQ(queue.next(taken == 0, next, need), MessageQueue::Turn::serve);
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
    MessageQueue queue({1 << 20, 100, 1 << 20, 300});
    auto const countOf = [&](unsigned int sender) {
        int count = 0;
        while (queue.push(from(sender)).fate == MessageQueue::Fate::kept)
            ++count;
        return count;
    };
    EXPECT_EQ(countOf(1), 100);
    EXPECT_EQ(countOf(2), 100);
    EXPECT_EQ(countOf(3), 50) << "as much as is left then";
    EXPECT_EQ(countOf(4), 25);
    int small = 0;
    for (unsigned int sender = 5; sender < 15; ++sender)
        small += queue.push(from(sender)).fate == MessageQueue::Fate::kept ? 1 : 0;
    EXPECT_EQ(small, 10);
}

TEST(MessageQueue, boundsBytesButTakesOneLargeMessage) {
    MessageQueue queue({16, 1000, 64, 1000});
    EXPECT_EQ(queue.push(from(1, 1 << 20)).fate, MessageQueue::Fate::kept) << "alone";
    EXPECT_EQ(queue.push(from(2, 20)).fate, MessageQueue::Fate::tooMuch);
    Taker taker;
    Need need = Need::nothing;
    queue.next(true, taker, need);
    EXPECT_EQ(queue.push(from(2, 20)).fate, MessageQueue::Fate::tooMuch) << "it waits until begun";
    queue.begin(taker.taken);
    EXPECT_EQ(queue.push(from(2, 20 << 10)).fate, MessageQueue::Fate::kept);
    EXPECT_EQ(queue.push(from(2, 1)).fate, MessageQueue::Fate::tooMuch);
    EXPECT_EQ(queue.push(from(1, 10 << 10)).fate, MessageQueue::Fate::kept);
    EXPECT_EQ(queue.push(from(1, 10 << 10)).fate, MessageQueue::Fate::tooMuch);
}

TEST(MessageQueue, senderIsHeldBackAtHalfAndGoesOnAtAQuarter) {
    MessageQueue queue({1 << 20, 8, 1 << 20, 1000});
    for (int i = 0; i < 4; ++i)
        EXPECT_FALSE(queue.push(from(1)).isMuch);
    EXPECT_TRUE(queue.push(from(1)).isMuch);
    EXPECT_FALSE(queue.holdBack(2)) << "nothing of it waits";
    EXPECT_TRUE(queue.holdBack(1));
    EXPECT_EQ(queue.letGo(1, Backlog::When::little), Backlog::Mark::stays);
    Taker taker;
    Need need = Need::nothing;
    for (unsigned int left = 4; left > 2; --left) {
        queue.next(left == 4, taker, need);
        EXPECT_EQ(queue.begin(taker.taken).value(), 0u);
    }
    queue.next(false, taker, need);
    EXPECT_EQ(queue.begin(taker.taken).value(), 1u);
    EXPECT_FALSE(queue.holdsBack());
    EXPECT_TRUE(queue.holdBack(1));
    EXPECT_EQ(queue.letGo(1, Backlog::When::anyway), Backlog::Mark::taken);
    EXPECT_EQ(queue.letGo(1, Backlog::When::anyway), Backlog::Mark::none);
}

// So that others need not wait behind thousands of its messages.
TEST(MessageQueue, senderIsHeldBackBeforeTheOthersMustWaitForLong) {
    constexpr unsigned int kMuch = 512;
    MessageQueue queue(kNoBound);
    for (unsigned int i = 0; i < kMuch; ++i)
        ASSERT_FALSE(queue.push(from(1)).isMuch);
    EXPECT_TRUE(queue.push(from(1)).isMuch);
    EXPECT_TRUE(queue.holdBack(1));
    Taker taker;
    Need need = Need::nothing;
    unsigned int left = kMuch + 1;
    do
        queue.next(left == kMuch + 1, taker, need);
    while (--left > 0 && queue.begin(taker.taken).value() == 0);
    EXPECT_EQ(left, kMuch / 2) << "there must be some to go on with";
}

TEST(MessageQueue, workerThatCannotBeStartedIsAskedForAgain) {
    MessageQueue queue(kNoBound);
    EXPECT_EQ(queue.push(message(20)).need, Need::worker);
    queue.workerNotStarted();
    EXPECT_EQ(queue.push(message(21)).need, Need::worker);
}

}  // namespace
