// Observers of creations and deletions, how they are told, and what they have been told.
#include <algorithm>

#include "logging/Log.h"
#include "reflect/TreflectObserver.h"
#include "reflect/broker/CallbackScope.h"
#include "reflect/broker/ContainErrors.h"
#include "reflect/broker/TreflectOrbParts.h"
#include "transport/TransportLayer.h"

namespace {

/** Newcomers are caught up with within moments, unless they do not answer. Of one that goes on
 * telling of objects meanwhile no more are remembered. */
constexpr std::size_t kMostObjectsOfNewcomers = 65'536;
/** A registration lasts for moments, unless a broker does not answer. */
constexpr std::size_t kMostObjectsHeardOf = 65'536;

}  // namespace

// ---- Telling -----------------------------------------------------------------------------------

// An exception of one observer is caught here, so that the other observers are called all the same.
void TreflectORB::tellOne_(TreflectObserver& observer, TreflectObject const& object) {
    CallbackScope const restored;
    observer.setSource(&object);
    containErrors([&] { observer.update(); },
                  [&](char const* thrown) {
                      REFLECTORB_LOG(3, "REFLECT_orb", "ORB observer 0x%p threw%s",
                                     static_cast<void*>(&observer), thrown);
                  });
}

void TreflectORB::tellCreation_(MetaData& record, TreflectObserver& observer,
                                TreflectObject const& object) {
    ObjectPlace const place = placeOf(object);
    if (brokerOf(place) != orbId_)
        record.heardOf(place, object);
    auto& remembered = record.newcomersObjects;
    if (isNewcomer_(brokerOf(place)) && remembered.size() < kMostObjectsOfNewcomers) {
        MetaData::Told& told = remembered[place];
        told.object.share_(object);
        told.observers.insert(&observer);
    }
    tellOne_(observer, object);
}

/** Whether a broker is there that has not been caught up with. */
bool TreflectORB::isNewcomer_(TreflectOrbId const& broker) const {
    return broker.namespaceId() == orbId_.namespaceId() && broker != orbId_ &&
           parts_->caughtUpWith.count(broker) == 0 &&
           Transport::TransportLayer::instance().exists(convertId(broker));
}

// A callback may change the list, so it is walked anew after each. Those who are on their way into
// the list are told at the end of it.
void TreflectORB::tellAll_(Kind kind, MetaData& record, TreflectObject const& object,
                           std::set<TreflectObserver const*> told) {
    MetaData::Side& side = record.side(kind);
    ObjectPlace const place = placeOf(object);
    Notice notice(side.notices, place, std::move(told));
    while (TreflectObserver* const observer = side.nextFor(notice)) {
        if (kind == Kind::Deletion) {
            notice.begin(*observer);
            tellOne_(*observer, object);
        } else if (!mayBeThere(object)) {
            return;
        } else if (side.begin(place, *observer)) {
            tellCreation_(record, *observer, object);
        }
    }
    for (Registration* const registration : side.registrations)
        registration->noticed(object, notice);
}

// ---- What is known of a class ------------------------------------------------------------------

bool TreflectORB::MetaData::Side::isObserved() const {
    for (Registration const* const registration : registrations) {
        if (!registration->ended())
            return true;
    }
    return !observers.empty();
}

TreflectObserver* TreflectORB::MetaData::Side::nextFor(Notice const& notice) const {
    if (notice.ended())
        return nullptr;
    for (TreflectObserver* const observer : observers) {
        if (!notice.isToldTo(observer))
            return observer;
    }
    return nullptr;
}

bool TreflectORB::MetaData::Side::begin(ObjectPlace const& place,
                                        TreflectObserver const& observer) {
    bool first = true;
    for (Notice* const notice : notices) {
        if (!notice->ended() && notice->place() == place)
            first = notice->begin(observer) && first;
    }
    return first;
}

void TreflectORB::MetaData::gone(ObjectPlace const& place) {
    for (Notice* const notice : creations.notices) {
        if (notice->place() == place)
            notice->end();
    }
    for (Registration* const registration : creations.registrations)
        registration->gone(place);
    for (Side* const side : {&creations, &deletions}) {
        for (Registration* const registration : side->registrations)
            registration->heardOfEnd(place);
    }
    newcomersObjects.erase(place);
}

void TreflectORB::MetaData::heardOf(ObjectPlace const& place, TreflectObject const& object) {
    for (Side* const side : {&creations, &deletions}) {
        for (Registration* const registration : side->registrations)
            registration->heardOf(place, object);
    }
}

std::set<TreflectObserver const*> TreflectORB::MetaData::toldOf(ObjectPlace const& place) const {
    auto const told = newcomersObjects.find(place);
    return told == newcomersObjects.end() ? std::set<TreflectObserver const*>()
                                          : told->second.observers;
}

void TreflectORB::MetaData::Side::forget(TreflectObserver const& observer) {
    observers.erase(std::remove(observers.begin(), observers.end(), &observer), observers.end());
    for (Registration* const registration : registrations) {
        if (registration->isOf(observer))
            registration->end();
    }
}

