#include "reflect/MessageQueue.h"

#include <gtest/gtest.h>

namespace {

using Need = MessageQueue::Need;

Transport::AddressedMessage message(std::size_t size) {
    return Transport::AddressedMessage::allocate(size);
}

TEST(MessageQueue, keepsOrderWhileItsRingGrowsAndWraps) {
    MessageQueue queue;
    Transport::AddressedMessage next;
    Need need = Need::nothing;
    std::size_t pushed = 0;
    std::size_t taken = 0;
    for (std::size_t round = 0; round < 200; ++round) {
        for (std::size_t i = 0; i < 1 + round % 7; ++i)
            queue.push(message(20 + pushed++));
        for (std::size_t i = 0; i < 1 + round % 5 && taken < pushed; ++i) {
            ASSERT_EQ(queue.next(taken == 0, next, need), MessageQueue::Turn::serve);
            ASSERT_EQ(next.size(), 20 + taken++);
        }
    }
    EXPECT_GT(pushed, taken + 128);
}

TEST(MessageQueue, workerThatCannotBeStartedIsAskedForAgain) {
    MessageQueue queue;
    EXPECT_EQ(queue.push(message(20)), Need::worker);
    queue.workerNotStarted();
    EXPECT_EQ(queue.push(message(21)), Need::worker);
}

}  // namespace
