#pragma once

#include <atomic>
#include <vector>

#include "oswrap/Export.h"
#include "oswrap/Mutex.h"

namespace handlerthreads {

struct ParkingPlace;
struct PermissionWaiter;
struct WaitAtFront;

/** Who has the run permission and who waits for it, for diagnostics. Threads by the kernel's
 * numbers. A value. */
struct PermissionGlimpse {
    long holder = 0;           ///< 0: nobody
    unsigned long levels = 0;  ///< that it holds
    std::vector<long> queue;   ///< in their order
};

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
     * 4). Call with no lock held that the holder of the token may want.
     */
    void get();
    /** The same with an entry that has been queued by `enter`, or left to another thread to be. */
    void get(PermissionWaiter& waiter);
    /**
     * The first half of `get`, which never waits: a thread can thus take its place in the queue
     * while it holds the lock under which that place is due to it. True when it has the token now.
     * Else its entry is queued, and `get(waiter)` waits for the turn.
     *
     * Who holds the token already asks for its next turn: instead of `release` followed by `get`
     * where that would change nothing but the thread that goes on. True when nobody is queued, or
     * when the front of the queue belongs to the same pool as the entry: that one gets the caller's
     * work and place in exchange for its own, and the caller goes on with what its TurnExchange now
     * holds. Else the entry is queued, and `release` comes before `get(waiter)`. A holder of
     * several levels, which a release would not end, goes on.
     */
    bool enter(PermissionWaiter& waiter);
    /** Queues another thread's entry, which that thread has left for this, or gives it the free
     * token at once. The entry may be gone when this returns. Never waits. */
    void queue(PermissionWaiter& waiter);
    /** For a thread that has been cancelled while its entry was left or queued: takes it out of the
     * queue, and passes the token on if it has just been given. */
    void leaveQueue(PermissionWaiter& waiter);
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
    /** Any thread; the longest queues are cut. */
    PermissionGlimpse glimpse();

private:
    bool tryTake(unsigned long id, long tid);
    void addLevel();
    void waitForTurn(PermissionWaiter& waiter);
    bool enqueueUnlessFree(PermissionWaiter& waiter);
    bool goOnOrEnqueue(PermissionWaiter& waiter);
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
