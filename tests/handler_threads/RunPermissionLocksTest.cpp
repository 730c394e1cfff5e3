// The guards, and the locks that give the permission back while they block.
#include "PermissionThreads.h"

using namespace permissiontest;

namespace {

class RunPermissionGuards : public PermissionTest {};

enum State { none, handler, holder };

State stateNow() {
    return Run::hasRunPermission() ? holder : Run::isHandlerThread() ? handler : none;
}

void bringInto(State state) {
    while (Run::isHandlerThread())
        Run::leaveHandlerState(true);
    if (state != none)
        Run::enterHandlerState(state == holder);
}

/** The state inside a guard that is entered in another one, which is there again behind it. */
template <class Guard, class... Arguments>
State insideOf(State before, Arguments... arguments) {
    bringInto(before);
    State inside = none;
    {
        Guard const guard(arguments...);
        inside = stateNow();
        EXPECT_EQ(Run::getRunPermissionCount(), inside == holder ? 1u : 0u);
    }
    EXPECT_EQ(stateNow(), before);
    bringInto(none);
    return inside;
}

TEST_F(RunPermissionGuards, HandlerStateGivesWhatIsMissingAndReleaseTakesWhatIsThere) {
    LogCapture log;
    for (State before : {none, handler, holder}) {
        EXPECT_EQ(insideOf<TreflectHandlerState>(before, true), holder);
        EXPECT_EQ(insideOf<TreflectHandlerState>(before, false), std::max(before, handler));
        EXPECT_EQ(insideOf<TreflectReleaseHandlerState>(before), std::min(before, handler));
    }
    TreflectHandlerState::cleanupHandlerState(nullptr);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(RunPermissionGuards, RestorePutsBackAnyStateFromAnyOther) {
    for (State before : {none, handler, holder})
        for (State inside : {none, handler, holder}) {
            bringInto(before);
            {
                TreflectRestoreHandlerState const guard;
                bringInto(inside);
            }
            EXPECT_EQ(stateNow(), before) << "from " << inside;
        }
    bringInto(none);
}

TEST_F(RunPermissionGuards, NestedStatesAndLevelsAreUndone) {
    {
        TreflectRestoreHandlerState const guard;
        Run::enterHandlerState(true);
        Run::enterHandlerState(false);
        Run::getRunPermission();
    }
    EXPECT_EQ(stateNow(), none);
    Run::enterHandlerState(false);
    {
        TreflectRestoreHandlerState const guard;
        Run::getRunPermission();
        Run::getRunPermission();
    }
    EXPECT_EQ(stateNow(), handler);
    bringInto(none);
    {
        TreflectHandlerState const guard(false);
        Run::getRunPermission();
    }
    EXPECT_EQ(stateNow(), none);
}

TEST_F(RunPermissionGuards, ReleaseGivesOneLevelBackAndTakesThePermissionOnlyIfItIsAway) {
    Run::enterHandlerState(true);
    Run::getRunPermission();
    {
        TreflectReleaseHandlerState const guard;
        EXPECT_EQ(stateNow(), holder) << "the second level keeps it";
    }
    EXPECT_EQ(Run::getRunPermissionCount(), 1u) << "it holds the permission, so none is added";
    {
        TreflectReleaseHandlerState const guard;
        bringInto(none);
    }
    EXPECT_EQ(stateNow(), holder);
    bringInto(none);
}

template <class Lockable>
class RunPermissionLocks : public PermissionTest {
protected:
    static constexpr bool kAlwaysReleases = std::is_same_v<Lockable, OSWrap::RunPermMutex> ||
                                            std::is_same_v<Lockable, OSWrap::RunPermConditionVar>;
    Lockable lockable_;
};

using Lockables = testing::Types<TreflectMutex, TreflectCountedMutex, TreflectConditionVar,
                                 OSWrap::RunPermMutex, OSWrap::RunPermConditionVar>;
TYPED_TEST_SUITE(RunPermissionLocks, Lockables, );

TYPED_TEST(RunPermissionLocks, BlockedHolderLetsOthersRunAndHasThePermissionAgainAfterwards) {
    Gate locked;
    Gate unlock;
    TestThread blocker([&] {
        OSWrap::Lock<TypeParam> const lock(this->lockable_);
        locked.open();
        EXPECT_TRUE(unlock.wait());
    });
    ASSERT_TRUE(locked.wait());
    TreflectHandlerState const state(true);
    TestThread helper([&] {
        TreflectHandlerState const inner(true);
        unlock.open();
    });
    ASSERT_TRUE(queueGrowsTo(1));
    this->lockable_.lock();
    EXPECT_TRUE(Run::hasRunPermission());
    EXPECT_TRUE(unlock.isOpen());
    this->lockable_.unlock();
}

TYPED_TEST(RunPermissionLocks, FreeLockKeepsThePermissionUnlessItAlwaysGivesItBack) {
    std::atomic<bool> otherHadIt{false};
    TreflectHandlerState const state(true);
    TestThread other([&otherHadIt] {
        TreflectHandlerState const inner(true);
        otherHadIt = true;
    });
    ASSERT_TRUE(queueGrowsTo(1));
    this->lockable_.lock();
    EXPECT_EQ(otherHadIt, this->kAlwaysReleases);
    EXPECT_TRUE(Run::hasRunPermission());
    TestThread([this] { EXPECT_FALSE(testsupport::isFree(this->lockable_)); });
    this->lockable_.unlock();
    EXPECT_TRUE(testsupport::isFree(this->lockable_));
    EXPECT_EQ(otherHadIt, this->kAlwaysReleases);
    TreflectReleaseHandlerState const released;
    other.join();
}

TYPED_TEST(RunPermissionLocks, SecondLevelKeepsThePermissionWhileBlocked) {
    Gate locked;
    Gate twice;
    TestThread blocker([&] {
        OSWrap::Lock<TypeParam> const lock(this->lockable_);
        locked.open();
        EXPECT_TRUE(twice.wait());
        EXPECT_SOON(Run::getRunPermissionCount() == 1);
        EXPECT_NE(Run::getRunPermissionOwner(), 0u);
    });
    ASSERT_TRUE(locked.wait());
    LogCapture log;
    TreflectHandlerState const state(true);
    Run::getRunPermission();
    twice.open();
    this->lockable_.lock();
    EXPECT_EQ(Run::getRunPermissionCount(), 1u);
    this->lockable_.unlock();
}

// The analysis knows no recursive locks.
void countedTwice(TreflectCountedMutex& mutex) OSW_NO_ANALYSIS
{
    EXPECT_TRUE(mutex.trylock());
    EXPECT_EQ(mutex.count(), 2u);
    mutex.unlock();
}

TEST_F(RunPermissionGuards, CountedMutexCounts) {
    TreflectCountedMutex mutex;
    {
        OSWrap::Lock<TreflectCountedMutex> const outer(mutex);
        countedTwice(mutex);
    }
    EXPECT_EQ(mutex.count(), 0u);
}

template <class Condition>
class RunPermissionConditions : public PermissionTest {
protected:
    Condition condition_;
};

using Conditions = testing::Types<TreflectConditionVar, OSWrap::RunPermConditionVar>;
TYPED_TEST_SUITE(RunPermissionConditions, Conditions, );

TYPED_TEST(RunPermissionConditions, WaitLetsAnotherHolderSignalAndTellsThatTheTimeRanOut) {
    bool ready = false;  // guarded by the condition's mutex
    TreflectHandlerState const state(true);
    TestThread signaller([&] {
        TreflectHandlerState const inner(true);
        OSWrap::Lock<TypeParam> const lock(this->condition_);
        ready = true;
        this->condition_.broadcast();
    });
    OSWrap::Lock<TypeParam> const lock(this->condition_);
    while (!ready)
        ASSERT_TRUE(this->condition_.wait(OSWrap::TimeSpec(30, 0)));
    EXPECT_TRUE(Run::hasRunPermission());
    EXPECT_FALSE(this->condition_.wait(OSWrap::TimeSpec(0, 1'000'000)));
    EXPECT_TRUE(Run::hasRunPermission());
}

// All ways to take, give back and block at once, over data that only the permission or one lock
// guards.
TEST_F(RunPermissionGuards, ManyThreadsKeepTheirDataWhole) {
    constexpr int kThreads = 16;
    constexpr int kRounds = 300;
    long underPermission = 0;  // guarded by the run permission
    long underMutex = 0;       // guarded by `mutex`
    long underCondition = 0;   // guarded by `condition`
    TreflectMutex mutex;
    TreflectConditionVar condition;
    TestThreads(kThreads, [&](std::size_t) {
        for (int round = 0; round < kRounds; ++round) {
            TreflectHandlerState const state(true);
            ++underPermission;
            {
                OSWrap::Lock<TreflectMutex> const lock(mutex);
                ++underMutex;
            }
            {
                OSWrap::Lock<TreflectConditionVar> const lock(condition);
                ++underCondition;
                condition.broadcast();
                if (round % 16 == 0)
                    condition.wait(OSWrap::TimeSpec(0, 100'000));
            }
            ++underPermission;
            TreflectReleaseHandlerState const released;
        }
    });
    EXPECT_EQ(underPermission, 2l * kThreads * kRounds);
    EXPECT_EQ(underMutex, 1l * kThreads * kRounds);
    EXPECT_EQ(underCondition, 1l * kThreads * kRounds);
}

}  // namespace
