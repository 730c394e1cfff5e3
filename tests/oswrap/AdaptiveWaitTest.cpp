#include <gtest/gtest.h>
#include <sched.h>

#include "Waiting.h"
#include "oswrap/AdaptiveWait.h"
#include "oswrap/Thread.h"

using OSWrap::AdaptiveWait;

namespace {

/** Whether a wait of this place polls: asks more than once. */
bool polls(AdaptiveWait& place) {
    int questions = 0;
    return place.poll([&] { return ++questions == 2; });
}

/** A wait that is not answered in time; answers whether it polled. */
bool pollsInVain(AdaptiveWait& place) {
    int questions = 0;
    EXPECT_FALSE(place.poll([&] {
        ++questions;
        return false;
    }));
    return questions > 1;
}

/** Polls, with a yield that takes long: what counts is the time between two yields, here the second
 * question's sleep. */
void yieldsForLong() {
    AdaptiveWait place;
    int questions = 0;
    place.poll([&] {
        if (++questions == 2)
            OSWrap::Thread::sleep(0, 2'000'000);
        return false;
    });
}

/** Waits out a pause that a busy machine may have caused. */
bool pollsBeforeLong(AdaptiveWait& place) {
    return testsupport::eventually([&] { return polls(place); });
}

}  // namespace

TEST(AdaptiveWait, triesRarelyWherePollsFailUntilWaitsGetShort) {
    // Also where sleeps are short, though less rarely.
    for (auto const& [slept, most] : {std::pair(1'000'000, 20), std::pair(60'000, 1500)}) {
        AdaptiveWait place;
        int spells = 0;
        for (int wait = 0; wait < 5000; ++wait) {
            spells += pollsInVain(place);
            place.slept(slept);
        }
        EXPECT_LE(spells, most) << slept;
        auto const pollsAfterShortSleep = [&] {
            place.slept(50'000);
            return polls(place);
        };
        EXPECT_TRUE(testsupport::eventually(pollsAfterShortSleep));
    }
}

TEST(AdaptiveWait, stopsPollingInTheProcessWhenOthersNeedTheProcessors) {
    EXPECT_TRUE(testsupport::eventually([] {
        yieldsForLong();
        yieldsForLong();
        AdaptiveWait elsewhere;
        return !polls(elsewhere);
    }));
    AdaptiveWait elsewhere;
    EXPECT_TRUE(pollsBeforeLong(elsewhere));
}

TEST(AdaptiveWait, canBeTurnedOff) {
    AdaptiveWait place;
    AdaptiveWait::enable(false);
    EXPECT_FALSE(AdaptiveWait::enabled());
    EXPECT_FALSE(polls(place));
    AdaptiveWait::enable(true);
    EXPECT_TRUE(pollsBeforeLong(place));
}

TEST(AdaptiveWait, neverPollsUnderARealTimePolicy) {
    bool permitted = false;
    int spells = 0;
    std::thread([&] {
        sched_param parameters{};
        parameters.sched_priority = 1;
        permitted = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0;
        AdaptiveWait place;
        for (int wait = 0; permitted && wait < 100; ++wait)
            spells += pollsInVain(place);
    }).join();
    if (!permitted)
        GTEST_SKIP() << "this process may not use real-time policies";
    EXPECT_EQ(spells, 0);
}
