// The permission policy: the token and its queue.
#include "handler_threads/DebugPermission.h"

#include <pthread.h>

#include "handler_threads/HTUtil.h"
#include "handler_threads/ThreadRecord.h"
#include "handler_threads/TurnExchange.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"
#include "transport/IdInfo.h"

using handlerthreads::currentThread;
using handlerthreads::ParkingPlace;
using handlerthreads::ThreadRecord;

namespace {

constexpr OSWrap::TimeSpec kReportInterval{1, 0};
// A wait longer than this is given up in a build whose misuse ends the process.
constexpr unsigned long kPatience = 29;  // seconds

char const* actor() {
    return Transport::IdInfo::instance().getActor().c_str();
}

/** The log lines of one wait at the front of the queue. The one waited for is the holder at the
 * wait's beginning: nobody else gets the token before the front. When the waiting thread's work is
 * exchanged, that wait is over and another one begins. */
class WaitReport {
public:
    WaitReport(unsigned long holder, std::atomic<long> const& holderTid)
        : holder_(holder),
          holderTid_(holderTid),
          awaitedTid_(holderTid.load(std::memory_order_relaxed)) {}

    /** After a sleep without success. */
    void stillWaiting() {
        OSWrap::TimeSpec const now = lookAtClock();
        // A holder that had only just taken the token may not have told its number at first.
        if (awaitedTid_ == 0)
            awaitedTid_ = holderTid_.load(std::memory_order_relaxed);
        if (HTUtil::willabort() && elapsed_ > kPatience)
            giveUp();
        else if (now - lastReport_ >= kReportInterval) {
            tell();
            lastReport_ = now;
        }
    }

    /** At the end of a wait that slept; its length in nanoseconds. */
    long long granted() {
        OSWrap::TimeSpec const now = lookAtClock();
        if (elapsed_ >= 1) {
            OSWrap::DisableCancelStateGuard const noCancel;
            REFLECTORB_LOG(5, "REFLECT_orb",
                           "%s::getRunPermission(thread=%ld) got mutex from thread %ld %s after "
                           "%lus",
                           actor(), currentThread().tid, awaitedTid_,
                           HTUtil::getName(holder_).c_str(), elapsed_);
        }
        return (now - start_).totalNanoseconds();
    }

private:
    OSWrap::TimeSpec lookAtClock() {
        OSWrap::TimeSpec const now = OSWrap::Clock::getObsTime();
        elapsed_ = static_cast<unsigned long>((now - start_).seconds());
        return now;
    }

    void tell() const {
        OSWrap::DisableCancelStateGuard const noCancel;
        REFLECTORB_LOG(5, "REFLECT_orb",
                       "%s::getRunPermission(thread=%ld) waiting for thread %ld %s since %lus",
                       actor(), currentThread().tid, awaitedTid_, HTUtil::getName(holder_).c_str(),
                       elapsed_);
    }

    void giveUp() const {
        OSWrap::DisableCancelStateGuard const noCancel;
        REFLECTORB_LOG(5, "REFLECT_orb",
                       "%s::getRunPermission(thread=%ld) waiting for thread %ld %s since %lus. "
                       "Giving up",
                       actor(), currentThread().tid, awaitedTid_, HTUtil::getName(holder_).c_str(),
                       elapsed_);
        HTUtil::testabort();
    }

    unsigned long const holder_;
    std::atomic<long> const& holderTid_;
    long awaitedTid_;
    OSWrap::TimeSpec const start_ = OSWrap::Clock::getObsTime();
    OSWrap::TimeSpec lastReport_ = start_;
    unsigned long elapsed_ = 0;  // whole seconds
};

}  // namespace

/**
 * A thread's entry in the queue; lies on the waiting thread's stack. Others touch it only while it
 * is queued, under the queue's mutex; raising it to `granted` is the last they do with it.
 *
 *     queued --(all before it have gone)--> front --(token handed to it)--> granted
 *        ^-------(work exchanged)-------------'
 */
template <class Debugging>
struct DebugPermission<Debugging>::Waiter {
    enum Stage : int { queued, front, granted };

    Waiter(ThreadRecord& thread, TurnExchange* work)
        : id(thread.id), tid(thread.tid), place(thread.parkingPlace()), turn(work) {}

    /** The place to signal; this entry may be gone when it answers. */
    ParkingPlace* change(Stage to) {
        ParkingPlace& sleeper = place;
        OSWrap::Lock<OSWrap::ConditionVar> const lock(sleeper.condition);
        stage.store(to, std::memory_order_release);
        return &sleeper;
    }
    bool exchangesWith(TurnExchange const& other) const { return turn && turn->samePool(other); }
    bool reached(Stage which) const { return stage.load(std::memory_order_acquire) >= which; }
    /** Sleeps once, unless the stage has been reached; whether it has. */
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
    Waiter* previous = nullptr;          // guarded by the queue's mutex
    Waiter* next = nullptr;              // guarded by the queue's mutex
    std::atomic<int> stage{queued};      // changed under the mutex of `place`, polled without
    std::atomic<unsigned> exchanges{0};  // of its work; counted under the queue's mutex
};

