// Observers of creations and deletions, and how they are told.
#include <algorithm>
#include <exception>

#include "handler_threads/TreflectRestoreHandlerState.h"
#include "logging/Log.h"
#include "reflect/MetaData.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectObserver.h"

// What a callback throws ends here: the other observers are to be told as well.
void TreflectORB::tellOne_(TreflectObserver& observer, TreflectObject const& object) {
    TreflectRestoreHandlerState const restored;
    observer.setSource(&object);
    try {
        observer.update();
    } catch (std::exception const& error) {
        REFLECTORB_LOG(3, "REFLECT_orb", "ORB observer 0x%p threw %s",
                       static_cast<void*>(&observer), error.what());
    } catch (...) {
        if (!std::current_exception())  // not a C++ exception: the thread is being unwound
            throw;
        REFLECTORB_LOG(3, "REFLECT_orb", "ORB observer 0x%p threw", static_cast<void*>(&observer));
    }
}

TreflectORB::Registration::Registration(std::list<Registration*>& underWay,
                                        TreflectObserver& observer)
    : underWay_(underWay), observer_(&observer) {
    underWay_.push_back(this);
}

TreflectORB::Registration::~Registration() {
    underWay_.remove(this);
}

TreflectORB::Registration::Place TreflectORB::Registration::placeOf(TreflectObject const& object) {
    TreflectObjectStub const* const stub = object.getStub_();
    return stub ? Place(stub->getNamespaceId(), stub->orbId().value(), stub->getInternalOID())
                : Place();
}

void TreflectORB::Registration::keep(TreflectObject const& object) {
    if (keeping_ && !ended())
        kept_.emplace_back().share_(object);
}

void TreflectORB::Registration::dropKept(TreflectObject const& object) {
    Place const gone = placeOf(object);
    kept_.remove_if([&](TreflectObject const& kept) { return placeOf(kept) == gone; });
}

void TreflectORB::Registration::tell(TreflectObject const& object) {
    if (!ended() && told_.insert(placeOf(object)).second)
        tellOne_(*observer_, object);
}

void TreflectORB::Registration::enter(std::vector<TreflectObserver*>& observers) {
    if (ended())
        return;
    observers.push_back(observer_);
    keeping_ = false;
    while (!kept_.empty()) {
        TreflectObject object;
        object.share_(kept_.front());
        kept_.pop_front();
        tell(object);
    }
}
