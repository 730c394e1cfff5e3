#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>

#include "Waiting.h"
#include "oswrap/Clock.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"

using OSWrap::Clock;
using OSWrap::ConditionVar;
using OSWrap::Lock;
using OSWrap::TimeSpec;

namespace {

/** A thread that waits until it is cancelled, under a scoped lock. */
struct EndlessWaiter {
    explicit EndlessWaiter(TimeSpec const& waitLimit) : limit(waitLimit) {}

    TimeSpec const limit;
    ConditionVar condition;
    std::atomic<bool> waiting{false};
    std::atomic<bool> unwound{false};

    static void* run(void* self) {
        auto& waiter = *static_cast<EndlessWaiter*>(self);
        struct Mark {
            EndlessWaiter& waiter;
            ~Mark() { waiter.unwound = true; }
        } const mark{waiter};
        Lock<ConditionVar> const lock(waiter.condition);
        waiter.waiting = true;
        for (;;)
            waiter.condition.wait(waiter.limit);
    }
};

void cancelInTheWait(TimeSpec const& limit, bool wakeBefore) {
    EndlessWaiter waiter(limit);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, &EndlessWaiter::run, &waiter), 0);
    ASSERT_TRUE(testsupport::eventually([&] { return waiter.waiting.load(); }));
    // The mutex is free only while the thread is inside its wait.
    { Lock<ConditionVar> const lock(waiter.condition); }
    if (wakeBefore)
        waiter.condition.signal();
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(waiter.unwound);
    bool const isFree = waiter.condition.trylock();
    if (isFree)
        waiter.condition.unlock();
    EXPECT_TRUE(isFree);
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
