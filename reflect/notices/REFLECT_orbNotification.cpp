// The subscriber's side: observers of this process, and the brokers they are subscribed at.
#include <algorithm>
#include <set>

#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "reflect/TreflectObserver.h"
#include "reflect/broker/AllLevelsReleased.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "transport/TransportLayer.h"

namespace {

bool contains(std::vector<unsigned int> const& ids, unsigned int id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

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

TreflectORB::MetaData& TreflectORB::getMetaData(unsigned int classId) const {
    return parts_->classes[classId];
}

// ---- Telling observers of this process ---------------------------------------------------------

void TreflectORB::gotCreation(unsigned int const& classId, TreflectObject const& object) {
    WithPermission const permission;
    auto const found = parts_->classes.find(classId);
    if (found == parts_->classes.end())
        return;
    MetaData& record = found->second;
    for (Registration* const registration : record.creations.registrations)
        registration->back(placeOf(object));
    tellAll_(Kind::Creation, record, object, {});
}

void TreflectORB::gotDeletion(unsigned int const& classId, TreflectObject const& object) {
    WithPermission const permission;
    auto const found = parts_->classes.find(classId);
    if (found == parts_->classes.end())
        return;
    found->second.gone(placeOf(object));
    tellAll_(Kind::Deletion, found->second, object, {});
}

// ---- Observers come and go ---------------------------------------------------------------------

bool TreflectORB::observeCreations(unsigned int const& classId, TreflectObserver& observer,
                                   bool plusExisting) {
    return observe_(Kind::Creation, classId, observer, plusExisting);
}

bool TreflectORB::observeDeletions(unsigned int const& classId, TreflectObserver& observer) {
    return observe_(Kind::Deletion, classId, observer, false);
}

bool TreflectORB::observe_(Kind kind, unsigned int classId, TreflectObserver& observer,
                           bool plusExisting) {
    WithPermission const permission;
    if (parts_->retired)
        return false;
    MetaData& record = getMetaData(classId);
    Registration registration(*this, record, kind, &observer);
    if (plusExisting)
        tellExisting_(record, registration);
    std::vector<TreflectObject> existing;
    if (record.side(kind).observers.empty() || plusExisting) {
        SubscribingLock const lock(record.subscribing);
        subscribeAtAll_(kind, classId, plusExisting ? &existing : nullptr, &registration);
    }
    for (TreflectObject const& object : existing)
        registration.tell(object);
    registration.enter();
    tellOfMissedDeletions_(classId, registration);
    TreflectMissedOrbs& missed = parts_->missed(kind);
    if (!registration.ended() && !missed.empty())
        missed.notify(classId, observer, plusExisting);
    return true;
}

/** Goes on behind the last object it told of: others that are created meanwhile are kept for the
 * observer, wherever they stand. */
void TreflectORB::tellExisting_(MetaData& record, Registration& registration) {
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

void TreflectORB::removeObserver(unsigned int const& classId, TreflectObserver& observer) {
    WithPermission const permission;
    MetaData& record = getMetaData(classId);
    record.forget(observer);
    record.creations.forget(observer);
    cancelUnlessObserved_(Kind::Creation, classId);
    record.deletions.forget(observer);
    cancelUnlessObserved_(Kind::Deletion, classId);
}

void TreflectORB::cancelUnlessObserved_(Kind kind, unsigned int classId) {
    MetaData& record = getMetaData(classId);
    if (record.side(kind).isObserved())
        return;
    SubscribingLock const lock(record.subscribing);
    if (record.side(kind).isObserved())
        return;
    // The group forgets both kinds, and so it may tell of anything anew.
    for (MetaData::Side* const side : {&record.creations, &record.deletions}) {
        for (Registration* const registration : side->registrations)
            registration->forgetHeard();
    }
    if (kind == Kind::Creation) {
        record.creationsSubscribed = false;
        unregisterFromOCN(classId);
    } else {
        unregisterFromODN(classId);
    }
}

void TreflectORB::forgetObserver_(TreflectObserver const& observer) {
    for (auto const& instance : singletonInstances_) {
        TreflectORB const* const orb = instance.load(std::memory_order_acquire);
        if (!orb)
            continue;
        for (auto& entry : orb->parts_->classes)
            entry.second.forgetDestroyed(observer);
    }
}

// Observers and objects that are destroyed from now on do not find this broker any more.
void TreflectORB::forgetAllObservers_() {
    for (auto& entry : parts_->classes) {
        for (Kind const kind : {Kind::Creation, Kind::Deletion}) {
            MetaData::Side& side = entry.second.side(kind);
            side.observers.clear();
            for (Registration* const registration : side.registrations)
                registration->end();
        }
        entry.second.objects.clear();
        entry.second.newcomersObjects.clear();
    }
}

// ---- Subscriptions at other brokers ------------------------------------------------------------

/** Whom a message about a class goes to, oneself included. */
std::list<Transport::TerminationId> TreflectORB::group_() const {
    return Transport::TransportLayer::instance().getGroup(termId().groupId()).contains();
}

bool TreflectORB::mayServe_(Transport::TerminationId const& target, unsigned int classId) const {
    auto const known = parts_->knownOrbClasses.find(target);
    return known == parts_->knownOrbClasses.end() || contains(known->second, classId);
}

void TreflectORB::learnClasses_(Transport::TerminationId const& target, TipprmiStream& response) {
    if (parts_->knownOrbClasses.count(target) != 0)
        return;
    TipprmiSequence<unsigned int, 0u> ids;
    response >> ids;
    // One that has gone while it answered has been forgotten already.
    if (response.hasUnmarshallingFailed() || !Transport::TransportLayer::instance().exists(target))
        return;
    std::vector<unsigned int>& known = parts_->knownOrbClasses[target];
    for (unsigned int i = 0; i < ids.getLength(); ++i)
        known.push_back(ids[i]);
}

void TreflectORB::registerForOCN(unsigned int classId, std::vector<TreflectObject>* existing,
                                 TreflectOrbId const* only) {
    if (existing)
        existing->clear();
    if (only)
        subscribeAt_(Kind::Creation, classId, existing, nullptr, convertId(*only));
    else
        subscribeAtAll_(Kind::Creation, classId, existing, nullptr);
}

void TreflectORB::registerForODN(unsigned int classId, TreflectOrbId const* only) {
    if (only)
        subscribeAt_(Kind::Deletion, classId, nullptr, nullptr, convertId(*only));
    else
        subscribeAtAll_(Kind::Deletion, classId, nullptr, nullptr);
}

void TreflectORB::subscribeAtAll_(Kind kind, unsigned int classId,
                                  std::vector<TreflectObject>* existing, Registration* asking) {
    std::list<Transport::TerminationId> targets = group_();
    parts_->missed(kind).start(targets);
    for (Transport::TerminationId const& target : targets)
        subscribeAt_(kind, classId, existing, asking, target);
    if (kind == Kind::Deletion)
        getMetaData(classId).lastDeletionSubscription = ++parts_->deletionSubscriptions;
}

/** What exists there is added to `existing`, if given. False when the broker was not asked, or did
 * not answer. Whoever looks whether the class is observed and then calls this subscribes ahead of a
 * cancellation that follows. */
bool TreflectORB::subscribeAt_(Kind kind, unsigned int classId,
                               std::vector<TreflectObject>* existing, Registration* asking,
                               Transport::TerminationId const& target) {
    if (target == termId() || !mayServe_(target, classId))
        return false;
    TipprmiStream request(allocateRequest(Parts::kRequestSize), true);
    request.msg().type(kind == Kind::Creation ? TreflectMessage::tOCNSubscribe
                                              : TreflectMessage::tODNSubscribe);
    request << classId;
    if (kind == Kind::Creation)
        request << (existing != nullptr);
    TipprmiStream response(allocateResponse(request.msg(), Parts::kResponseSize), true);
    if (kind == Kind::Creation)
        getMetaData(classId).creationsSubscribed = true;
    if (asking)
        asking->asks(convertId(target));
    if (!forward_(target, true, request.msg(), response, GiveWay::AfterIssuing))
        return false;
    if (kind == Kind::Creation)
        readExisting_(response, target, existing);
    bool const readable = !response.hasUnmarshallingFailed();
    learnClasses_(target, response);
    return readable;
}

// Copies that look for nothing. What one that has gone while it answered had is not news.
void TreflectORB::readExisting_(TipprmiStream& response, Transport::TerminationId const& target,
                                std::vector<TreflectObject>* existing) {
    TipprmiSequence<TreflectObject, 0u> objects;
    response >> objects;
    if (!existing || !Transport::TransportLayer::instance().exists(target))
        return;
    for (unsigned int i = 0; i < objects.getLength(); ++i)
        existing->emplace_back().share_(objects[i]);
}

void TreflectORB::unregisterFromOCN(unsigned int classId) {
    cancel_(TreflectMessage::tOCNUnsubscribe, classId);
}

void TreflectORB::unregisterFromODN(unsigned int classId) {
    cancel_(TreflectMessage::tODNUnsubscribe, classId);
}

void TreflectORB::cancel_(TreflectMessage::type_t type, unsigned int classId) {
    for (Transport::TerminationId const& member : group_()) {
        if (member == termId())
            continue;
        TipprmiStream request(allocateRequest(Parts::kRequestSize), true);
        request.msg().type(type);
        request << classId;
        TipprmiStream response(allocateResponse(request.msg(), Parts::kResponseSize), true);
        if (!forwardMsg_(member, true, request.msg(), response))
            REFLECTORB_LOG(3, "REFLECT_orb", "could not unregister from 0x%X", member.value());
    }
}

// ---- Brokers come up ---------------------------------------------------------------------------

bool TreflectORB::catchUp_(Kind kind, unsigned int classId, TreflectObserver& observer,
                           bool plusExisting, TreflectOrbId const& id) {
    Registration registration(*this, getMetaData(classId), kind, &observer);
    std::vector<TreflectObject> existing;
    subscribeAt_(kind, classId, plusExisting ? &existing : nullptr, &registration, convertId(id));
    for (TreflectObject const& object : existing)
        registration.tell(object);
    tellOfMissedDeletions_(classId, registration);
    return !registration.ended();
}

// Records are made at any time and never go: the walk is over when it has met all. There may be
// many, one for each class that another process has named.
void TreflectORB::orbAppeared(TreflectOrbId const& id) {
    WithPermission const permission;
    parts_->missedCreations.add(id);
    parts_->missedDeletions.add(id);
    std::set<unsigned int> met;
    while (met.size() < parts_->classes.size()) {
        std::vector<unsigned int> next;
        for (auto const& entry : parts_->classes) {
            if (met.insert(entry.first).second)
                next.push_back(entry.first);
        }
        for (unsigned int const classId : next)
            catchUpClass_(classId, id);
    }
    if (!Transport::TransportLayer::instance().exists(convertId(id)))
        return;
    parts_->caughtUpWith.insert(id);
    for (auto& entry : parts_->classes)
        eraseThoseAt(id, entry.second.newcomersObjects);
}

// Subscribes also on behalf of observers that are still being registered: their subscription may
// have been sent before the broker came up, and so not to it. If it was sent to the broker as well,
// the broker is asked a second time, for the observers that were listed before; no observer is told
// of an object twice.
void TreflectORB::catchUpClass_(unsigned int classId, TreflectOrbId const& id) {
    MetaData& record = getMetaData(classId);
    Registration catchingUp(*this, record, Kind::Creation, nullptr);
    if (record.creations.isObserved()) {
        std::vector<TreflectObject> existing;
        subscribeAt_(Kind::Creation, classId, &existing, &catchingUp, convertId(id));
        for (TreflectObject const& object : existing) {
            if (catchingUp.isNews(object))
                tellAll_(Kind::Creation, record, object, record.toldOf(placeOf(object)));
        }
    }
    if (!record.deletions.isObserved())
        return;
    subscribeAt_(Kind::Deletion, classId, nullptr, nullptr, convertId(id));
    record.lastDeletionSubscription = ++parts_->deletionSubscriptions;
    for (auto const& told : record.newcomersObjects) {
        if (brokerOf(told.first) == id)
            catchingUp.heardOf(told.first, told.second.object);
    }
    tellOfGone_(classId, id, catchingUp);
}

// ---- Objects that went before their deletion was subscribed to ---------------------------------

/** Whoever tells of creations looks, when that has been done, whether deletions were subscribed to
 * meanwhile; and who subscribes to them, at what has been told until then. */
void TreflectORB::tellOfMissedDeletions_(unsigned int classId, Registration const& telling) {
    for (TreflectOrbId const& broker : telling.mayHaveMissedDeletionsAt())
        tellOfGone_(classId, broker, telling);
}

/** Asks the broker once more what it has: whoever heard of anything else as created would never
 * hear of its end. That subscribes to creations there, so it is for those who do anyway: when that
 * has been cancelled, the broker has been told to forget deletions as well. */
void TreflectORB::tellOfGone_(unsigned int classId, TreflectOrbId const& id,
                              Registration const& telling) {
    MetaData& record = getMetaData(classId);
    std::set<ObjectPlace> missing = telling.heardAt(id);
    std::vector<TreflectObject> existing;
    if (missing.empty() || !record.creationsSubscribed || !record.deletions.isObserved() ||
        !subscribeAt_(Kind::Creation, classId, &existing, nullptr, convertId(id)) ||
        !Transport::TransportLayer::instance().exists(convertId(id)))
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
            gotDeletion(classId, object);
    }
}
