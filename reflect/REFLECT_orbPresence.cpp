// What a broker does when other brokers come and go.
#include "handler_threads/TreflectHandlerState.h"
#include "handler_threads/TreflectReleaseHandlerState.h"
#include "reflect/OngoingRequest.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectOrbParts.h"
#include "transport/TransportLayer.h"

// One that has gone again while this thread queued for the permission is not to be listed as
// missed: nobody would take it from the list.
void TreflectORB::appeared(Transport::Termination& termination) {
    TreflectOrbId const id = convertId(termination.termId());
    if (id.namespaceId() == orbId_.namespaceId() && id != orbId_) {
        TreflectHandlerState const handlerState(true);
        if (Transport::TransportLayer::instance().exists(termination.termId()))
            orbAppeared(id);
    }
    TreflectReleaseHandlerState const released;
    parts_->presence->notify(termination.termId(), TreflectOrbObserverIf::kAppear);
}

void TreflectORB::disappeare(Transport::Termination& termination) {
    Transport::TerminationId const gone = termination.termId();
    {
        TreflectHandlerState const handlerState(true);
        TreflectOrbId const id = convertId(gone);
        TreflectObjectHandler::getInstance()->invalidateStubs(id);
        parts_->knownOrbClasses.erase(gone);
        parts_->missedCreations.forget(id);
        parts_->missedDeletions.forget(id);
        forgetBroker_(id);
    }
    {
        TreflectReleaseHandlerState const released;
        parts_->presence->notify(gone, TreflectOrbObserverIf::kDisappear);
    }
    for (OngoingRequest* const record : parts_->ongoingRequests_.takeAllOf(gone))
        record->reset(OngoingRequest::disconnected(), gone);
}

bool TreflectORB::registerOrbCreation(TreflectOrbObserverIf* observer, bool notifyExisting) {
    TreflectReleaseHandlerState const released;
    return parts_->presence->subscribe(observer, TreflectOrbObserverIf::kAppear, notifyExisting);
}

bool TreflectORB::registerOrbDeletion(TreflectOrbObserverIf* observer) {
    TreflectReleaseHandlerState const released;
    return parts_->presence->subscribe(observer, TreflectOrbObserverIf::kDisappear, false);
}

void TreflectORB::unregisterOrbNotifications(TreflectOrbObserverIf* observer) {
    TreflectReleaseHandlerState const released;
    parts_->presence->unsubscribe(observer);
}
