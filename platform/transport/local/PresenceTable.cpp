#include "platform/transport/local/PresenceTable.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <set>

#include "oswrap/CancelGuards.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "oswrap/Thread.h"
#include "platform/transport/DelayedLog.h"

namespace Transport {
namespace {

constexpr char const* kSource = "TransportPresence";

/** Application code runs in the calls, so these threads have room for it. */
constexpr std::size_t kLaneStack = 0x80000;
/**
 * A departure begins this long after its arrival's call at the earliest, unless that call is over:
 * the arrivals thread may have been put aside just before it entered the listener.
 */
constexpr long long kArrivalHeadStart = 20'000'000;
/** So many that wait are looked at for one that need not: each look is made under the lock. */
constexpr int kMostPassedOver = 64;

}  // namespace

/**
 * Empties one lane. Detached, and deletes itself: it ends by itself when the last listener has been
 * detached, which may happen inside one of its own calls.
 */
class PresenceTable::LaneThread : public OSWrap::Thread {
public:
    LaneThread(PresenceTable& table, Lane& lane)
        : Thread(lane.name, OSWrap::Priority(0), OSWrap::SchedulingPolicy(0), kLaneStack, true),
          table_(table),
          lane_(lane) {}

protected:
    int run() override {
        table_.serve(lane_);
        return 0;
    }

private:
    PresenceTable& table_;
    Lane& lane_;
};

// ---- What is known ------------------------------------------------------------------------------

bool PresenceTable::exists(TerminationId id) const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    return entries_.count(id) != 0;
}

std::vector<TerminationId> PresenceTable::ids() const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    std::vector<TerminationId> result;
    result.reserve(entries_.size());
    for (auto const& [id, entry] : entries_)
        result.push_back(id);
    return result;
}

std::vector<TerminationId> PresenceTable::members() const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    std::vector<TerminationId> result;
    for (auto const& [id, entry] : entries_)
        if (entry.visibility == Visibility::Member)
            result.push_back(id);
    return result;
}

bool PresenceTable::find(TerminationId id, Entry& entry) const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    auto const found = entries_.find(id);
    if (found == entries_.end())
        return false;
    entry = found->second;
    return true;
}

bool PresenceTable::contains(TerminationId id, std::string const& file) const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    auto const found = entries_.find(id);
    return found != entries_.end() && found->second.file == file;
}

std::vector<PresenceTable::Known> PresenceTable::ownedBy(pid_t process) const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    std::vector<Known> result;
    for (auto const& [id, entry] : entries_)
        if (entry.owner == process)
            result.push_back({id, entry});
    return result;
}

std::vector<PresenceTable::Known> PresenceTable::notAmong(
    std::vector<TerminationId> const& seen) const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    std::vector<Known> result;
    for (auto const& [id, entry] : entries_)
        if (!std::binary_search(seen.begin(), seen.end(), id))
            result.push_back({id, entry});
    return result;
}

std::vector<pid_t> PresenceTable::owners() const {
    std::vector<pid_t> result;
    {
        OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
        result.reserve(entries_.size());
        for (auto const& [id, entry] : entries_)
            result.push_back(entry.owner);
    }
    std::sort(result.begin(), result.end());
    result.erase(std::unique(result.begin(), result.end()), result.end());
    return result;
}

// ---- Changes ------------------------------------------------------------------------------------

bool PresenceTable::admit(TerminationId id, Entry entry) {
    DelayedLog const delayed;
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    // What may run out of memory comes first, here and below: a change happens whole or not at all.
    std::list<Notice> notices;
    if (entry.visibility == Visibility::Member)
        notices = noticesOf(id);
    if (entries_.count(id) != 0 || leaving_.count(id) != 0 || !hasRoom(entry.owner))
        return false;
    std::size_t& owned = owned_[entry.owner];
    entries_.emplace(id, std::move(entry));
    ++owned;
    arrivals_.queue.splice(arrivals_.queue.end(), notices);
    wake(arrivals_);
    wake(departures_);  // for which there may have been no thread, and arrivals wait
    return true;
}

bool PresenceTable::isLeaving(TerminationId id) const {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    return leaving_.count(id) != 0;
}

