// Observers of creations and deletions, and how they are told.
#include <algorithm>

#include "logging/Log.h"
#include "reflect/CallbackScope.h"
#include "reflect/ContainErrors.h"
#include "reflect/Registration.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObserver.h"

// What a callback throws ends here: the other observers are to be told as well.
void TreflectORB::tellOne_(TreflectObserver& observer, TreflectObject const& object) {
    CallbackScope const restored;
    observer.setSource(&object);
    containErrors([&] { observer.update(); },
                  [&](char const* thrown) {
                      REFLECTORB_LOG(3, "REFLECT_orb", "ORB observer 0x%p threw%s",
                                     static_cast<void*>(&observer), thrown);
                  });
}

// What it tells comes on top of what the observer has been told in the course of others.
TreflectORB::Registration::Registration(UnderWay& underWay, TreflectObserver* observer)
    : underWay_(underWay), observer_(observer) {
    for (Registration const* const other : underWay_) {
        if (observer && other->isOf(*observer))
            told_.insert(other->told_.begin(), other->told_.end());
    }
    underWay_.push_back(this);
}

TreflectORB::Registration::~Registration() {
    underWay_.remove(this);
}

TreflectORB::Registration::Place TreflectORB::Registration::placeOf(TreflectObject const& object) {
    TreflectObjectStub const* const stub = object.getStub_();
    if (!stub)
        return {};
    TipprmiOID const oid = stub->getOID();
    char const* const text = oid.getIdString();
    return {stub->orbId().value(), stub->getNamespaceId(), stub->getInternalOID(),
            text ? text : ""};
}

TreflectObserver* TreflectORB::Registration::noticed(
    TreflectObject const& object, std::vector<TreflectObserver*> const& observers) {
    bool const listed =
        ended() || std::find(observers.begin(), observers.end(), observer_) != observers.end();
    gone_.erase(placeOf(object));
    if (listed) {
        told_.insert(placeOf(object));
        return nullptr;
    }
    kept_.emplace_back().share_(object);
    return observer_;
}

void TreflectORB::Registration::gone(TreflectObject const& object) {
    Place const gone = placeOf(object);
    gone_.insert(gone);
    told_.erase(gone);
    kept_.remove_if([&](TreflectObject const& kept) { return placeOf(kept) == gone; });
}

void TreflectORB::Registration::asks(TreflectOrbId const& broker) {
    auto const first = gone_.lower_bound(Place(broker.value(), NamespaceId{}, 0, ""));
    auto last = first;
    while (last != gone_.end() && std::get<0>(*last) == broker.value())
        ++last;
    gone_.erase(first, last);
}

bool TreflectORB::Registration::isNews(TreflectObject const& object) {
    Place const place = placeOf(object);
    return gone_.count(place) == 0 && told_.insert(place).second;
}

void TreflectORB::Registration::tell(TreflectObject const& object) {
    if (!ended() && isNews(object))
        tellOne_(*observer_, object);
}

// Each notice that was kept is told, but for those of objects that were told of as existing.
void TreflectORB::Registration::enter(std::vector<TreflectObserver*>& observers) {
    if (ended())
        return;
    observers.push_back(observer_);
    std::set<Place> told;
    while (!kept_.empty() && !ended()) {
        TreflectObject object;
        object.share_(kept_.front());
        kept_.pop_front();
        if (told_.count(placeOf(object)) != 0)
            continue;
        told.insert(placeOf(object));
        tellOne_(*observer_, object);
    }
    told_.merge(told);
}
