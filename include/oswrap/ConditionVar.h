#pragma once

#include <pthread.h>

#include "oswrap/Mutex.h"
#include "oswrap/TimeSpec.h"

namespace OSWrap {

/**
 * A condition variable with a mutex of its own. Waits are timed by the monotonic clock and are
 * cancellation points: a cancelled `wait` leaves the mutex locked, and the scope that locked it
 * (Lock<ConditionVar>) unlocks it while the thread unwinds.
 */
class REFLECTORB_API OSW_CAPABILITY("mutex") ConditionVar {
public:
    /** With `monotonic` false, time limits run by the clock of the day and follow its being set. */
    explicit ConditionVar(bool monotonic = true);
    ~ConditionVar();
    ConditionVar(ConditionVar const&) = delete;
    ConditionVar& operator=(ConditionVar const&) = delete;

    /** Locks the mutex. No cancellation point. */
    void lock() OSW_ACQUIRE();
    /** True when the mutex was free and is now held. */
    bool trylock() OSW_TRY_ACQUIRE(true);
    /** By the thread that locked it. */
    void unlock() OSW_RELEASE();
    /**
     * Waits with the mutex given up, at most `limit` (TimeSpec::INFINITETIME: without limit).
     * False when the time ran out; spurious wake-ups answer true, so test the condition again.
     */
    bool wait(TimeSpec const& limit) OSW_REQUIRES(this);
    /** Wakes one waiter, or all. Call with the mutex locked, so that nobody signals a variable that
     * its waiter has already freed; or without, which spares the woken thread a wait for the mutex,
     * where the variable is sure to live on. */
    void signal();
    void broadcast();

private:
    pthread_mutex_t mutex_;
    pthread_cond_t condition_;
    clockid_t const clock_;
};

}  // namespace OSWrap
