#pragma once

#include <pthread.h>

#include <cstddef>
#include <string>

#include "oswrap/Export.h"

namespace OSWrap {

/** A thread's priority within its scheduling policy, as the platform counts it. */
class Priority {
public:
    /** Any number; of those that the process may not set, the first is logged at level 5. */
    constexpr explicit Priority(int value) : value_(value) {}
    constexpr int value() const { return value_; }  ///< the number as the operating system takes it

private:
    int value_;
};

/** A scheduling policy by its number at the operating system (0: the ordinary time sharing). */
class SchedulingPolicy {
public:
    /** Likewise. */
    constexpr explicit SchedulingPolicy(int value) : value_(value) {}
    constexpr int value() const { return value_; }  ///< the number as the operating system takes it

private:
    int value_;
};

/**
 * A thread whose body is the virtual `run`. A resource: neither copied nor moved. The owner starts
 * it once and joins it, unless it deletes itself at its end (deleteOnThreadTermination).
 *
 * A started thread bears `name` (its first 15 characters are what the kernel shows) and blocks all
 * signals, so that the process's handlers run on threads of the program. Open are only those that
 * its own faults raise (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS): a fault whose signal is
 * blocked ends the process without its handler being asked, and application code runs on these
 * threads, whose crashes the program's crash handler must see. `priority` counts in a real-time
 * policy only; the kernel's other policies know a single one. A priority or policy that the process
 * may not set is logged once per process at level 5 and ignored.
 *
 * A thread may be cancelled (pthread_cancel) while it is in `run`: it unwinds through it, objects
 * on its stack are destroyed, and the object is deleted as after a return. Once `run` is over
 * cancellation is disabled. Nothing that `run` throws may leave it.
 */
class REFLECTORB_API Thread {
public:
    /**
     * `stackSize` in bytes is a minimum for 32-bit code: four times that is used on 64 bit, eight
     * times under sanitizers. `detached`: nobody will join it.
     */
    Thread(char const* name, Priority priority, SchedulingPolicy policy, std::size_t stackSize,
           bool detached = false);
    /** Joins a started, joinable thread that has not been joined. */
    virtual ~Thread();
    Thread(Thread const&) = delete;
    Thread& operator=(Thread const&) = delete;

    /** Marks the object as heap allocated and deletes it when `run` has returned or was cancelled;
     * nobody can join it. Call before `start`; when that has answered true, the starter does not
     * touch the object again. */
    void deleteOnThreadTermination() { deleteAtEnd_ = true; }
    /** False, with a log line at level 3, when the operating system has no thread to give; the
     * object is then still the caller's. */
    bool start();
    /** As `start`, but logs nothing, for those who hold a lock: 0, or the operating system's error
     * number. */
    int startQuietly();
    /** Waits for the end of `run`; no cancellation point. No effect on a detached, never started or
     * already joined thread. The owner's thread only. */
    void join();

    /** Numbers threads of this process from 1, in the order in which they ask first; never given
     * twice, never 0, the same for as long as the thread lives, in its thread-specific destructors
     * too. Costs a few instructions. Any thread, not only those of this class. */
    static unsigned long getCurrentId();
    /** The kernel's thread id of the caller, remembered, so that asking needs no system call. */
    static long getCurrentTid();
    /** A cancellation point. Interrupted sleeps are resumed. `nanoseconds` may exceed a second. */
    static void sleep(unsigned int seconds, unsigned long nanoseconds);

protected:
    /** The body; its result is of no account. */
    virtual int run() = 0;

private:
    struct EndOfThread;

    static void* enter(void* self);
    bool joinableOnceStarted() const { return !detached_ && !deleteAtEnd_; }
    int create(pthread_t& handle);
    void applyScheduling() const;

    std::string const name_;
    Priority const priority_;
    SchedulingPolicy const policy_;
    std::size_t const stackSize_;
    bool const detached_;
    bool deleteAtEnd_ = false;  // set before start, constant afterwards
    bool joinable_ = false;     // owner's thread only
    pthread_t handle_{};        // valid while joinable_
};

/** A thread that runs a member function of an object it does not own. */
template <class T>
class MethodThread : public Thread {
public:
    /** A thread that will call `method` of `object`, which must live until it has ended; the
     * rest as for Thread. */
    MethodThread(T& object, void (T::*method)(), char const* name, Priority priority,
                 SchedulingPolicy policy, std::size_t stackSize, bool detached = false)
        : Thread(name, priority, policy, stackSize, detached), object_(object), method_(method) {}
    ~MethodThread() override { join(); }

protected:
    int run() override {
        (object_.*method_)();
        return 0;
    }

private:
    T& object_;
    void (T::*const method_)();
};

}  // namespace OSWrap
