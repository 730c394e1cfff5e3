#include "reflect/MessageQueue.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

#include "Waiting.h"

namespace {

using Need = MessageQueue::Need;
using Turn = MessageQueue::Turn;

Transport::AddressedMessage message(std::size_t size) {
    return Transport::AddressedMessage::allocate(size);
}

/** A worker of which each step is told. Runs on the test's thread while there are messages. */
struct Worker {
    explicit Worker(MessageQueue& q) : queue(q) {}
    Turn next() {
        Turn const turn = queue.next(first, taken, need);
        first = false;
        return turn;
    }
    MessageQueue& queue;
    bool first = true;
    Transport::AddressedMessage taken;
    Need need = Need::nothing;
};

TEST(MessageQueue, firstMessageAsksForAWorkerAndTheNextOnesDoNot) {
    MessageQueue queue;
    EXPECT_EQ(queue.push(message(20)), Need::worker);
    EXPECT_EQ(queue.push(message(21)), Need::nothing) << "the started worker counts as idle";
}

TEST(MessageQueue, takerThatLeavesWorkAsksForOneMoreWhenNobodyIsIdle) {
    MessageQueue queue;
    queue.push(message(20));
    queue.push(message(21));
    queue.push(message(22));
    Worker a(queue);
    EXPECT_EQ(a.next(), Turn::serve);
    EXPECT_EQ(a.taken.size(), 20u);
    EXPECT_EQ(a.need, Need::worker);
    Worker b(queue);
    EXPECT_EQ(b.next(), Turn::serve);
    EXPECT_EQ(b.taken.size(), 21u);
    EXPECT_EQ(b.need, Need::worker);
    EXPECT_EQ(a.next(), Turn::serve);
    EXPECT_EQ(a.taken.size(), 22u);
    EXPECT_EQ(a.need, Need::nothing);
}

TEST(MessageQueue, atMostThreeIdleWorkersStay) {
    MessageQueue queue;
    constexpr int kWorkers = 8;
    std::vector<Worker> workers(kWorkers, Worker(queue));
    for (std::size_t i = 0; i < kWorkers; ++i)
        queue.push(message(20 + i));
    for (std::size_t i = 0; i < kWorkers; ++i) {
        ASSERT_EQ(workers[i].next(), Turn::serve);
        EXPECT_EQ(workers[i].taken.size(), 20 + i) << "first come, first served";
    }
    std::vector<std::future<Turn>> turns;
    for (Worker& worker : workers)
        turns.push_back(std::async(std::launch::async, [&worker] {
            Turn const turn = worker.next();
            worker.queue.workerEnded();
            return turn;
        }));
    auto const ended = [&] {
        int count = 0;
        for (auto& turn : turns)
            count += turn.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        return count;
    };
    EXPECT_TRUE(testsupport::eventually([&] { return ended() == kWorkers - 3; }));
    queue.push(message(99));
    EXPECT_TRUE(testsupport::eventually([&] { return ended() == kWorkers - 2; }));
    queue.close();
    queue.waitForWorkers(0);
}

TEST(MessageQueue, nextAtOnceTakesWhatIsThereByTheSameRule) {
    MessageQueue queue;
    Worker a(queue);
    EXPECT_FALSE(queue.nextAtOnce(a.taken, a.need)) << "nothing has come yet";
    for (std::size_t size : {20, 21, 22, 23})
        queue.push(message(size));
    ASSERT_EQ(a.next(), Turn::serve);
    ASSERT_EQ(a.need, Need::worker);
    ASSERT_TRUE(queue.nextAtOnce(a.taken, a.need));
    EXPECT_EQ(a.taken.size(), 21u);
    EXPECT_EQ(a.need, Need::nothing) << "the worker asked for before counts as idle";
    Worker b(queue);
    ASSERT_EQ(b.next(), Turn::serve);
    EXPECT_EQ(b.taken.size(), 22u);
    EXPECT_EQ(b.need, Need::worker);
    ASSERT_TRUE(queue.nextAtOnce(a.taken, a.need));
    EXPECT_EQ(a.taken.size(), 23u);
    EXPECT_EQ(a.need, Need::nothing);
    EXPECT_FALSE(queue.nextAtOnce(a.taken, a.need)) << "all are taken";
    queue.push(message(24));
    queue.close();
    EXPECT_FALSE(queue.nextAtOnce(a.taken, a.need));
}

TEST(MessageQueue, keepsOrderWhileItsRingGrowsAndWraps) {
    MessageQueue queue;
    Worker worker(queue);
    std::size_t pushed = 0;
    std::size_t taken = 0;
    for (std::size_t round = 0; round < 200; ++round) {
        for (std::size_t i = 0; i < 1 + round % 7; ++i)
            queue.push(message(20 + pushed++));
        for (std::size_t i = 0; i < 1 + round % 5 && taken < pushed; ++i) {
            ASSERT_EQ(worker.next(), Turn::serve);
            ASSERT_EQ(worker.taken.size(), 20 + taken++);
        }
    }
    EXPECT_GT(pushed, taken + 128);
}

TEST(MessageQueue, closedQueueDropsMessagesAndEndsWorkers) {
    MessageQueue queue;
    queue.push(message(20));
    queue.close();
    EXPECT_EQ(queue.push(message(21)), Need::nothing);
    Worker worker(queue);
    EXPECT_EQ(worker.next(), Turn::end);
    queue.workerEnded();
    queue.waitForWorkers(0);
}

TEST(MessageQueue, workerThatCannotBeStartedIsAskedForAgain) {
    MessageQueue queue;
    EXPECT_EQ(queue.push(message(20)), Need::worker);
    queue.workerNotStarted();
    EXPECT_EQ(queue.push(message(21)), Need::worker);
}

TEST(MessageQueue, nothingIsLostBetweenManyThreads) {
    constexpr int kMessages = 20000;
    MessageQueue queue;
    std::atomic<int> served{0};
    std::vector<std::thread> workers;
    std::mutex mutex;
    auto const start = [&](auto const& self) -> void {
        std::lock_guard<std::mutex> const lock(mutex);
        workers.emplace_back([&, self] {
            Worker worker(queue);
            auto const goOn = [&] {
                return queue.nextAtOnce(worker.taken, worker.need) || worker.next() == Turn::serve;
            };
            for (bool found = worker.next() == Turn::serve; found; found = goOn()) {
                if (worker.need == Need::worker)
                    self(self);
                ++served;
            }
            queue.workerEnded();
        });
    };
    for (int i = 0; i < kMessages; ++i)
        if (queue.push(message(20)) == Need::worker)
            start(start);
    EXPECT_TRUE(testsupport::eventually([&] { return served == kMessages; }));
    queue.close();
    queue.waitForWorkers(0);
    for (std::thread& worker : workers)
        worker.join();
}

}  // namespace