bool PresenceTable::hasRoom(pid_t owner) const {
    auto const owned = owned_.find(owner);
    if (owned == owned_.end() || owned->second < kMostOfProcess)
        return true;
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 3, kSource,
                          "process %d has more than %zu terminations: the others are not seen",
                          static_cast<int>(owner), kMostOfProcess);
    return false;
}

/** Takes an entry out; false when it is not there. */
bool PresenceTable::take(TerminationId id) {
    auto const entry = entries_.find(id);
    if (entry == entries_.end())
        return false;
    auto const owned = owned_.find(entry->second.owner);
    if (--owned->second == 0)
        owned_.erase(owned);
    entries_.erase(entry);
    return true;
}

std::list<PresenceTable::Notice> PresenceTable::noticesOf(TerminationId id) const {
    std::list<Notice> notices;
    for (auto const& [listener, attachment] : listeners_)
        notices.push_back({listener, attachment, id});
    return notices;
}

void PresenceTable::drop(std::vector<TerminationId> const& ids, Departures& departures) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    std::list<Notice> notices;
    std::map<TerminationId, std::size_t> due;
    for (TerminationId const id : ids)
        if (entries_.count(id) != 0 && !listeners_.empty() &&
            due.emplace(id, listeners_.size()).second)
            notices.splice(notices.end(), noticesOf(id));
    departures.ids_.reserve(departures.ids_.size() + ids.size());
    std::set<TerminationId> gone(ids.begin(), ids.end());
    for (TerminationId const id : ids)
        if (take(id))
            departures.ids_.push_back(id);
        else
            gone.erase(id);
    arrivals_.queue.remove_if([&](Notice const& notice) { return gone.count(notice.id) != 0; });
    departures.notices_.splice(departures.notices_.end(), notices);
    departures.due_.merge(due);
    leaving_.merge(gone);
}

void PresenceTable::tell(Departures& departures) {
    DelayedLog const delayed;
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    departures_.queue.splice(departures_.queue.end(), departures.notices_);
    for (TerminationId const id : departures.ids_)
        leaving_.erase(id);
    departures.ids_.clear();
    due_.merge(departures.due_);
    for (auto const& [id, count] : departures.due_)
        due_[id] += count;  // one that is due already
    departures.due_.clear();
    wake(departures_);
}

// ---- Listeners ----------------------------------------------------------------------------------

void PresenceTable::attach(PresenceListener& listener) {
    DelayedLog const delayed;
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    std::list<Notice> notices;
    for (auto const& [id, entry] : entries_)
        if (entry.visibility == Visibility::Member)
            notices.push_back({&listener, lastAttachment_ + 1, id});
    if (!listeners_.emplace(&listener, lastAttachment_ + 1).second)
        return;
    ++lastAttachment_;
    arrivals_.queue.splice(arrivals_.queue.end(), notices);
    wake(arrivals_);
    wake(departures_);  // for which there may have been no thread, and arrivals wait
}

/**
 * The first call of `detach` waits until no thread is inside the listener. A second call, made from
 * inside the listener on one lane's thread, must not wait for the other lane's thread: the first
 * call may run there, and it waits for this one.
 */
void PresenceTable::detach(PresenceListener& listener) {
    OSWrap::DisableCancelStateGuard const noCancel;
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    bool const first = listeners_.erase(&listener) != 0;
    if (!first && calledFromInside(listener))
        return;
    forget(listener);
    lock_.broadcast();  // without listeners the lanes' threads end
    while (calledByOthers(listener))
        lock_.wait(OSWrap::TimeSpec::INFINITETIME);
}

void PresenceTable::forget(PresenceListener const& listener) {
    arrivals_.queue.remove_if([&](Notice const& notice) { return notice.listener == &listener; });
    departures_.queue.remove_if([&](Notice const& notice) OSW_REQUIRES(lock_) {
        if (notice.listener == &listener)
            isTold(departures_, notice.id);
        return notice.listener == &listener;
    });
}

bool PresenceTable::calledFromInside(PresenceListener const& listener) const {
    unsigned long const self = OSWrap::Thread::getCurrentId();
    return (arrivals_.called == &listener && arrivals_.thread == self) ||
           (departures_.called == &listener && departures_.thread == self);
}

