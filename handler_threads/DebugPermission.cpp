// The permission policy: the token and its queue.
#include "handler_threads/DebugPermission.h"

#include <pthread.h>

#include "handler_threads/HTUtil.h"
#include "handler_threads/PermissionWaiter.h"
#include "handler_threads/ThreadRecord.h"
#include "handler_threads/TurnExchange.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "transport/IdInfo.h"

using handlerthreads::currentThread;
using handlerthreads::ParkingPlace;
using handlerthreads::ThreadRecord;
using handlerthreads::WaitAtFront;

namespace {

constexpr OSWrap::TimeSpec kReportInterval{1, 0};
// A wait longer than this is given up in a build whose misuse ends the process.
constexpr unsigned long kPatience = 29;  // seconds
constexpr long kMoment = 50'000;         // nanoseconds

char const* actor() {
    return Transport::IdInfo::instance().getActor().c_str();
}

/** The log lines of one wait at the front of the queue. The one waited for is the holder at the
 * wait's beginning: nobody else gets the token before the front. When the waiting thread's work is
 * exchanged, that wait is over and another one begins. */
class WaitReport {
public:
    WaitReport(WaitAtFront const& wait, std::atomic<long> const& holderTid)
        : holder_(wait.holder),
          holderTid_(holderTid),
          awaitedTid_(wait.holderTid),
          start_(wait.since) {}

    /** After a sleep without success. */
    void stillWaiting() {
        OSWrap::TimeSpec const now = lookAtClock();
        // A holder that had only just taken the token may not have told its number at first.
        if (awaitedTid_ == 0)
            awaitedTid_ = holderTid_.load(std::memory_order_relaxed);
        if (now < nextReport_)
            return;
        nextReport_ = now + kReportInterval;
        if (HTUtil::willabort() && elapsed_ > kPatience)
            giveUp();
        else
            tell();
    }

    OSWrap::TimeSpec timeToNextReport() const {
        OSWrap::TimeSpec const now = OSWrap::Clock::getObsTime();
        return now < nextReport_ ? nextReport_ - now : OSWrap::TimeSpec(0, kMoment);
    }

    void granted() {
        lookAtClock();
        if (elapsed_ >= 1) {
            OSWrap::DisableCancelStateGuard const noCancel;
            REFLECTORB_LOG(5, "REFLECT_orb",
                           "%s::getRunPermission(thread=%ld) got mutex from thread %ld %s after "
                           "%lus",
                           actor(), currentThread().tid, awaitedTid_,
                           HTUtil::getName(holder_).c_str(), elapsed_);
        }
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
    OSWrap::TimeSpec const start_;
    OSWrap::TimeSpec nextReport_ = start_ + kReportInterval;
    unsigned long elapsed_ = 0;  // whole seconds
};

}  // namespace

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
    if (getOwner() != currentThread().id && !tryTake(currentThread().id, currentThread().tid)) {
        Waiter waiter(turn);
        if (enqueueUnlessFree(waiter))
            waitForTurn(waiter);
    }
    addLevel();
}

template <class Debugging>
void DebugPermission<Debugging>::get(Waiter& waiter) {
    OSWrap::DeferredCancelTypeGuard const deferred;
    waitForTurn(waiter);
    addLevel();
}

