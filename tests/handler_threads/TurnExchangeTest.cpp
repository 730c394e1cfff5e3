// Threads of a pool that exchange their work instead of handing the permission round.
#include "PermissionThreads.h"
#include "handler_threads/PermissionWaiter.h"

using namespace permissiontest;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

char const poolA = 'A';
char const poolB = 'B';

class Turn final : public TurnExchange {
public:
    explicit Turn(char const& pool, int number = 0) : TurnExchange(&pool), work(number) {}
    void swap(TurnExchange& other) override { std::swap(work, static_cast<Turn&>(other).work); }

    /** Asks for the permission, or for the next turn with it; whether the thread has it. */
    bool enterQueue() {
        entry_.emplace(this);
        return Run::handlerThreads().enterQueue(*entry_);
    }
    void await() { Run::handlerThreads().getPermission(*entry_); }

    int work;

private:
    std::optional<handlerthreads::PermissionWaiter> entry_;
};

class TurnExchangeTest : public PermissionTest {
protected:
    /** The next thread in the queue; notes the work that it has when its turn comes. */
    TestThread& park(char const& pool, int work) {
        return queueUp([this, &pool, work] {
            Turn turn(pool, work);
            if (!turn.enterQueue())
                turn.await();
            served_.push_back(turn.work);
        });
    }
    /** The same for a thread of no pool. */
    TestThread& queueCaller(int number) {
        return queueUp([this, number] {
            Run::getRunPermission();
            served_.push_back(number);
        });
    }
    /** What a thread of a pool does when it could not go on. */
    static void handRound(Turn& mine) {
        Run::releaseRunPermission();
        mine.await();
    }

    std::vector<int> served_;  // guarded by the run permission
};

TEST_F(TurnExchangeTest, callerBetweenTwoGetsItsTurnInItsPlace) {
    {
        TreflectHandlerState const holder(true);
        park(poolA, 1);
        queueCaller(100);
        park(poolA, 2);
        queueCaller(101);
        Turn mine(poolA, 3);
        ASSERT_TRUE(mine.enterQueue());
        EXPECT_EQ(mine.work, 1);
        mine.work = 4;
        EXPECT_FALSE(mine.enterQueue()) << "a caller is at the front";
        EXPECT_EQ(mine.work, 4);
        EXPECT_THAT(served_, ElementsAre());
        handRound(mine);
        EXPECT_THAT(served_, ElementsAre(100, 2, 101, 3));
        EXPECT_EQ(mine.work, 4);
        EXPECT_TRUE(mine.enterQueue()) << "nobody is left";
        EXPECT_EQ(mine.work, 4);
    }
    joinAll();
}

TEST_F(TurnExchangeTest, nothingIsExchangedWithAnotherPoolOrWithoutExactlyOneLevel) {
    {
        TreflectHandlerState const holder(true);
        park(poolB, 1);
        Turn other(poolB, 3);
        {
            LogCapture log;
            Run::getRunPermission();
            EXPECT_TRUE(other.enterQueue()) << "a release would not end the second level";
            Run::releaseRunPermission();
        }
        EXPECT_EQ(other.work, 3);
        EXPECT_EQ(Run::getRunPermissionCount(), 1u);
        queueUp([this] {
            Turn theirs(poolB, 4);
            EXPECT_FALSE(theirs.enterQueue()) << "it is not its permission";
            theirs.await();
            served_.push_back(theirs.work);
        });
        Turn mine(poolA, 2);
        ASSERT_FALSE(mine.enterQueue());
        EXPECT_THAT(served_, ElementsAre()) << "the place is taken before the permission goes";
        EXPECT_EQ(Run::getRunPermissionOwner(), OSWrap::Thread::getCurrentId());
        handRound(mine);
        EXPECT_EQ(mine.work, 2);
    }
    joinAll();
    EXPECT_THAT(served_, ElementsAre(1, 4));
}

// A thread can hold the lock under which its place is due to it.
TEST_F(TurnExchangeTest, freePermissionIsTakenAtOnce) {
    TreflectHandlerState const state(false);
    Turn mine(poolA, 1);
    EXPECT_TRUE(mine.enterQueue());
    EXPECT_EQ(Run::getRunPermissionCount(), 1u);
    EXPECT_EQ(Run::getRunPermissionOwner(), OSWrap::Thread::getCurrentId());
    Run::releaseRunPermission();
}

