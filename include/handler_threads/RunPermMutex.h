#pragma once

#include "oswrap/Export.h"
#include "oswrap/Mutex.h"

namespace OSWrap {

/**
 * A mutex whose `lock` always gives one level of the run permission back first and takes it again
 * once the mutex is locked, so that others get their turn even when the mutex is free. No
 * cancellation point.
 */
class REFLECTORB_API OSW_CAPABILITY("mutex") RunPermMutex {
public:
    RunPermMutex();
    virtual ~RunPermMutex();
    RunPermMutex(RunPermMutex const&) = delete;
    RunPermMutex& operator=(RunPermMutex const&) = delete;

    /** Gives one level of the run permission back, locks the mutex, and takes the level again. */
    virtual void lock() OSW_ACQUIRE();
    /** True when the mutex was free and is now locked; does not touch the permission. */
    virtual bool trylock() OSW_TRY_ACQUIRE(true);
    /** By the thread that locked it; does not touch the permission. */
    virtual void unlock() OSW_RELEASE();

private:
    Mutex mutex_;
};

}  // namespace OSWrap
