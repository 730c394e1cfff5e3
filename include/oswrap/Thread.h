#pragma once

#include <pthread.h>

#include <cstddef>
#include <string>

#include "oswrap/Export.h"

namespace OSWrap {

/** A thread's priority within its scheduling policy, as the platform counts it. */
class Priority {
public:
    constexpr explicit Priority(int value) : value_(value) {}
    constexpr int value() const { return value_; }

private:
    int value_;
};

/** A scheduling policy by its number at the operating system (0: the ordinary time sharing). */
class SchedulingPolicy {
public:
    constexpr explicit SchedulingPolicy(int value) : value_(value) {}
    constexpr int value() const { return value_; }

private:
    int value_;
};

/**
 * A thread whose body is the virtual `run`. A resource: neither copied nor moved. The owner starts
 * it once and joins it, unless it deletes itself at its end (deleteOnThreadTermination). A started
 * thread blocks all signals. A priority or policy that the process may not set is logged once at
 * level 5 and ignored.
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

    /** Marks the object as heap allocated and deletes it when `run` has returned. Call before
     * `start`; afterwards the starter does not touch the object again. */
    void deleteOnThreadTermination() { deleteAtEnd_ = true; }
    /** False, with a log line at level 3, when the operating system has no thread to give; the
     * object is then still the caller's. */
    bool start();
    /** Waits for the end of `run`. No effect on a detached or never started thread. */
    void join();

    /** Numbers threads of this process from 1; never given twice, never 0. */
    static unsigned long getCurrentId();
    /** The kernel's thread id of the caller. */
    static long getCurrentTid();
    /** A cancellation point. Interrupted sleeps are resumed. */
    static void sleep(unsigned int seconds, unsigned long nanoseconds);

protected:
    /** The body; its result is of no account. */
    virtual int run() = 0;

private:
    static void* enter(void* self);
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