TEST_F(TurnExchangeTest, cancelledThreadLeavesTheQueueBeforeAndAfterItsExchange) {
    {
        TreflectHandlerState const holder(true);
        TestThread& first = park(poolA, 1);
        park(poolA, 2);
        park(poolA, 3);
        Turn mine(poolA, 4);
        ASSERT_TRUE(mine.enterQueue());
        first.cancel();  // with work 4, at the back
        EXPECT_TRUE(first.join());
        EXPECT_TRUE(queueGrowsTo(2));
        mine.work = 5;
        ASSERT_TRUE(mine.enterQueue());
        EXPECT_EQ(mine.work, 2);
    }
    joinAll();
    EXPECT_THAT(served_, ElementsAre(3, 5));
}

// Somebody whose work goes on being done does not wait.
TEST_F(TurnExchangeTest, waitIsReportedFromTheLastExchangeOn) {
    LogCapture log;
    {
        TreflectHandlerState const holder(true);
        park(poolA, 1);
        Turn mine(poolA);
        auto const start = steady_clock::now();
        auto latest = start;
        steady_clock::duration longestGap{};
        while (latest - start < milliseconds(2500)) {
            std::this_thread::sleep_for(milliseconds(5));
            EXPECT_TRUE(mine.enterQueue());
            auto const now = steady_clock::now();
            longestGap = std::max(longestGap, now - latest);
            latest = now;
        }
        if (longestGap < milliseconds(900)) {  // else there was something to report
            EXPECT_EQ(log.count("::getRunPermission(thread="), 0u);
        }
        log.clear();
        EXPECT_TRUE(log.waitFor(" waiting for thread "));
    }
    joinAll();
    EXPECT_TRUE(log.contains(" got mutex from thread "));
}

TEST_F(TurnExchangeTest, waitIsReportedWithTheHolderThatItIsFor) {
    LogCapture log;
    long const self = OSWrap::Thread::getCurrentTid();
    auto const awaited = [](long tid) {
        return " waiting for thread " + std::to_string(tid) + " ";
    };
    std::atomic<long> callersTid{0};
    {
        TreflectHandlerState const holder(true);
        park(poolA, 1);
        ASSERT_TRUE(log.waitFor(awaited(self) + " since 1s")) << "it sleeps at the front";
        queueUp([&] {
            Run::getRunPermission();
            callersTid = OSWrap::Thread::getCurrentTid();
            EXPECT_TRUE(log.waitFor(awaited(callersTid) + " since 1s"));
        });
        Turn mine(poolA, 2);
        ASSERT_TRUE(mine.enterQueue());
    }
    joinAll();
    EXPECT_THAT(served_, ElementsAre(2));
    EXPECT_EQ(log.count(" got mutex from thread " + std::to_string(self) + " "), 0u);
    EXPECT_TRUE(log.contains(" got mutex from thread " + std::to_string(callersTid) + " "));
}

// Two pools and callers, some of them cancelled: each piece of work is done once, and by one thread
// at a time.
TEST_F(TurnExchangeTest, nothingIsLostAmongManyThreads) {
    constexpr int kWork = 4000;
    constexpr int kThreadsOfAPool = 3;
    std::atomic<int> next{0};
    std::vector<int> timesDone(kWork, 0);  // guarded by the run permission
    long turnsOfCallers = 0;               // guarded by the run permission
    std::atomic<bool> over{false};
    auto const work = [&](char const& pool) {
        TreflectHandlerState const state(true);
        Turn mine(pool);
        while ((mine.work = next++) < kWork) {
            if (!mine.enterQueue())
                handRound(mine);
            ++timesDone[static_cast<std::size_t>(mine.work)];
            if (mine.work % 8 == 0)
                TreflectReleaseHandlerState const blocked;
        }
    };
    TestThreads callers(3, [&](std::size_t) {
        while (!over) {
            Run::enterHandlerState(true);
            ++turnsOfCallers;
            Run::leaveHandlerState(true);
            pthread_testcancel();
        }
    });
    TestThreads workers(2 * kThreadsOfAPool,
                        [&work](std::size_t i) { work(i % 2 == 0 ? poolA : poolB); });
    callers.front().cancel();
    workers.join();
    over = true;
    callers.join();
    EXPECT_EQ(std::count(timesDone.begin(), timesDone.end(), 1), kWork);
    EXPECT_GT(turnsOfCallers, 0);
}

}  // namespace
