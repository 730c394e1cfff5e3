#pragma once

#include "oswrap/ConditionVar.h"
#include "oswrap/Export.h"

/**
 * A condition variable, with a mutex of its own, for code that runs under the run permission:
 * `lock` and `wait` give one level of the permission back while they block and take it again
 * afterwards, with the mutex locked. An uncontended `lock` does not touch the permission. `wait` is
 * a cancellation point: it then takes the permission back, leaves the mutex locked, and the scope
 * that locked it unlocks it.
 */
class REFLECTORB_API OSW_CAPABILITY("mutex") TreflectConditionVar {
public:
    /** `monotonic`: see OSWrap::ConditionVar. */
    explicit TreflectConditionVar(bool monotonic = true);
    virtual ~TreflectConditionVar();
    TreflectConditionVar(TreflectConditionVar const&) = delete;
    TreflectConditionVar& operator=(TreflectConditionVar const&) = delete;

    /** Locks the mutex; when it has to wait for that, with a level of the permission given up. */
    virtual void lock() OSW_ACQUIRE();
    /** True when the mutex was free and is now locked. */
    virtual bool trylock() OSW_TRY_ACQUIRE(true);
    /** By the thread that locked it; does not touch the permission. */
    virtual void unlock() OSW_RELEASE();
    /** As OSWrap::ConditionVar::wait. False when the time ran out; waiting for the permission
     * afterwards does not count. */
    virtual bool wait(OSWrap::TimeSpec const& limit) OSW_REQUIRES(this);
    /** Call with the mutex locked. */
    void signal() { condition_.signal(); }
    void broadcast() { condition_.broadcast(); }

private:
    OSWrap::ConditionVar condition_;
};
