#pragma once

#include "oswrap/Mutex.h"

namespace OSWrap {

/** Holds a mutex or a condition variable's mutex for a scope; exceptions and cancellation unlock
 * it. */
template <class Lockable = Mutex>
class OSW_SCOPED_CAPABILITY Lock {
public:
    /** Locks; `lockable` must outlive this. */
    explicit Lock(Lockable& lockable) OSW_ACQUIRE(lockable) : lockable_(lockable) {
        lockable_.lock();
    }
    ~Lock() OSW_RELEASE() { lockable_.unlock(); }
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;

private:
    Lockable& lockable_;
};

}  // namespace OSWrap