/** No cancellation point comes between this and the token's taking. */
template <class Debugging>
void DebugPermission<Debugging>::addLevel() {
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

/** For any thread. */
template <class Debugging>
bool DebugPermission<Debugging>::tryTake(unsigned long id, long tid) {
    unsigned long expected = 0;
    if (!word_.compare_exchange_strong(expected, id, std::memory_order_acquire,
                                       std::memory_order_relaxed))
        return false;
    ownerTid_.store(tid, std::memory_order_relaxed);
    return true;
}

template <class Debugging>
void DebugPermission<Debugging>::waitForTurn(Waiter& waiter) {
    currentThread().waiter = &waiter;
    pthread_cleanup_push(removeId, this);
    awaitGrant(waiter);
    pthread_cleanup_pop(0);
    currentThread().waiter = nullptr;
}

template <class Debugging>
void DebugPermission<Debugging>::queue(Waiter& waiter) {
    if (!enqueueUnlessFree(waiter))
        waiter.change(Waiter::granted)->condition.signal();
}

/** False when the token turned out to be free: then the waiter's thread holds it and is not queued.
 */
template <class Debugging>
bool DebugPermission<Debugging>::enqueueUnlessFree(Waiter& waiter) {
    OSWrap::Lock<> const lock(queueMutex_);
    unsigned long word = word_.load(std::memory_order_relaxed);
    while (!(word & kSomebodyQueued)) {
        if (word == 0 && tryTake(waiter.id, waiter.tid))
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
        moveToFront(waiter);
    else
        waiter.stage.store(Waiter::queued, std::memory_order_release);
}

template <class Debugging>
void DebugPermission<Debugging>::moveToFront(Waiter& waiter) {
    waiter.moveToFront(getOwner(), ownerTid_.load(std::memory_order_relaxed));
}

/** Only the front reports. The others are not woken when they move up; they look once per second
 * whether they have. */
template <class Debugging>
void DebugPermission<Debugging>::awaitGrant(Waiter& waiter) {
    do {
        while (!waiter.sleep(Waiter::front, kReportInterval)) {
        }
        awaitGrantAtFront(waiter);
    } while (!waiter.reached(Waiter::granted));
}

/** Returns when the token has been granted, or when the thread's work has been exchanged: it then
 * waits for something else, and perhaps not at the front. */
template <class Debugging>
void DebugPermission<Debugging>::awaitGrantAtFront(Waiter& waiter) {
    unsigned const exchanges = waiter.exchanges.load(std::memory_order_relaxed);
    auto const exchanged = [&waiter, exchanges] {
        return waiter.exchanges.load(std::memory_order_relaxed) != exchanges;
    };
    WaitReport report(waitAtFront(waiter), ownerTid_);
    while (!waiter.sleep(Waiter::granted, report.timeToNextReport())) {
        if (exchanged() || !waiter.reached(Waiter::front))
            return;
        report.stillWaiting();
    }
    if (!exchanged())
        report.granted();
}

/** Of the calling thread. Work that has been exchanged waits from now on. */
template <class Debugging>
WaitAtFront DebugPermission<Debugging>::waitAtFront(Waiter const& waiter) {
    WaitAtFront wait;
    if (waiter.reached(Waiter::granted)) {
        wait = waiter.wait;
    } else {
        OSWrap::Lock<> const lock(queueMutex_);
        wait = waiter.wait;
    }
    if (waiter.exchanges.load(std::memory_order_relaxed) != 0 || wait.since == OSWrap::TimeSpec())
        wait.since = OSWrap::Clock::getObsTime();
    return wait;
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
    OSWrap::Lock<> const lock(queueMutex_);
    if (!front_)
        return true;
    if (!front_->exchangesWith(mine))
        return false;
    Waiter& partner = *front_;
    mine.swap(*partner.turn);
    partner.exchanges.fetch_add(1, std::memory_order_relaxed);
    moveToBack(partner);
    return true;
}

template <class Debugging>
void DebugPermission<Debugging>::moveToBack(Waiter& waiter) {
    if (!waiter.next)
        return;
    unlink(waiter);
    append(waiter);
    moveToFront(*front_);
}

template <class Debugging>
void DebugPermission<Debugging>::handOver() {
    ParkingPlace* successor = nullptr;
    {
        OSWrap::Lock<> const lock(queueMutex_);
        successor = passOn();
    }
    if (successor)
        successor->condition.signal();
}

/** Gives the token, which the caller holds, to the front of the queue, or sets it free. The place
 * to signal after unlocking, if any. */
template <class Debugging>
ParkingPlace* DebugPermission<Debugging>::passOn() {
    if (!front_) {
        ownerTid_.store(0, std::memory_order_relaxed);
        word_.store(0, std::memory_order_release);
        return nullptr;
    }
    Waiter& successor = *front_;
    unlink(successor);
    ownerTid_.store(successor.tid, std::memory_order_relaxed);
    word_.store(successor.id | (front_ ? kSomebodyQueued : 0), std::memory_order_release);
    if (front_)
        moveToFront(*front_);
    return successor.change(Waiter::granted);
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

/** Of a thread that has been cancelled. Who was left to queue its entry is just about to do so. */
template <class Debugging>
void DebugPermission<Debugging>::leaveQueue(Waiter& waiter) {
    OSWrap::DisableCancelStateGuard const noCancel;
    while (!waiter.reached(Waiter::queued))
        OSWrap::Thread::sleep(0, kMoment);
    ParkingPlace* successor = nullptr;
    {
        OSWrap::Lock<> const lock(queueMutex_);
        successor = leaveQueueLocked(waiter);
    }
    if (successor)
        successor->condition.signal();
}

template <class Debugging>
ParkingPlace* DebugPermission<Debugging>::leaveQueueLocked(Waiter& waiter) {
    if (waiter.reached(Waiter::granted))
        return passOn();
    bool const wasFront = front_ == &waiter;
    unlink(waiter);
    if (!front_)
        word_.fetch_and(~kSomebodyQueued, std::memory_order_relaxed);
    else if (wasFront)
        moveToFront(*front_);
    return nullptr;
}

template class DebugPermission<Debugging_t<1>>;
