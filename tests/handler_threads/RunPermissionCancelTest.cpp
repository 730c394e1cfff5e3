// Cancellation of threads that queue for the permission, have just got it, or are inside guards.
#include "PermissionThreads.h"
#include "handler_threads/PermissionWaiter.h"

using namespace permissiontest;

namespace {

class RunPermissionCancel : public PermissionTest {
protected:
    TestThread& queueOne() {
        return queueUp([this] {
            Run::enterHandlerState(true);
            ++turns_;
            Run::leaveHandlerState(true);
        });
    }

    std::atomic<int> turns_{0};
};

TEST_F(RunPermissionCancel, QueuedThreadLeavesTheQueueFromAnyPlace) {
    for (unsigned int const length : {1u, 3u})
        for (unsigned int place = 0; place < length; ++place) {
            Run::enterHandlerState(true);
            for (unsigned int i = 0; i < length; ++i)
                queueOne();
            queued_[place]->cancel();
            EXPECT_TRUE(queued_[place]->join());
            EXPECT_TRUE(queueGrowsTo(length - 1));
            // Each that is left has two handler states, and this thread one.
            EXPECT_EQ(Run::handlerThreads().size(), 2 * length - 1) << "its own ended with it";
            turns_ = 0;
            Run::leaveHandlerState(true);
            joinAll();
            EXPECT_EQ(turns_, static_cast<int>(length - 1));
        }
}

// Cancellation and hand-over meet in either order: the turn always goes on to the next.
TEST_F(RunPermissionCancel, TurnPassesOnWhenItMeetsTheCancellation) {
    int ended = 0;
    for (int round = 0; round < 200; ++round) {
        Run::enterHandlerState(true);
        TestThread& first = queueOne();
        TestThread& second = queueOne();
        if (round % 2)
            first.cancel();
        Run::leaveHandlerState(true);
        first.cancel();
        ended += first.join() ? 0 : 1;
        EXPECT_FALSE(second.join());
        ++ended;
        joinAll();
        ASSERT_EQ(turns_, ended);
        ASSERT_TRUE(nothingLeft());
    }
}

// As a caller does that its response has queued, and that is cancelled before it wakes.
TEST_F(RunPermissionCancel, TurnThatHasComeIsPassedOnByWhoNoLongerWantsIt) {
    Run::enterHandlerState(true);
    Gate queued;
    Gate granted;
    TestThread cancelled([&] {
        TreflectHandlerState const state(false);
        handlerthreads::PermissionWaiter entry;
        Run::handlerThreads().queue(entry);
        queued.open();
        EXPECT_TRUE(granted.wait());
        Run::handlerThreads().leaveQueue(entry);
        EXPECT_FALSE(Run::hasRunPermission());
    });
    ASSERT_TRUE(queued.wait());
    queueOne();
    Run::leaveHandlerState(true);
    granted.open();
    cancelled.join();
    joinAll();
    EXPECT_EQ(turns_, 1);
}

TEST_F(RunPermissionCancel, GuardIsNotInterruptedWhileItQueues) {
    Run::enterHandlerState(true);
    std::atomic<bool> hadIt{false};
    TestThread thread([&hadIt] {
        TreflectHandlerState const state(true);
        hadIt = Run::hasRunPermission();
        for (;;)
            OSWrap::Thread::sleep(1, 0);
    });
    ASSERT_TRUE(queueGrowsTo(1));
    thread.cancel();
    Run::leaveHandlerState(true);
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(hadIt);
}

TEST_F(RunPermissionCancel, HolderThatIsCancelledGivesEverythingBack) {
    LogCapture log;
    Gate inside;
    TestThread thread([&inside] {
        TreflectHandlerState const state(true);
        Run::getRunPermission();
        TreflectRestoreHandlerState const restored;
        TreflectReleaseHandlerState const released;
        inside.open();
        for (;;)
            OSWrap::Thread::sleep(1, 0);
    });
    ASSERT_TRUE(inside.wait());
    thread.cancel();
    EXPECT_TRUE(thread.join());
}

TEST_F(RunPermissionCancel, CancelledConditionWaitTakesThePermissionBackAndUnlocks) {
    TreflectConditionVar condition;
    std::atomic<bool> hadItOnTheWay{false};
    struct Probe {
        std::atomic<bool>& result;
        ~Probe() { result = Run::hasRunPermission(); }
    };
    TestThread thread([&] {
        TreflectHandlerState const state(true);
        Probe const probe{hadItOnTheWay};
        OSWrap::Lock<TreflectConditionVar> const lock(condition);
        for (;;)
            condition.wait(OSWrap::TimeSpec::INFINITETIME);
    });
    ASSERT_SOON(Run::handlerThreads().size() == 1 && Run::getRunPermissionOwner() == 0);
    thread.cancel();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(hadItOnTheWay);
    EXPECT_TRUE(testsupport::isFree(condition));
}

// Many threads queue, hold and are cancelled at random moments: afterwards nothing is stuck.
TEST_F(RunPermissionCancel, ManyCancellationsAmongManyThreadsLoseNothing) {
    constexpr int kThreads = 12;
    long protectedSum = 0;  // guarded by the run permission
    std::atomic<long> sum{0};
    for (int round = 0; round < 25; ++round) {
        TestThreads threads(kThreads, [&](std::size_t i) {
            for (;;) {
                Run::enterHandlerState(i % 2 == 0);
                if (Run::hasRunPermission()) {
                    ++protectedSum;
                    ++sum;
                }
                Run::leaveHandlerState(true);
                pthread_testcancel();
            }
        });
        long const before = sum;
        ASSERT_SOON(sum > before + 100);
        threads.cancel();
        threads.join();
        ASSERT_TRUE(nothingLeft());
    }
    EXPECT_EQ(protectedSum, sum);
}

}  // namespace
