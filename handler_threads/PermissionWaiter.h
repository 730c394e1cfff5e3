// A thread's entry in the queue for the run permission.
#pragma once

#include <atomic>

#include "handler_threads/ThreadRecord.h"
#include "handler_threads/TurnExchange.h"
#include "oswrap/Clock.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"

namespace handlerthreads {

/** How long a thread has been the first in the queue, and whom it waits for there. */
struct WaitAtFront {
    OSWrap::TimeSpec since;    // 0: was never at the front
    unsigned long holder = 0;  // who held the token then
    long holderTid = 0;        // 0: was not known then
};

/**
 * A thread's entry in the queue for the permission; lies on the waiting thread's stack. Usually the
 * thread queues itself. A thread that goes to sleep for something else, and needs the permission
 * when that has come, may leave its entry to whoever brings it: that one queues the entry
 * (HandlerThreads::queue), and the sleeper is woken once, with the permission granted.
 *
 * Others touch the entry only while it is left to them or queued, under the queue's mutex; raising
 * it to `Granted` is the last they do with it.
 *
 *     Left --queued--> Queued --all before it have gone--> Front --token handed over--> Granted
 *                        ^--------work exchanged-----------'
 */
struct PermissionWaiter {
    enum Stage : int { Left, Queued, Front, Granted };

    /** Of the calling thread. `work`: of a thread of a pool, with whom another one may exchange it
     * while the entry is queued; else null. */
    explicit PermissionWaiter(TurnExchange* work = nullptr)
        : id(currentThread().id),
          tid(currentThread().tid),
          place(currentThread().parkingPlace()),
          turn(work) {}
    PermissionWaiter(PermissionWaiter const&) = delete;
    PermissionWaiter& operator=(PermissionWaiter const&) = delete;

    /** The place to signal; this entry may be gone when it answers. */
    ParkingPlace* change(Stage to) {
        ParkingPlace& sleeper = place;
        OSWrap::Lock<OSWrap::ConditionVar> const lock(sleeper.condition);
        stage.store(to, std::memory_order_release);
        return &sleeper;
    }
    /** The thread need not be woken for this: what it does at the front is tell how long it waits,
     * and for whom. */
    void moveToFront(unsigned long holderId, long holderTid) {
        wait = {OSWrap::Clock::getObsTime(), holderId, holderTid};
        stage.store(Front, std::memory_order_release);
    }
    bool exchangesWith(PermissionWaiter const& other) const {
        return turn && other.turn && turn->samePool(*other.turn);
    }
    bool reached(Stage which) const { return stage.load(std::memory_order_acquire) >= which; }
    /** Sleeps once, unless the stage has been reached; whether it has. A cancellation point. */
    bool sleep(Stage until, OSWrap::TimeSpec const& limit) {
        OSWrap::Lock<OSWrap::ConditionVar> const lock(place.condition);
        if (!reached(until))
            place.condition.wait(limit);
        return reached(until);
    }

    unsigned long const id;
    long const tid;
    ParkingPlace& place;
    TurnExchange* const turn;  // what it does next, exchanged under the queue's mutex; may be null
    PermissionWaiter* previous = nullptr;  // guarded by the queue's mutex
    PermissionWaiter* next = nullptr;      // guarded by the queue's mutex
    WaitAtFront wait;  // guarded by the queue's mutex until the token is granted, then the owner's
    std::atomic<int> stage{Left};        // to `Granted` under the mutex of `place`, else under the
                                         // queue's; read without
    std::atomic<unsigned> exchanges{0};  // of its work; counted under the queue's mutex
};

}  // namespace handlerthreads
