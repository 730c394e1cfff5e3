#pragma once

#include "oswrap/ConditionVar.h"
#include "oswrap/Export.h"

namespace OSWrap {

/** A condition variable like TreflectConditionVar, but its `lock` always gives one level of the run
 * permission back first, as RunPermMutex does. */
class REFLECTORB_API OSW_CAPABILITY("mutex") RunPermConditionVar {
public:
    /** `monotonic`: see OSWrap::ConditionVar. */
    explicit RunPermConditionVar(bool monotonic = true);
    virtual ~RunPermConditionVar();
    RunPermConditionVar(RunPermConditionVar const&) = delete;
    RunPermConditionVar& operator=(RunPermConditionVar const&) = delete;

    /** Gives one level of the run permission back, locks the mutex, and takes the level again.
     * No cancellation point. */
    virtual void lock() OSW_ACQUIRE();
    /** True when the mutex was free and is now locked; does not touch the permission. */
    virtual bool trylock() OSW_TRY_ACQUIRE(true);
    /** By the thread that locked it; does not touch the permission. */
    virtual void unlock() OSW_RELEASE();
    /** As TreflectConditionVar::wait. */
    virtual bool wait(TimeSpec const& limit) OSW_REQUIRES(this);
    /** Call with the mutex locked. */
    void signal() { condition_.signal(); }
    void broadcast() { condition_.broadcast(); }

private:
    ConditionVar condition_;
};

}  // namespace OSWrap
