#pragma once

#include "handler_threads/Debugging.h"
#include "handler_threads/PermissionQueue.h"
#include "oswrap/Export.h"

/**
 * Permission policy of HandlerThreads: the token of PermissionQueue, whose operations have their
 * meaning there, with diagnostics. One object per process, made by HandlerThreads and never
 * destroyed. Any thread may call anything.
 */
template <class Debugging>
class REFLECTORB_API DebugPermission {
public:
    DebugPermission(DebugPermission const&) = delete;
    DebugPermission& operator=(DebugPermission const&) = delete;

    /** Logs which permission is in use (level 5). */
    void init(Debugging) const { handlerthreads::PermissionQueue::announce(); }
    /** Takes the token, or one more level of it, waiting for its turn. */
    void get() { queue_.get(); }
    /** The same with an entry that has been queued by `enter`, or left to another thread to be. */
    void get(handlerthreads::PermissionWaiter& waiter) { queue_.get(waiter); }
    /** Asks for the token, or for the next turn with it, without waiting. */
    bool enter(handlerthreads::PermissionWaiter& waiter) { return queue_.enter(waiter); }
    /** Queues another thread's entry, which that thread has left for this. */
    void queue(handlerthreads::PermissionWaiter& waiter) { queue_.queue(waiter); }
    /** Takes a cancelled thread's entry out of the queue. */
    void leaveQueue(handlerthreads::PermissionWaiter& waiter) { queue_.leaveQueue(waiter); }
    /** Gives back one level, with the last one the token. */
    void release() { queue_.release(); }
    /** Clean-up of a cancelled `get` of the DebugPermission `self`; no effect when that is null. */
    static void removeId(void* self) {
        if (self)
            handlerthreads::PermissionQueue::removeId(&static_cast<DebugPermission*>(self)->queue_);
    }
    /** Levels that the holder has; 0 when the token is free. */
    unsigned long count() const { return queue_.count(); }
    /** Thread id of the holder, 0 when the token is free. */
    unsigned long getOwner() const { return queue_.getOwner(); }
    /** Number of threads that are queued, for diagnostics. */
    unsigned long waiting() const { return queue_.waiting(); }
    /** Who holds it and who is queued, at one moment. Any thread. */
    handlerthreads::PermissionGlimpse glimpse() { return queue_.glimpse(); }

private:
    template <template <class> class, template <class> class, class>
    friend class HandlerThreads;
    DebugPermission() = default;

    handlerthreads::PermissionQueue queue_;
};

extern template class DebugPermission<Debugging_t<1>>;
