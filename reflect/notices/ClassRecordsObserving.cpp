// The subscriber's side: observers of this process, for whom this broker subscribes at others.
#include "handler_threads/WithPermission.h"
#include "oswrap/CancelGuards.h"
#include "reflect/TreflectObserver.h"
#include "reflect/TreflectServerObject.h"
#include "reflect/broker/AllLevelsReleased.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "reflect/notices/ClassRecords.h"

namespace {

/** Holds a class's `subscribing` for a scope. All levels of the run permission are given up to wait
 * for it: its holder needs the permission to go on. */
class OSW_SCOPED_CAPABILITY SubscribingLock {
public:
    explicit SubscribingLock(TreflectMutex& mutex) OSW_ACQUIRE(mutex) : mutex_(mutex) {
        OSWrap::DisableCancelStateGuard const noCancel;
        if (mutex_.trylock())
            return;
        AllLevelsReleased const released;
        mutex_.lock();
    }
    ~SubscribingLock() OSW_RELEASE() { mutex_.unlock(); }
    SubscribingLock(SubscribingLock const&) = delete;
    SubscribingLock& operator=(SubscribingLock const&) = delete;

private:
    TreflectMutex& mutex_;
};

}  // namespace

// ---- Observers come and go ---------------------------------------------------------------------

bool ClassRecords::observe(NoticeKind kind, unsigned int classId, TreflectObserver& observer,
                           bool plusExisting) {
    WithPermission const permission;
    if (orb_.parts_->retired)
        return false;
    MetaData& record = getMetaData(classId);
    Registration registration(*this, record, kind, &observer);
    if (plusExisting)
        tellExisting(record, registration);
    Objects existing;
    if (record.side(kind).observers.empty() || plusExisting) {
        SubscribingLock const lock(record.subscribing);
        subscriptions_.beginAtAll(kind, record, plusExisting ? &existing : nullptr, &registration);
    }
    for (TreflectObject const& object : existing)
        registration.tell(object);
    registration.enter();
    tellOfMissedDeletions(record, registration);
    TreflectMissedOrbs& missed = subscriptions_.missed(kind);
    if (!registration.ended() && !missed.empty())
        missed.notify(classId, observer, plusExisting);
    return true;
}

/** Goes on behind the last object it told of: others that are created meanwhile are kept for the
 * observer, wherever they stand. */
void ClassRecords::tellExisting(MetaData& record, Registration& registration) {
    TreflectServerObject const* last = nullptr;
    for (;;) {
        auto const next = record.objects.upper_bound(last);
        if (next == record.objects.end() || registration.ended())
            return;
        last = *next;
        if (record.isEnding(last))
            continue;
        TreflectObject object;
        object.share_(*last->getClient());
        registration.tell(object);
    }
}

void ClassRecords::removeObserver(unsigned int classId, TreflectObserver& observer) {
    WithPermission const permission;
    MetaData& record = getMetaData(classId);
    record.forget(observer);
    for (NoticeKind const kind : {NoticeKind::Creation, NoticeKind::Deletion}) {
        record.side(kind).forget(observer);
        cancelUnlessObserved(kind, record);
    }
}

// A cancellation ends both kinds, and so it waits until neither is observed: notices that nobody
// hears meanwhile do no harm.
void ClassRecords::endObserving(NoticeKind kind, unsigned int classId, TreflectObserver& observer) {
    WithPermission const permission;
    auto const found = records_.find(classId);
    if (found == records_.end())
        return;
    MetaData& record = found->second;
    if (kind == NoticeKind::Creation)
        record.forget(observer);
    if (!record.side(kind).forget(observer) || record.isObserved())
        return;
    SubscribingLock const lock(record.subscribing);
    // Others may have come while that was waited for.
    if (record.isObserved())
        return;
    record.creationsSubscribed = false;
    cancel(kind, record);
}

void ClassRecords::cancelUnlessObserved(NoticeKind kind, MetaData& record) {
    if (record.side(kind).isObserved())
        return;
    SubscribingLock const lock(record.subscribing);
    if (record.side(kind).isObserved())
        return;
    if (kind == NoticeKind::Creation)
        record.creationsSubscribed = false;
    cancel(kind, record);
}

/** The group forgets both kinds, and so it may tell of anything anew. */
void ClassRecords::cancel(NoticeKind kind, MetaData& record) {
    record.forgetHeard();
    subscriptions_.cancelAtAll(kind, record.classId);
}

bool ClassRecords::isAnyObserved() const {
    for (auto const& entry : records_) {
        if (entry.second.isObserved())
            return true;
    }
    return false;
}

