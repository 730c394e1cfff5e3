#pragma once

#include "oswrap/Export.h"
#include "oswrap/Mutex.h"

/** A recursive mutex for code that runs under the run permission: like TreflectMutex, on a counted
 * mutex. */
class REFLECTORB_API OSW_CAPABILITY("mutex") TreflectCountedMutex {
public:
    TreflectCountedMutex();
    virtual ~TreflectCountedMutex();
    TreflectCountedMutex(TreflectCountedMutex const&) = delete;
    TreflectCountedMutex& operator=(TreflectCountedMutex const&) = delete;

    /** Locks the mutex once more; when it has to wait for that, with a level of the permission
     * given up. */
    virtual void lock() OSW_ACQUIRE();
    /** True when the mutex was free or the caller's own, and is now locked once more. */
    virtual bool trylock() OSW_TRY_ACQUIRE(true);
    /** Undoes one `lock` of the calling thread; does not touch the permission. */
    virtual void unlock() OSW_RELEASE();
    /** Number of `lock` calls not yet undone, 0 when free. */
    unsigned long count() const { return mutex_.count(); }

private:
    OSWrap::CountedMutex mutex_;
};
