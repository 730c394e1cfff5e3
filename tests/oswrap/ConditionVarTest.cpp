#include <gtest/gtest.h>

#include "Threads.h"
#include "Waiting.h"
#include "oswrap/Clock.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"

using OSWrap::Clock;
using OSWrap::ConditionVar;
using OSWrap::Lock;
using OSWrap::TimeSpec;

namespace {

/** Cancels a thread that waits under a scoped lock. */
void cancelInTheWait(TimeSpec const& limit, bool wakeBefore) {
    ConditionVar condition;
    std::atomic<bool> waiting{false};
    std::atomic<bool> unwound{false};
    testsupport::TestThread thread([&] {
        testsupport::Mark const mark{unwound};
        Lock<ConditionVar> const lock(condition);
        waiting = true;
        for (;;)
            condition.wait(limit);
    });
    ASSERT_SOON(waiting.load());
    // The mutex is free only while the thread is inside its wait.
    { Lock<ConditionVar> const lock(condition); }
    if (wakeBefore)
        condition.signal();
    thread.cancel();
    EXPECT_TRUE(thread.join());
    EXPECT_TRUE(unwound);
    EXPECT_TRUE(testsupport::isFree(condition));
}

}  // namespace

TEST(ConditionVar, cancelledWaitUnwindsAndLeavesTheMutexFree) {
    for (TimeSpec const& limit : {TimeSpec::INFINITETIME, TimeSpec(20, 0), TimeSpec(0, 100'000)})
        cancelInTheWait(limit, false);
}

// The thread is then anywhere between its sleep and the end of the call.
TEST(ConditionVar, cancellationThatMeetsAWakeUpLeavesTheMutexFree) {
    for (int round = 0; round < 300 && !testing::Test::HasFailure(); ++round)
        cancelInTheWait(TimeSpec(20, 0), true);
}

TEST(ConditionVar, waitEndsWithItsLimit) {
    for (bool const monotonic : {true, false}) {
        ConditionVar condition(monotonic);
        Lock<ConditionVar> const lock(condition);
        long long const start = Clock::nowNanoseconds();
        while (condition.wait(TimeSpec(0, 20'000'000)))
            continue;
        EXPECT_GE(Clock::nowNanoseconds() - start, monotonic ? 20'000'000 : 1'000'000);
        while (condition.wait(TimeSpec(0, 0)))
            continue;
        while (condition.wait(TimeSpec(-5, 0)))
            continue;
    }
}