void ClassRecords::subscribe(NoticeKind kind, unsigned int classId, Objects* existing,
                             TreflectOrbId const* only) {
    if (existing)
        existing->clear();
    MetaData& record = getMetaData(classId);
    if (only)
        subscriptions_.begin(kind, record, existing, nullptr, orb_.convertId(*only));
    else
        subscriptions_.beginAtAll(kind, record, existing, nullptr);
}

// ---- Brokers come up ---------------------------------------------------------------------------

bool ClassRecords::catchUp(NoticeKind kind, unsigned int classId, TreflectObserver& observer,
                           bool plusExisting, TreflectOrbId const& broker) {
    MetaData& record = getMetaData(classId);
    Registration registration(*this, record, kind, &observer);
    Objects existing;
    subscriptions_.begin(kind, record, plusExisting ? &existing : nullptr, &registration,
                         orb_.convertId(broker));
    for (TreflectObject const& object : existing)
        registration.tell(object);
    tellOfMissedDeletions(record, registration);
    return !registration.ended();
}

// Records are made at any time and never go: the walk is over when it has met all. There may be
// many, one for each class that another process has named.
void ClassRecords::appeared(TreflectOrbId const& broker) {
    WithPermission const permission;
    subscriptions_.add(broker);
    std::set<unsigned int> met;
    while (met.size() < records_.size()) {
        std::vector<MetaData*> next;
        for (auto& entry : records_) {
            if (met.insert(entry.first).second)
                next.push_back(&entry.second);
        }
        for (MetaData* const record : next)
            catchUpClass(*record, broker);
    }
    if (!exists(orb_.convertId(broker)))
        return;
    caughtUpWith_.insert(broker);
    for (auto& entry : records_)
        eraseThoseAt(broker, entry.second.newcomersObjects);
}

// Subscribes also on behalf of observers that are still being registered: their subscription may
// have been sent before the broker came up, and so not to it. If it was sent to the broker as well,
// the broker is asked a second time, for the observers that were listed before; no observer is told
// of an object twice.
void ClassRecords::catchUpClass(MetaData& record, TreflectOrbId const& broker) {
    Registration catchingUp(*this, record, NoticeKind::Creation, nullptr);
    if (record.creations.isObserved()) {
        Objects existing;
        subscriptions_.begin(NoticeKind::Creation, record, &existing, &catchingUp,
                             orb_.convertId(broker));
        for (TreflectObject const& object : existing) {
            if (catchingUp.isNews(object))
                tellAll(NoticeKind::Creation, record, object, record.toldOf(placeOf(object)));
        }
    }
    if (!record.deletions.isObserved())
        return;
    subscriptions_.begin(NoticeKind::Deletion, record, nullptr, nullptr, orb_.convertId(broker));
    subscriptions_.countDeletions(record);
    for (auto const& told : record.newcomersObjects) {
        if (brokerOf(told.first) == broker)
            catchingUp.heardOf(told.first, told.second.object);
    }
    tellOfGone(record, broker, catchingUp);
}

// ---- Objects that went before their deletion was subscribed to ---------------------------------

/** Whoever tells of creations looks, when that has been done, whether deletions were subscribed to
 * meanwhile; and who subscribes to them, at what has been told until then. */
void ClassRecords::tellOfMissedDeletions(MetaData& record, Registration const& telling) {
    for (TreflectOrbId const& broker : telling.mayHaveMissedDeletionsAt())
        tellOfGone(record, broker, telling);
}

/** Asks the broker once more what it has: whoever heard of anything else as created would never
 * hear of its end. That subscribes to creations there, so it is for those who do anyway: when that
 * has been cancelled, the broker has been told to forget deletions as well. */
void ClassRecords::tellOfGone(MetaData& record, TreflectOrbId const& broker,
                              Registration const& telling) {
    std::set<ObjectPlace> missing = telling.heardAt(broker);
    Objects existing;
    if (missing.empty() || !record.creationsSubscribed || !record.deletions.isObserved() ||
        !subscriptions_.begin(NoticeKind::Creation, record, &existing, nullptr,
                              orb_.convertId(broker)) ||
        !exists(orb_.convertId(broker)))
        return;
    for (TreflectObject const& object : existing)
        missing.erase(placeOf(object));
    for (ObjectPlace const& place : missing) {
        TreflectObject const* const heard = telling.heard(place);
        if (!heard)
            continue;  // its end has been told
        TreflectObject object;
        object.share_(*heard);
        if (mayBeThere(object))
            got(NoticeKind::Deletion, record.classId, object);
    }
}
