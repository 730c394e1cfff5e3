#pragma once

#include <pthread.h>

#include <atomic>

#include "oswrap/Export.h"
#include "oswrap/ThreadAnnotations.h"

namespace OSWrap {

/** A plain mutex, not recursive. `lock` is no cancellation point. One of static storage can be used
 * before and while other static objects are built; keep it out of reach of static destruction by
 * never destroying what owns it. */
class REFLECTORB_API OSW_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() = default;
    ~Mutex();
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    /** Waits until the mutex is free. A thread that holds it already waits for ever. */
    void lock() OSW_ACQUIRE();
    /** True when the mutex was free and is now held. */
    bool trylock() OSW_TRY_ACQUIRE(true);
    /** By the thread that locked it. */
    void unlock() OSW_RELEASE();
    /** For the system's own scoped locks; the owner of the mutex keeps it. */
    pthread_mutex_t* native() { return &mutex_; }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

/** A recursive mutex that knows how often its owner has locked it. */
class REFLECTORB_API OSW_CAPABILITY("mutex") CountedMutex {
public:
    CountedMutex();
    ~CountedMutex();
    CountedMutex(CountedMutex const&) = delete;
    CountedMutex& operator=(CountedMutex const&) = delete;

    /** Waits until the mutex is free or the caller's own; counts one up. No cancellation point. */
    void lock() OSW_ACQUIRE();
    /** True when the mutex was free or the caller's own, and is now locked once more. */
    bool trylock() OSW_TRY_ACQUIRE(true);
    /** Counts one down; the mutex is free when it comes to 0. By its owner. */
    void unlock() OSW_RELEASE();
    /** Number of `lock` calls not yet undone, 0 when free. Any thread may ask; only the owner's
     * answer stays true. */
    unsigned long count() const { return count_.load(std::memory_order_relaxed); }

private:
    pthread_mutex_t mutex_;
    std::atomic<unsigned long> count_{0};  // changed only by the owner
};

}  // namespace OSWrap
