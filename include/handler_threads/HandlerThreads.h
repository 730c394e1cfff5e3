#pragma once

#include <pthread.h>

#include "handler_threads/DebugPermission.h"
#include "handler_threads/Debugging.h"
#include "handler_threads/SetContainer.h"
#include "oswrap/Export.h"

/**
 * Has the application code of a process run one thread at a time. Threads that run such code enter
 * handler state; only threads in handler state are given the run permission, in arrival order.
 * `Container` records who is in handler state, `Permission` is the token, `Debugging` turns the
 * diagnostics on.
 *
 * One object per process (TreflectRunPermission::handlerThreads), never destroyed. Any thread may
 * call any operation; misuse is logged and tolerated. A thread that ends comes out of handler state
 * and gives up the permission by itself.
 */
template <template <class> class Container, template <class> class Permission, class Debugging>
class REFLECTORB_API HandlerThreads {
public:
    HandlerThreads(HandlerThreads const&) = delete;
    HandlerThreads& operator=(HandlerThreads const&) = delete;

    /** Logs that diagnostics are on (level 4). */
    void init(Debugging) const;

    /** Enters handler state (may be nested) and, if asked to, takes the permission. A cancellation
     * point when it has to wait. */
    void enter(bool getPermission);
    /**
     * Leaves handler state once. With `releasePermission` one level of the permission is given back
     * before. Whatever the thread then still holds is reported (level 3, with a backtrace) and
     * given back.
     */
    void leave(bool releasePermission);
    /** Reports, at most three times in a thread's life, that the thread makes a remote call without
     * the permission (level 3, with a backtrace). Never blocks. */
    void check();
    void check(Debugging);
    /** Takes the permission, or one more level of it. A thread outside handler state does not get
     * it, which is reported at most three times in its life (level 4). A cancellation point when it
     * has to wait. */
    void getPermission();
    void getPermission(Debugging);
    /** Takes the permission with an entry that has been queued by `enterQueue`, or left to another
     * thread to be; see PermissionQueue::get. For threads in handler state. */
    void getPermission(handlerthreads::PermissionWaiter& waiter);
    /** Asks for the permission, or for the next turn with it, without waiting: true when the thread
     * has it; see PermissionQueue::enter. For threads in handler state. */
    bool enterQueue(handlerthreads::PermissionWaiter& waiter);
    /** Queues another thread's entry for it; see PermissionQueue::queue. */
    void queue(handlerthreads::PermissionWaiter& waiter);
    /** See PermissionQueue::leaveQueue. */
    void leaveQueue(handlerthreads::PermissionWaiter& waiter);
    /** Gives back one level of the permission; no effect on a thread outside handler state. */
    void releasePermission();
    /** Takes the permission if the thread is in handler state; false, without effect, if not. */
    bool retrievePermission();
    /** Destructor of the thread-specific key: undoes what an ending thread left behind. `instance`
     * is the HandlerThreads object. */
    static void releaseOnThreadTermination(void* instance);
    /** Whether the calling thread is in handler state. */
    bool isHandler() const;
    /** Whether the calling thread holds the permission. */
    bool hasPermission() const;
    /** Number of nested handler states of all threads together. */
    unsigned long size() const { return container_.size(); }
    /** Levels of the permission that its holder has, 0 when it is free. */
    unsigned long getPermissionCount() const { return permission_.count(); }
    /** Thread id of the permission's holder, 0 when it is free. */
    unsigned long getPermissionOwner() const { return permission_.getOwner(); }
    /** Number of threads that are queued for the permission, for diagnostics. */
    unsigned long getPermissionWaiters() const { return permission_.waiting(); }
    /** Who has the permission and who waits for it, for diagnostics. */
    handlerthreads::PermissionGlimpse glimpse() { return permission_.glimpse(); }

private:
    friend class TreflectRunPermission;
    HandlerThreads();
    void announce() const;
    void watchThreadEnd();

    Container<Debugging> container_;
    Permission<Debugging> permission_;
    pthread_key_t threadEndKey_{};  // constant after construction
    bool threadEndsSeen_ = false;   // whether there is such a key; constant after construction
};

/** The combination that is built. */
using TreflectHandlerThreads = HandlerThreads<SetContainer, DebugPermission, Debugging_t<1>>;

extern template class HandlerThreads<SetContainer, DebugPermission, Debugging_t<1>>;
