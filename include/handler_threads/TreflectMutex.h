#pragma once

#include "oswrap/Export.h"
#include "oswrap/Mutex.h"

/**
 * A mutex for code that runs under the run permission: `lock` gives one level of the permission
 * back while it has to block, and takes it again once the mutex is locked. An uncontended `lock`
 * does not touch the permission. No cancellation point.
 */
class REFLECTORB_API OSW_CAPABILITY("mutex") TreflectMutex {
public:
    TreflectMutex();
    virtual ~TreflectMutex();
    TreflectMutex(TreflectMutex const&) = delete;
    TreflectMutex& operator=(TreflectMutex const&) = delete;

    /** Locks the mutex; when it has to wait for that, with a level of the permission given up. */
    virtual void lock() OSW_ACQUIRE();
    /** True when the mutex was free and is now locked. */
    virtual bool trylock() OSW_TRY_ACQUIRE(true);
    /** By the thread that locked it; does not touch the permission. */
    virtual void unlock() OSW_RELEASE();

private:
    OSWrap::Mutex mutex_;
};
