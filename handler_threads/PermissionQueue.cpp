#include "handler_threads/PermissionQueue.h"

#include <pthread.h>

#include "handler_threads/HTUtil.h"
#include "handler_threads/PermissionWaitReport.h"
#include "handler_threads/PermissionWaiter.h"
#include "handler_threads/ThreadRecord.h"
#include "handler_threads/TurnExchange.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/Thread.h"
#include "transport/IdInfo.h"

namespace handlerthreads {
namespace {

constexpr long kMoment = 50'000;  // nanoseconds

}  // namespace

void PermissionQueue::announce() {
    REFLECTORB_LOG(5, "REFLECT_orb", "ORB HandlerThreads using DebugPermission");
}

void PermissionQueue::get() {
    OSWrap::DeferredCancelTypeGuard const deferred;
    if (getOwner() != currentThread().id && !tryTake(currentThread().id, currentThread().tid)) {
        PermissionWaiter waiter;
        if (enqueueUnlessFree(waiter))
            waitForTurn(waiter);
    }
    addLevel();
}

void PermissionQueue::get(PermissionWaiter& waiter) {
    OSWrap::DeferredCancelTypeGuard const deferred;
    waitForTurn(waiter);
    addLevel();
}

bool PermissionQueue::enter(PermissionWaiter& waiter) {
    if (getOwner() == waiter.id)
        return count() > 1 || goOnOrEnqueue(waiter);
    if (!tryTake(waiter.id, waiter.tid) && enqueueUnlessFree(waiter))
        return false;
    addLevel();
    return true;
}

/** No cancellation point comes between this and the token's taking. */
void PermissionQueue::addLevel() {
    unsigned long const levels = count() + 1;
    count_.store(levels, std::memory_order_relaxed);
    if (levels > 1)
        reportFurtherLevel(levels);
}

void PermissionQueue::reportFurtherLevel(unsigned long levels) const {
    OSWrap::DisableCancelStateGuard const noCancel;
    ThreadRecord const& me = currentThread();
    REFLECTORB_LOG(4, "REFLECT_orb", "RunPermission %lu by thread %ld %s", levels, me.tid,
                   HTUtil::getName(me.id).c_str());
    HTUtil::printBacktrace("Multiple RunPermission");
    HTUtil::testabort();
}

/** For any thread. */
bool PermissionQueue::tryTake(unsigned long id, long tid) {
    unsigned long expected = 0;
    if (!word_.compare_exchange_strong(expected, id, std::memory_order_acquire,
                                       std::memory_order_relaxed))
        return false;
    ownerTid_.store(tid, std::memory_order_relaxed);
    return true;
}

void PermissionQueue::waitForTurn(PermissionWaiter& waiter) {
    currentThread().waiter = &waiter;
    pthread_cleanup_push(removeId, this);
    awaitGrant(waiter);
    pthread_cleanup_pop(0);
    currentThread().waiter = nullptr;
}

void PermissionQueue::queue(PermissionWaiter& waiter) {
    if (!enqueueUnlessFree(waiter))
        waiter.change(PermissionWaiter::Granted)->condition.signal();
}

/** False when the token turned out to be free: then the waiter's thread holds it and is not queued.
 */
bool PermissionQueue::enqueueUnlessFree(PermissionWaiter& waiter) {
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

void PermissionQueue::append(PermissionWaiter& waiter) {
    waiter.previous = back_;
    waiter.next = nullptr;
    (back_ ? back_->next : front_) = &waiter;
    back_ = &waiter;
    waiting_.fetch_add(1, std::memory_order_relaxed);
    if (front_ == &waiter)
        moveToFront(waiter);
    else
        waiter.stage.store(PermissionWaiter::Queued, std::memory_order_release);
}

void PermissionQueue::moveToFront(PermissionWaiter& waiter) {
    waiter.moveToFront(getOwner(), ownerTid_.load(std::memory_order_relaxed));
}

/** Only the front reports. The others are not woken when they move up; they look once per second
 * whether they have. */
void PermissionQueue::awaitGrant(PermissionWaiter& waiter) {
    do {
        while (!waiter.sleep(PermissionWaiter::Front, PermissionWaitReport::kInterval)) {
        }
        awaitGrantAtFront(waiter);
    } while (!waiter.reached(PermissionWaiter::Granted));
}

/** Returns when the token has been granted, or when the thread's work has been exchanged: it then
 * waits for something else, and perhaps not at the front. */
void PermissionQueue::awaitGrantAtFront(PermissionWaiter& waiter) {
    unsigned const exchanges = waiter.exchanges.load(std::memory_order_relaxed);
    auto const exchanged = [&waiter, exchanges] {
        return waiter.exchanges.load(std::memory_order_relaxed) != exchanges;
    };
    PermissionWaitReport report(waitAtFront(waiter), ownerTid_);
    while (!waiter.sleep(PermissionWaiter::Granted, report.timeToNextReport())) {
        if (exchanged() || !waiter.reached(PermissionWaiter::Front))
            return;
        report.stillWaiting();
    }
    if (!exchanged())
        report.granted();
}

/** Of the calling thread. Work that has been exchanged waits from now on. */
WaitAtFront PermissionQueue::waitAtFront(PermissionWaiter const& waiter) {
    WaitAtFront wait;
    if (waiter.reached(PermissionWaiter::Granted)) {
        wait = waiter.wait;
    } else {
        OSWrap::Lock<> const lock(queueMutex_);
        wait = waiter.wait;
    }
    if (waiter.exchanges.load(std::memory_order_relaxed) != 0 || wait.since == OSWrap::TimeSpec())
        wait.since = OSWrap::Clock::getObsTime();
    return wait;
}

void PermissionQueue::release() {
    OSWrap::DisableCancelStateGuard const noCancel;
    ThreadRecord const& me = currentThread();
    if (getOwner() != me.id) {
        REFLECTORB_LOG(3, "REFLECT_orb",
                       "%s::releaseRunPermission(thread=%ld) called without being owner",
                       Transport::IdInfo::instance().getActor().c_str(), me.tid);
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

/** Of the holder of one level. */
bool PermissionQueue::goOnOrEnqueue(PermissionWaiter& waiter) {
    if (!(word_.load(std::memory_order_relaxed) & kSomebodyQueued))
        return true;
    OSWrap::Lock<> const lock(queueMutex_);
    if (!front_)
        return true;
    if (!waiter.exchangesWith(*front_)) {
        append(waiter);
        return false;
    }
    PermissionWaiter& partner = *front_;
    waiter.turn->swap(*partner.turn);
    partner.exchanges.fetch_add(1, std::memory_order_relaxed);
    moveToBack(partner);
    return true;
}

void PermissionQueue::moveToBack(PermissionWaiter& waiter) {
    if (!waiter.next)
        return;
    unlink(waiter);
    append(waiter);
    moveToFront(*front_);
}

void PermissionQueue::handOver() {
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
ParkingPlace* PermissionQueue::passOn() {
    if (!front_) {
        ownerTid_.store(0, std::memory_order_relaxed);
        word_.store(0, std::memory_order_release);
        return nullptr;
    }
    PermissionWaiter& successor = *front_;
    unlink(successor);
    ownerTid_.store(successor.tid, std::memory_order_relaxed);
    word_.store(successor.id | (front_ ? kSomebodyQueued : 0), std::memory_order_release);
    if (front_)
        moveToFront(*front_);
    return successor.change(PermissionWaiter::Granted);
}

void PermissionQueue::unlink(PermissionWaiter& waiter) {
    (waiter.previous ? waiter.previous->next : front_) = waiter.next;
    (waiter.next ? waiter.next->previous : back_) = waiter.previous;
    waiting_.fetch_sub(1, std::memory_order_relaxed);
}

void PermissionQueue::removeId(void* self) {
    ThreadRecord& me = currentThread();
    if (!self || !me.waiter)
        return;
    static_cast<PermissionQueue*>(self)->leaveQueue(*me.waiter);
    me.waiter = nullptr;
}

PermissionGlimpse PermissionQueue::glimpse() {
    constexpr std::size_t kMost = 1000;
    PermissionGlimpse seen;
    seen.queue.reserve(kMost);
    seen.levels = count();
    seen.holder = ownerTid_.load(std::memory_order_relaxed);
    OSWrap::Lock<> const lock(queueMutex_);
    for (PermissionWaiter const* at = front_; at && seen.queue.size() < kMost; at = at->next)
        seen.queue.push_back(at->tid);
    return seen;
}

/** Of a thread that has been cancelled. Who was left to queue its entry is just about to do so. */
void PermissionQueue::leaveQueue(PermissionWaiter& waiter) {
    OSWrap::DisableCancelStateGuard const noCancel;
    while (!waiter.reached(PermissionWaiter::Queued))
        OSWrap::Thread::sleep(0, kMoment);
    ParkingPlace* successor = nullptr;
    {
        OSWrap::Lock<> const lock(queueMutex_);
        successor = leaveQueueLocked(waiter);
    }
    if (successor)
        successor->condition.signal();
}

ParkingPlace* PermissionQueue::leaveQueueLocked(PermissionWaiter& waiter) {
    if (waiter.reached(PermissionWaiter::Granted))
        return passOn();
    bool const wasFront = front_ == &waiter;
    unlink(waiter);
    if (!front_)
        word_.fetch_and(~kSomebodyQueued, std::memory_order_relaxed);
    else if (wasFront)
        moveToFront(*front_);
    return nullptr;
}

}  // namespace handlerthreads