void TreflectORB::MetaData::forget(TreflectObserver const& observer) {
    for (auto& entry : newcomersObjects)
        entry.second.observers.erase(&observer);
}

void TreflectORB::MetaData::forgetDestroyed(TreflectObserver const& observer) {
    forget(observer);
    for (Side* const side : {&creations, &deletions}) {
        side->forget(observer);
        for (Notice* const notice : side->notices)
            notice->forget(observer);
    }
}

void TreflectORB::MetaData::forget(TreflectOrbId const& broker) {
    for (Side* const side : {&creations, &deletions}) {
        side->subscribers.erase(broker);
        for (Publication* const publication : side->publications)
            publication->forget(broker);
    }
    eraseThoseAt(broker, newcomersObjects);
}

void TreflectORB::MetaData::forget(TreflectServerObject const& object) {
    objects.erase(&object);
    for (Side* const side : {&creations, &deletions}) {
        for (Publication* const publication : side->publications) {
            if (publication->isOf(&object))
                publication->forgetObject();
        }
    }
}

// ---- Registrations -----------------------------------------------------------------------------

TreflectORB::Registration::Registration(TreflectORB& orb, MetaData& record, Kind kind,
                                        TreflectObserver* observer)
    : Registration(orb, record, kind, observer, orb.parts_->deletionSubscriptions) {}

// What it tells comes on top of what the observer has been told in the course of others.
TreflectORB::Registration::Registration(TreflectORB& orb, MetaData& record, Kind kind,
                                        TreflectObserver* observer, unsigned int since)
    : orb_(orb), record_(record), kind_(kind), observer_(observer), since_(since) {
    Registration::UnderWay& underWay = record_.side(kind_).registrations;
    for (Registration const* const other : underWay) {
        if (observer && other->isOf(*observer))
            told_.insert(other->told_.begin(), other->told_.end());
    }
    underWay.push_back(this);
}

TreflectORB::Registration::~Registration() {
    record_.side(kind_).registrations.remove(this);
}

void TreflectORB::Registration::noticed(TreflectObject const& object, Notice const& notice) {
    if (notice.ended())
        return;
    if (ended() || notice.isToldTo(observer_))
        told_.insert(notice.place());
    else
        kept_.emplace_back(notice.place(), TreflectObject()).second.share_(object);
}

void TreflectORB::Registration::gone(ObjectPlace const& place) {
    gone_.insert(place);
    told_.erase(place);
    kept_.remove_if([&](auto const& kept) { return kept.first == place; });
}

// What is being told as deleted may still be in the answer: it has not been answered to its broker.
void TreflectORB::Registration::asks(TreflectOrbId const& broker) {
    eraseThoseAt(broker, gone_);
    for (Notice const* const notice : record_.deletions.notices)
        gone_.insert(notice->place());
}

bool TreflectORB::Registration::isNews(TreflectObject const& object) {
    ObjectPlace const place = placeOf(object);
    return mayBeThere(object) && gone_.count(place) == 0 && told_.insert(place).second;
}

// A notice that is being told at the same time leaves the observer out.
void TreflectORB::Registration::tell(TreflectObject const& object) {
    if (!ended() && isNews(object) && record_.creations.begin(placeOf(object), *observer_))
        orb_.tellCreation_(record_, *observer_, object);
}

// Each notice that was kept is told, but for creations of objects that were told of as existing.
void TreflectORB::Registration::enter() {
    if (ended())
        return;
    record_.side(kind_).observers.push_back(observer_);
    while (!kept_.empty() && !ended()) {
        TreflectObject object;
        object.share_(kept_.front().second);
        kept_.pop_front();
        if (kind_ == Kind::Creation)
            tell(object);
        else
            tellOne_(*observer_, object);
    }
}

void TreflectORB::Registration::heardOf(ObjectPlace const& place, TreflectObject const& object) {
    if (heard_.size() < kMostObjectsHeardOf)
        heard_[place].share_(object);
}

std::set<TreflectOrbId> TreflectORB::Registration::mayHaveMissedDeletionsAt() const {
    std::set<TreflectOrbId> brokers;
    if (record_.lastDeletionSubscription <= since_)
        return brokers;
    for (auto const& heard : heard_)
        brokers.insert(brokerOf(heard.first));
    return brokers;
}

std::set<ObjectPlace> TreflectORB::Registration::heardAt(TreflectOrbId const& broker) const {
    std::set<ObjectPlace> places;
    for (auto heard = heard_.lower_bound(firstPlaceAt(broker));
         heard != heard_.end() && brokerOf(heard->first) == broker; ++heard)
        places.insert(heard->first);
    for (Notice const* const notice : record_.creations.notices)
        places.erase(notice->place());
    return places;
}

TreflectObject const* TreflectORB::Registration::heard(ObjectPlace const& place) const {
    auto const found = heard_.find(place);
    return found == heard_.end() ? nullptr : &found->second;
}