bool PresenceTable::calledByOthers(PresenceListener const& listener) const {
    unsigned long const self = OSWrap::Thread::getCurrentId();
    return (arrivals_.called == &listener && arrivals_.thread != self) ||
           (departures_.called == &listener && departures_.thread != self);
}

// ---- The lanes ----------------------------------------------------------------------------------

/** Has the lane's thread look at its queue; starts one if there is none. One that cannot be started
 * now is tried again at the next change. */
void PresenceTable::wake(Lane& lane) {
    lock_.broadcast();
    if (lane.threadLives || lane.queue.empty())
        return;
    auto* const thread = new (std::nothrow) LaneThread(*this, lane);
    if (thread == nullptr)
        return;
    thread->deleteOnThreadTermination();
    int const failure = thread->startQuietly();
    lane.threadLives = failure == 0;
    if (lane.threadLives)
        return;
    delete thread;
    static Logging::LineLimit limit;
    TRANSPORT_LOG_LIMITED(limit, 3, kSource, "Thread %s could not be started: %s", lane.name,
                          std::strerror(failure));
}

/** The body of a lane's thread. */
void PresenceTable::serve(Lane& lane) {
    Notice notice{};
    while (next(lane, notice)) {
        OSWrap::untilMemory([&] { (notice.listener->*lane.call)(notice.id); });
        finish(lane);
    }
}

bool PresenceTable::attached(Notice const& notice) const {
    auto const found = listeners_.find(notice.listener);
    return found != listeners_.end() && found->second == notice.attachment;
}

bool PresenceTable::arrivalJustBegun(Notice const& departure) const {
    return arrivals_.called == departure.listener && arrivals_.about == departure.id &&
           OSWrap::Clock::nowNanoseconds() - arrivals_.since < kArrivalHeadStart;
}

/** Has the first that may be told now be the first of the lane: who comes back waits for his
 * departure, and the others for neither. False when there is none. */
bool PresenceTable::hasNext(Lane& lane) {
    if (&lane == &departures_)
        return !arrivalJustBegun(lane.queue.front());
    auto first = lane.queue.begin();
    for (int passed = 0; due_.count(first->id) != 0 && attached(*first); ++passed)
        if (++first == lane.queue.end() || passed == kMostPassedOver)
            return false;
    lane.queue.splice(lane.queue.begin(), lane.queue, first);
    return true;
}

/** Or will never be. */
void PresenceTable::isTold(Lane const& lane, TerminationId id) {
    if (&lane != &departures_)
        return;
    auto const due = due_.find(id);
    if (due == due_.end() || --due->second != 0)
        return;
    due_.erase(due);
    lock_.broadcast();
}

/** Waits for the next call to make and marks it as begun; false when the thread is to end. */
bool PresenceTable::next(Lane& lane, Notice& notice) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    for (;;) {
        if (listeners_.empty()) {
            for (Notice const& dropped : lane.queue)
                isTold(lane, dropped.id);
            lane.queue.clear();
            lane.threadLives = false;
            return false;
        }
        if (lane.queue.empty()) {
            lock_.wait(OSWrap::TimeSpec::INFINITETIME);
        } else if (!attached(lane.queue.front())) {
            isTold(lane, lane.queue.front().id);
            lane.queue.pop_front();
        } else if (!hasNext(lane)) {
            lock_.wait(&lane == &arrivals_ ? OSWrap::TimeSpec::INFINITETIME
                                           : OSWrap::TimeSpec(0, kArrivalHeadStart / 4));
        } else if (attached(lane.queue.front())) {
            break;
        }
    }
    notice = lane.queue.front();
    lane.queue.pop_front();
    lane.called = notice.listener;
    lane.about = notice.id;
    lane.since = OSWrap::Clock::nowNanoseconds();
    lane.thread = OSWrap::Thread::getCurrentId();
    return true;
}

void PresenceTable::finish(Lane& lane) {
    OSWrap::Lock<OSWrap::ConditionVar> lock(lock_);
    lane.called = nullptr;
    isTold(lane, lane.about);
    lock_.broadcast();
}

}  // namespace Transport
