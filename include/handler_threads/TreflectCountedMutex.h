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

    virtual void lock() OSW_ACQUIRE();
    /** True when the mutex was free or the caller's own, and is now locked once more. */
    virtual bool trylock() OSW_TRY_ACQUIRE(true);
    virtual void unlock() OSW_RELEASE();
    /** Number of `lock` calls not yet undone, 0 when free. */
    unsigned long count() const { return mutex_.count(); }

private:
    OSWrap::CountedMutex mutex_;
};
