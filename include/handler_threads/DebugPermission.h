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
    /** The same for a thread of a pool: while it is queued, another one may exchange work with it.
     */
    void get(TurnExchange& turn) { queue_.get(&turn); }
    /** The same with an entry that has been left to another thread to be queued. */
    void get(handlerthreads::PermissionWaiter& waiter) { queue_.get(waiter); }
    /** Queues another thread's entry, which that thread has left for this. */
    void queue(handlerthreads::PermissionWaiter& waiter) { queue_.queue(waiter); }
    /** Takes a cancelled thread's entry out of the queue. */
    void leaveQueue(handlerthreads::PermissionWaiter& waiter) { queue_.leaveQueue(waiter); }
    /** Goes on with the next turn of the pool where that changes nothing but the thread. */
    bool exchangeTurn(TurnExchange& mine) { return queue_.exchangeTurn(mine); }
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

private:
    template <template <class> class, template <class> class, class>
    friend class HandlerThreads;
    DebugPermission() = default;

    handlerthreads::PermissionQueue queue_;
};

extern template class DebugPermission<Debugging_t<1>>;
