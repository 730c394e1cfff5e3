#pragma once

#include <atomic>

#include "oswrap/Export.h"
#include "oswrap/Mutex.h"

class TurnExchange;

namespace handlerthreads {

struct ParkingPlace;
struct PermissionWaiter;
struct WaitAtFront;

/**
 * The run permission itself: a token that one thread at a time holds, as often as it
 * likes, and that is given to those who ask for it strictly in the order in which they asked.
 *
 * Taking the free token and giving it back with nobody queued is one atomic operation each. A
 * thread that finds the token taken queues an entry that lies on its stack. Whoever gives the token
 * back hands it to the front entry, so it is never free while somebody is queued, and wakes that
 * one. So a hand-over wakes one thread however many wait. Nobody polls for the token: the holders
 * keep it for about a microsecond, but a processor that polls is one that no holder works on.
 *
 * One object per process, part of its HandlerThreads and never destroyed. Any thread may call
 * anything.
 */
class REFLECTORB_API PermissionQueue {
public:
    PermissionQueue() = default;
    PermissionQueue(PermissionQueue const&) = delete;
    PermissionQueue& operator=(PermissionQueue const&) = delete;

    /** Logs which permission is in use (level 5). */
    static void announce();
    /**
     * Takes the token, or one more level of it, waiting for its turn. A cancellation point while it
     * waits (the cancellation type is deferred meanwhile): a cancelled thread leaves the queue, and
     * passes the token on if it has just been given. The thread at the front reports once per
     * second that it waits (level 5). Taking a further level is reported with a backtrace (level
     * 4). Call with no lock held that the holder of the token may want. `turn`: of a thread of a
     * pool, with whom another one may exchange work while it is queued; else null.
     */
    void get(TurnExchange* turn = nullptr);
    /** The same with an entry that has been left to another thread to be queued. */
    void get(PermissionWaiter& waiter);
    /** Queues another thread's entry, which that thread has left for this, or gives it the free
     * token at once. The entry may be gone when this returns. Never waits. */
    void queue(PermissionWaiter& waiter);
    /** For a thread that has been cancelled while its entry was left or queued: takes it out of the
     * queue, and passes the token on if it has just been given. */
    void leaveQueue(PermissionWaiter& waiter);
    /**
     * Instead of `release` followed by `get(mine)`, when that would change nothing but the thread
     * that goes on: true when nobody is queued, or when the front of the queue belongs to the same
     * pool, which then gets the caller's work and place in exchange for its own. The caller keeps
     * the token and goes on with what `mine` now holds. False without effect otherwise, or when the
     * caller does not hold exactly one level.
     */
    bool exchangeTurn(TurnExchange& mine);
    /** Gives back one level, with the last one the token. Reported and ignored when the caller does
     * not hold it (level 3). No cancellation point. */
    void release();
    /** Clean-up of a cancelled `get`: takes the calling thread out of the queue of the
     * PermissionQueue `self`. No effect on a thread that is not queued, or when `self` is null. */
    static void removeId(void* self);
    /** Levels that the holder has; 0 when the token is free. */
    unsigned long count() const { return count_.load(std::memory_order_relaxed); }
    /** Thread id of the holder, 0 when the token is free. Exact when the caller asks about itself;
     * about others it is a glimpse. */
    unsigned long getOwner() const {
        return word_.load(std::memory_order_relaxed) & ~kSomebodyQueued;
    }

    /** Number of threads that are queued; any thread may ask, for diagnostics. */
    unsigned long waiting() const { return waiting_.load(std::memory_order_relaxed); }

private:
    bool tryTake(unsigned long id, long tid);
    void addLevel();
    void waitForTurn(PermissionWaiter& waiter);
    bool enqueueUnlessFree(PermissionWaiter& waiter);
    void awaitGrant(PermissionWaiter& waiter);
    void awaitGrantAtFront(PermissionWaiter& waiter);
    WaitAtFront waitAtFront(PermissionWaiter const& waiter);
    void handOver();
    void append(PermissionWaiter& waiter) OSW_REQUIRES(queueMutex_);
    ParkingPlace* passOn() OSW_REQUIRES(queueMutex_);
    void moveToBack(PermissionWaiter& waiter) OSW_REQUIRES(queueMutex_);
    ParkingPlace* leaveQueueLocked(PermissionWaiter& waiter) OSW_REQUIRES(queueMutex_);
    void unlink(PermissionWaiter& waiter) OSW_REQUIRES(queueMutex_);
    void moveToFront(PermissionWaiter& waiter) OSW_REQUIRES(queueMutex_);
    void reportFurtherLevel(unsigned long levels) const;

    /// Top bit of `word_`; thread ids stay below it.
    static constexpr unsigned long kSomebodyQueued = ~(~0ul >> 1);

    /// The holder's thread id and the bit kSomebodyQueued. 0 <-> id without the lock; whatever sets
    /// or clears the bit, or puts one id in another's place, under `queueMutex_`.
    std::atomic<unsigned long> word_{0};
    std::atomic<unsigned long> count_{0};  // changed by the holder only
    std::atomic<long> ownerTid_{0};        // kernel's id of the holder, for log lines only

    /// Locked before the mutex of a waiter, after any other lock; never while waiting, waking or
    /// logging.
    OSWrap::Mutex queueMutex_;
    PermissionWaiter* front_ OSW_GUARDED_BY(queueMutex_) = nullptr;
    PermissionWaiter* back_ OSW_GUARDED_BY(queueMutex_) = nullptr;
    std::atomic<unsigned long> waiting_{0};  // changed under `queueMutex_`
};

}  // namespace handlerthreads
