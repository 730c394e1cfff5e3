// The subscriber's side: observers of this process, and the brokers they are subscribed at.
#include <algorithm>
#include <set>

#include "handler_threads/TreflectHandlerState.h"
#include "logging/Log.h"
#include "oswrap/CancelGuards.h"
#include "reflect/AllLevelsReleased.h"
#include "reflect/TreflectObserver.h"
#include "reflect/TreflectOrbParts.h"
#include "transport/TransportLayer.h"

namespace {

void erase(std::vector<TreflectObserver*>& observers, TreflectObserver const& observer) {
    observers.erase(std::remove(observers.begin(), observers.end(), &observer), observers.end());
}

bool contains(std::vector<unsigned int> const& ids, unsigned int id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

/** Holds a class's `subscribing` for a scope. All levels of the run permission are given up to wait
 * for it: its holder needs the permission to go on. */
class OSW_SCOPED_CAPABILITY SubscribingLock {
public:
    explicit SubscribingLock(TreflectMutex& mutex) OSW_ACQUIRE(mutex) : mutex_(mutex) {
        OSWrap::DisableCancelStateGuard const notCancelled;
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

/** The first observer of a class that is not among those told already, or null. */
TreflectObserver* TreflectORB::nextObserver_(unsigned int classId, Observers MetaData::*observers,
                                             std::set<TreflectObserver*> const& told) const {
    auto const record = parts_->classes.find(classId);
    if (record == parts_->classes.end())
        return nullptr;
    for (TreflectObserver* const observer : record->second.*observers) {
        if (told.count(observer) == 0)
            return observer;
    }
    return nullptr;
}

// A callback may change the list, so it is walked anew after each. Those who keep the notice are
// told by their own registration, although they may be in the list before the walk has reached its
// end.
void TreflectORB::tell_(unsigned int classId, Observers MetaData::*observers,
                        TreflectObject const& object, std::set<TreflectObserver*> told) {
    while (TreflectObserver* const observer = nextObserver_(classId, observers, told)) {
        told.insert(observer);
        tellOne_(*observer, object);
    }
}

void TreflectORB::gotCreation(unsigned int const& classId, TreflectObject const& object) {
    TreflectHandlerState const handlerState(true);
    std::set<TreflectObserver*> keepers;
    if (auto const found = parts_->classes.find(classId); found != parts_->classes.end()) {
        MetaData const& record = found->second;
        for (Registration* const registration : record.creationRegistrations)
            keepers.insert(registration->noticed(object, record.creationObservers));
    }
    tell_(classId, &MetaData::creationObservers, object, std::move(keepers));
}

void TreflectORB::gotDeletion(unsigned int const& classId, TreflectObject const& object) {
    TreflectHandlerState const handlerState(true);
    std::set<TreflectObserver*> keepers;
    if (auto const found = parts_->classes.find(classId); found != parts_->classes.end()) {
        MetaData const& record = found->second;
        for (Registration* const registration : record.creationRegistrations)
            registration->gone(object);
        for (Registration* const registration : record.deletionRegistrations)
            keepers.insert(registration->noticed(object, record.deletionObservers));
    }
    tell_(classId, &MetaData::deletionObservers, object, std::move(keepers));
}

// ---- Observers come and go ---------------------------------------------------------------------

bool TreflectORB::observeCreations(unsigned int const& classId, TreflectObserver& observer,
                                   bool plusExisting) {
    TreflectHandlerState const handlerState(true);
    if (parts_->retired)
        return false;
    MetaData& record = getMetaData(classId);
    Registration registration(record.creationRegistrations, &observer);
    if (plusExisting)
        tellExisting_(record, registration);
    std::vector<TreflectObject> remoteExisting;
    if (record.creationObservers.empty() || plusExisting) {
        SubscribingLock const lock(record.subscribing);
        registerForOCN(classId, plusExisting ? &remoteExisting : nullptr, nullptr);
    }
    for (TreflectObject const& object : remoteExisting)
        registration.tell(object);
    registration.enter(record.creationObservers);
    if (!registration.ended() && !parts_->missedCreations.empty())
        parts_->missedCreations.notify(classId, observer, plusExisting);
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
        TreflectObject object;
        object.share_(*last->getClient());
        registration.tell(object);
    }
}

bool TreflectORB::observeDeletions(unsigned int const& classId, TreflectObserver& observer) {
    TreflectHandlerState const handlerState(true);
    if (parts_->retired)
        return false;
    MetaData& record = getMetaData(classId);
    Registration registration(record.deletionRegistrations, &observer);
    if (record.deletionObservers.empty()) {
        SubscribingLock const lock(record.subscribing);
        registerForODN(classId, nullptr);
    }
    registration.enter(record.deletionObservers);
    if (!registration.ended() && !parts_->missedDeletions.empty())
        parts_->missedDeletions.notify(classId, observer, false);
    return true;
}

void TreflectORB::removeObserver(unsigned int const& classId, TreflectObserver& observer) {
    TreflectHandlerState const handlerState(true);
    MetaData& record = getMetaData(classId);
    auto const leave = [&](Observers& observers, Registration::UnderWay& underWay,
                           void (TreflectORB::*cancel)(unsigned int)) {
        erase(observers, observer);
        for (Registration* const registration : underWay) {
            if (registration->isOf(observer))
                registration->end();
        }
        if (!isUnobserved_(observers, underWay))
            return;
        SubscribingLock const lock(record.subscribing);
        if (isUnobserved_(observers, underWay))
            (this->*cancel)(classId);
    };
    leave(record.creationObservers, record.creationRegistrations, &TreflectORB::unregisterFromOCN);
    leave(record.deletionObservers, record.deletionRegistrations, &TreflectORB::unregisterFromODN);
}

bool TreflectORB::isUnobserved_(Observers const& observers,
                                std::list<Registration*> const& underWay) {
    return observers.empty() &&
           std::all_of(underWay.begin(), underWay.end(),
                       [](Registration const* registration) { return registration->ended(); });
}

void TreflectORB::forgetObserver_(TreflectObserver const& observer) {
    for (auto const& instance : singletonInstances_) {
        TreflectORB const* const orb = instance.load(std::memory_order_acquire);
        if (!orb)
            continue;
        for (auto& entry : orb->parts_->classes) {
            MetaData& record = entry.second;
            erase(record.creationObservers, observer);
            erase(record.deletionObservers, observer);
            endRegistrations_(record, &observer);
        }
    }
}

/** Of one observer, or all when null. */
void TreflectORB::endRegistrations_(MetaData& record, TreflectObserver const* observer) {
    for (auto* const underWay : {&record.creationRegistrations, &record.deletionRegistrations}) {
        for (Registration* const registration : *underWay) {
            if (!observer || registration->isOf(*observer))
                registration->end();
        }
    }
}

// Observers and objects that are destroyed from now on do not find this broker any more.
void TreflectORB::forgetAllObservers_() {
    for (auto& entry : parts_->classes) {
        entry.second.creationObservers.clear();
        entry.second.deletionObservers.clear();
        endRegistrations_(entry.second, nullptr);
        entry.second.objects.clear();
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
    MetaData& record = getMetaData(classId);
    std::list<Transport::TerminationId> targets;
    if (only)
        targets.push_back(convertId(*only));
    else
        parts_->missedCreations.start(targets = group_());
    for (Transport::TerminationId const& target : targets) {
        if (target == termId() || !mayServe_(target, classId))
            continue;
        TipprmiStream request(allocateRequest(Parts::kRequestSize), true);
        request.msg().type(TreflectMessage::tOCNSubscribe);
        request << classId << (existing != nullptr);
        TipprmiStream response(allocateResponse(request.msg(), Parts::kResponseSize), true);
        TreflectOrbId const id = convertId(target);
        for (Registration* const registration : record.creationRegistrations)
            registration->asks(id);
        record.creationsAt.insert(id);
        if (!forwardMsg_(target, true, request.msg(), response)) {
            record.creationsAt.erase(id);
            continue;
        }
        TipprmiSequence<TreflectObject, 0u> objects;
        response >> objects;
        // Copies that look for nothing.
        for (unsigned int i = 0; existing && i < objects.getLength(); ++i)
            existing->emplace_back().share_(objects[i]);
        learnClasses_(target, response);
    }
}

void TreflectORB::registerForODN(unsigned int classId, TreflectOrbId const* only) {
    MetaData& record = getMetaData(classId);
    std::list<Transport::TerminationId> targets;
    if (only)
        targets.push_back(convertId(*only));
    else
        parts_->missedDeletions.start(targets = group_());
    for (Transport::TerminationId const& target : targets) {
        if (target == termId() || !mayServe_(target, classId))
            continue;
        TipprmiStream response(allocateResponse(allocateRequest(0), Parts::kResponseSize), true);
        record.deletionsAt.insert(convertId(target));
        if (sendClassId_(TreflectMessage::tODNSubscribe, classId, target, response))
            learnClasses_(target, response);
        else
            record.deletionsAt.erase(convertId(target));
    }
}

void TreflectORB::unregisterFromOCN(unsigned int classId) {
    cancel_(TreflectMessage::tOCNUnsubscribe, classId);
}

void TreflectORB::unregisterFromODN(unsigned int classId) {
    cancel_(TreflectMessage::tODNUnsubscribe, classId);
}

// Of either kind, it ends both.
void TreflectORB::cancel_(TreflectMessage::type_t type, unsigned int classId) {
    getMetaData(classId).creationsAt.clear();
    getMetaData(classId).deletionsAt.clear();
    for (Transport::TerminationId const& member : group_()) {
        if (member == termId())
            continue;
        TipprmiStream response(allocateResponse(allocateRequest(0), Parts::kResponseSize), true);
        if (!sendClassId_(type, classId, member, response))
            REFLECTORB_LOG(3, "REFLECT_orb", "could not unregister from 0x%X", member.value());
    }
}

bool TreflectORB::sendClassId_(TreflectMessage::type_t type, unsigned int classId,
                               Transport::TerminationId const& target, TipprmiStream& response) {
    TipprmiStream request(allocateRequest(Parts::kRequestSize), true);
    request.msg().type(type);
    request << classId;
    return forwardMsg_(target, true, request.msg(), response);
}

// ---- Brokers come up ---------------------------------------------------------------------------

bool TreflectORB::catchUp_(unsigned int classId, TreflectObserver& observer, bool plusExisting,
                           TreflectOrbId const& id) {
    Registration registration(getMetaData(classId).creationRegistrations, &observer);
    std::vector<TreflectObject> existing;
    registerForOCN(classId, plusExisting ? &existing : nullptr, &id);
    for (TreflectObject const& object : existing)
        registration.tell(object);
    return !registration.ended();
}

// Records are made at any time and never go: the walk is over when it has met all. There may be
// many, one for each class that another process has named.
void TreflectORB::orbAppeared(TreflectOrbId const& id) {
    TreflectHandlerState const handlerState(true);
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
}

// For those on their way into the lists too: the subscription that they wait for may have left
// before the broker came up. One that it has reached, before its arrival was told, is not asked
// again what it has: its objects would be told twice.
void TreflectORB::catchUpClass_(unsigned int classId, TreflectOrbId const& id) {
    MetaData& record = getMetaData(classId);
    if (!isUnobserved_(record.creationObservers, record.creationRegistrations) &&
        record.creationsAt.count(id) == 0) {
        Registration catchingUp(record.creationRegistrations, nullptr);
        std::vector<TreflectObject> existing;
        registerForOCN(classId, &existing, &id);
        for (TreflectObject const& object : existing) {
            if (catchingUp.isNews(object))
                gotCreation(classId, object);
        }
    }
    if (!isUnobserved_(record.deletionObservers, record.deletionRegistrations) &&
        record.deletionsAt.count(id) == 0)
        registerForODN(classId, &id);
}