template <class Debugging>
void DebugPermission<Debugging>::WakeUp::perform() const {
    if (granted)
        granted->condition.signal();
    if (front)
        front->condition.signal();
}

template <class Debugging>
void DebugPermission<Debugging>::init(Debugging) const {
    REFLECTORB_LOG(5, "REFLECT_orb", "ORB HandlerThreads using DebugPermission");
}

template <class Debugging>
void DebugPermission<Debugging>::get() {
    take(nullptr);
}

template <class Debugging>
void DebugPermission<Debugging>::get(TurnExchange& turn) {
    take(&turn);
}

template <class Debugging>
void DebugPermission<Debugging>::take(TurnExchange* turn) {
    OSWrap::DeferredCancelTypeGuard const deferred;
    if (getOwner() != currentThread().id && !tryTake())
        waitForTurn(turn);
    // From here on there is no cancellation point: token and count are taken together.
    unsigned long const levels = count() + 1;
    count_.store(levels, std::memory_order_relaxed);
    if (levels > 1)
        reportFurtherLevel(levels);
}

template <class Debugging>
void DebugPermission<Debugging>::reportFurtherLevel(unsigned long levels) const {
    OSWrap::DisableCancelStateGuard const noCancel;
    ThreadRecord const& me = currentThread();
    REFLECTORB_LOG(4, "REFLECT_orb", "RunPermission %lu by thread %ld %s", levels, me.tid,
                   HTUtil::getName(me.id).c_str());
    HTUtil::printBacktrace("Multiple RunPermission");
    HTUtil::testabort();
}

template <class Debugging>
bool DebugPermission<Debugging>::tryTake() {
    ThreadRecord const& me = currentThread();
    unsigned long expected = 0;
    if (!word_.compare_exchange_strong(expected, me.id, std::memory_order_acquire,
                                       std::memory_order_relaxed))
        return false;
    ownerTid_.store(me.tid, std::memory_order_relaxed);
    return true;
}

template <class Debugging>
void DebugPermission<Debugging>::waitForTurn(TurnExchange* turn) {
    Waiter waiter(currentThread(), turn);
    if (!enqueueUnlessFree(waiter))
        return;
    currentThread().waiter = &waiter;
    pthread_cleanup_push(removeId, this);
    awaitGrant(waiter);
    pthread_cleanup_pop(0);
    currentThread().waiter = nullptr;
}

/** False when the token turned out to be free: then the caller holds it and is not queued. */
template <class Debugging>
bool DebugPermission<Debugging>::enqueueUnlessFree(Waiter& waiter) {
    OSWrap::Lock<> const lock(queueMutex_);
    unsigned long word = word_.load(std::memory_order_relaxed);
    while (!(word & kSomebodyQueued)) {
        if (word == 0 && tryTake())
            return false;
        if (word != 0 &&
            word_.compare_exchange_weak(word, word | kSomebodyQueued, std::memory_order_relaxed))
            break;
        word = word_.load(std::memory_order_relaxed);
    }
    append(waiter);
    return true;
}

template <class Debugging>
void DebugPermission<Debugging>::append(Waiter& waiter) {
    waiter.previous = back_;
    waiter.next = nullptr;
    (back_ ? back_->next : front_) = &waiter;
    back_ = &waiter;
    waiting_.fetch_add(1, std::memory_order_relaxed);
    if (front_ == &waiter)
        waiter.stage.store(Waiter::front, std::memory_order_relaxed);
}

/** Only the front polls and reports. The others sleep until they move up, and look now and then
 * whether they have done so without being woken. */
template <class Debugging>
void DebugPermission<Debugging>::awaitGrant(Waiter& waiter) {
    while (!waiter.reached(Waiter::granted)) {
        while (!waiter.sleep(Waiter::front, kReportInterval)) {
        }
        awaitGrantAtFront(waiter);
    }
}

/** Returns when the token has been granted, or when the thread's work has been exchanged: it then
 * waits for something else, and perhaps not at the front. */
template <class Debugging>
void DebugPermission<Debugging>::awaitGrantAtFront(Waiter& waiter) {
    unsigned const exchanges = waiter.exchanges.load(std::memory_order_relaxed);
    WaitReport report(getOwner(), ownerTid_);
    if (frontWait_.poll([&waiter] { return waiter.stage != Waiter::front; }))
        return;
    auto const exchanged = [&waiter, exchanges] {
        return waiter.exchanges.load(std::memory_order_relaxed) != exchanges;
    };
    while (!waiter.sleep(Waiter::granted, kReportInterval)) {
        if (exchanged())
            return;
        report.stillWaiting();
    }
    if (!exchanged())
        frontWait_.slept(report.granted());
}

