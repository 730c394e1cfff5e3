#include "reflect/notices/MetaData.h"

#include <algorithm>

using MetaData = TreflectORB::MetaData;

// ---- One kind of notices -----------------------------------------------------------------------

bool MetaData::Side::isObserved() const {
    for (Registration const& registration : registrations) {
        if (!registration.ended())
            return true;
    }
    return !observers.empty();
}

TreflectObserver* MetaData::Side::nextFor(Notice const& notice) const {
    if (notice.ended())
        return nullptr;
    for (TreflectObserver* const observer : observers) {
        if (!notice.isToldTo(observer))
            return observer;
    }
    return nullptr;
}

bool MetaData::Side::begin(ObjectPlace const& place, TreflectObserver const& observer) {
    bool first = true;
    for (Notice& notice : notices) {
        if (!notice.ended() && notice.place() == place)
            first = notice.begin(observer) && first;
    }
    return first;
}

bool MetaData::Side::forget(TreflectObserver const& observer) {
    auto const first = std::remove(observers.begin(), observers.end(), &observer);
    bool found = first != observers.end();
    observers.erase(first, observers.end());
    for (Registration& registration : registrations) {
        if (!registration.isOf(observer))
            continue;
        registration.end();
        found = true;
    }
    return found;
}

void MetaData::Side::forgetObservers() {
    observers.clear();
    for (Registration& registration : registrations)
        registration.end();
}

// ---- Objects of this process -------------------------------------------------------------------

bool MetaData::isEnding(TreflectServerObject const* object) const {
    for (Publication const& deletion : deletions.publications) {
        if (deletion.isOf(object))
            return true;
    }
    return false;
}

bool MetaData::isHiddenFrom(TreflectOrbId const& broker, TreflectServerObject const* object) const {
    for (Publication const& creation : creations.publications) {
        if (creation.isOf(object) && creation.isDue(broker))
            return true;
    }
    for (Publication const& deletion : deletions.publications) {
        if (deletion.isOf(object) && deletion.isAnsweredBy(broker))
            return true;
    }
    return false;
}

void MetaData::endCreation(TreflectServerObject const& object) {
    for (Publication& creation : creations.publications) {
        if (creation.isOf(&object))
            creation.end();
    }
}

void MetaData::subscribed(TreflectOrbId const& broker) {
    for (Publication& publication : creations.publications)
        publication.subscribed(broker);
}

void MetaData::cancelled(TreflectOrbId const& broker) {
    creations.subscribers.erase(broker);
    deletions.subscribers.erase(broker);
    for (Publication& publication : creations.publications)
        publication.cancelled(broker);
}

void MetaData::forget(TreflectServerObject const& object) {
    objects.erase(&object);
    for (Side* const side : {&creations, &deletions}) {
        for (Publication& publication : side->publications) {
            if (publication.isOf(&object))
                publication.forgetObject();
        }
    }
}

// ---- Objects anywhere --------------------------------------------------------------------------

void MetaData::present(ObjectPlace const& place) {
    for (Registration& registration : creations.registrations)
        registration.back(place);
}

void MetaData::gone(ObjectPlace const& place) {
    for (Notice& notice : creations.notices) {
        if (notice.place() == place)
            notice.end();
    }
    for (Registration& registration : creations.registrations)
        registration.gone(place);
    for (Side* const side : {&creations, &deletions}) {
        for (Registration& registration : side->registrations)
            registration.heardOfEnd(place);
    }
    newcomersObjects.erase(place);
}

std::set<TreflectObserver const*> MetaData::toldOf(ObjectPlace const& place) const {
    auto const told = newcomersObjects.find(place);
    return told == newcomersObjects.end() ? std::set<TreflectObserver const*>()
                                          : told->second.observers;
}

void MetaData::heardOf(ObjectPlace const& place, TreflectObject const& object) {
    for (Side* const side : {&creations, &deletions}) {
        for (Registration& registration : side->registrations)
            registration.heardOf(place, object);
    }
}

void MetaData::forgetHeard() {
    for (Side* const side : {&creations, &deletions}) {
        for (Registration& registration : side->registrations)
            registration.forgetHeard();
    }
}

// ---- Observers and brokers that go -------------------------------------------------------------

void MetaData::forget(TreflectObserver const& observer) {
    for (auto& entry : newcomersObjects)
        entry.second.observers.erase(&observer);
}

void MetaData::forgetDestroyed(TreflectObserver const& observer) {
    forget(observer);
    for (Side* const side : {&creations, &deletions}) {
        side->forget(observer);
        for (Notice& notice : side->notices)
            notice.forget(observer);
    }
}

void MetaData::forget(TreflectOrbId const& broker) {
    for (Side* const side : {&creations, &deletions}) {
        side->subscribers.erase(broker);
        for (Publication& publication : side->publications)
            publication.forget(broker);
    }
    eraseThoseAt(broker, newcomersObjects);
}

// Observers and objects that are destroyed from now on do not find the broker any more.
void MetaData::forgetAll() {
    creations.forgetObservers();
    deletions.forgetObservers();
    objects.clear();
    newcomersObjects.clear();
}