template <class Debugging>
void DebugPermission<Debugging>::release() {
    OSWrap::DisableCancelStateGuard const noCancel;
    ThreadRecord const& me = currentThread();
    if (getOwner() != me.id) {
        REFLECTORB_LOG(3, "REFLECT_orb",
                       "%s::releaseRunPermission(thread=%ld) called without being owner", actor(),
                       me.tid);
        return;
    }
    unsigned long const levels = count();
    if (levels > 1) {
        count_.store(levels - 1, std::memory_order_relaxed);
        return;
    }
    count_.store(0, std::memory_order_relaxed);
    ownerTid_.store(0, std::memory_order_relaxed);
    unsigned long expected = me.id;
    if (!word_.compare_exchange_strong(expected, 0, std::memory_order_release,
                                       std::memory_order_relaxed))
        handOver();
}

template <class Debugging>
bool DebugPermission<Debugging>::exchangeTurn(TurnExchange& mine) {
    if (getOwner() != currentThread().id || count() != 1)
        return false;
    WakeUp wakeUp;
    {
        OSWrap::Lock<> const lock(queueMutex_);
        if (!front_)
            return true;
        if (!front_->exchangesWith(mine))
            return false;
        Waiter& partner = *front_;
        mine.swap(*partner.turn);
        partner.exchanges.fetch_add(1, std::memory_order_relaxed);
        wakeUp = moveToBack(partner);
    }
    wakeUp.perform();
    return true;
}

/** The new front is woken to poll for its turn, unless it would only exchange that for another. */
template <class Debugging>
typename DebugPermission<Debugging>::WakeUp DebugPermission<Debugging>::moveToBack(Waiter& waiter) {
    WakeUp wakeUp;
    if (!waiter.next)
        return wakeUp;
    unlink(waiter);
    waiter.change(Waiter::queued);
    append(waiter);
    ParkingPlace* const sleeper = front_->change(Waiter::front);
    if (!front_->exchangesWith(*waiter.turn))
        wakeUp.front = sleeper;
    return wakeUp;
}

template <class Debugging>
void DebugPermission<Debugging>::handOver() {
    WakeUp wakeUp;
    {
        OSWrap::Lock<> const lock(queueMutex_);
        wakeUp = passOn();
    }
    wakeUp.perform();
}

/** Gives the token, which the caller holds, to the front of the queue, or sets it free. */
template <class Debugging>
typename DebugPermission<Debugging>::WakeUp DebugPermission<Debugging>::passOn() {
    WakeUp wakeUp;
    if (!front_) {
        ownerTid_.store(0, std::memory_order_relaxed);
        word_.store(0, std::memory_order_release);
        return wakeUp;
    }
    Waiter& successor = *front_;
    unlink(successor);
    ownerTid_.store(successor.tid, std::memory_order_relaxed);
    word_.store(successor.id | (front_ ? kSomebodyQueued : 0), std::memory_order_release);
    wakeUp.granted = successor.change(Waiter::granted);
    if (front_)
        wakeUp.front = front_->change(Waiter::front);
    return wakeUp;
}

template <class Debugging>
void DebugPermission<Debugging>::unlink(Waiter& waiter) {
    (waiter.previous ? waiter.previous->next : front_) = waiter.next;
    (waiter.next ? waiter.next->previous : back_) = waiter.previous;
    waiting_.fetch_sub(1, std::memory_order_relaxed);
}

template <class Debugging>
void DebugPermission<Debugging>::removeId(void* self) {
    ThreadRecord& me = currentThread();
    if (!self || !me.waiter)
        return;
    static_cast<DebugPermission*>(self)->leaveQueue(*static_cast<Waiter*>(me.waiter));
    me.waiter = nullptr;
}

template <class Debugging>
void DebugPermission<Debugging>::leaveQueue(Waiter& waiter) {
    WakeUp wakeUp;
    {
        OSWrap::Lock<> const lock(queueMutex_);
        wakeUp = leaveQueueLocked(waiter);
    }
    wakeUp.perform();
}

template <class Debugging>
typename DebugPermission<Debugging>::WakeUp DebugPermission<Debugging>::leaveQueueLocked(
    Waiter& waiter) {
    if (waiter.reached(Waiter::granted))
        return passOn();
    bool const wasFront = front_ == &waiter;
    unlink(waiter);
    WakeUp wakeUp;
    if (!front_)
        word_.fetch_and(~kSomebodyQueued, std::memory_order_relaxed);
    else if (wasFront)
        wakeUp.front = front_->change(Waiter::front);
    return wakeUp;
}

template class DebugPermission<Debugging_t<1>>;
