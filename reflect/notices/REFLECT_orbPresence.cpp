// What a broker does when other brokers come and go.
#include "handler_threads/TreflectReleaseHandlerState.h"
#include "handler_threads/WithPermission.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/OngoingRequest.h"
#include "reflect/broker/TreflectOrbParts.h"

void TreflectORB::appeared(Transport::Termination& termination) {
    Transport::TerminationId const newcomer = termination.termId();
    parts_->presentOrbs.add(newcomer);
    parts_->presence->beginArrival(newcomer);
    TreflectOrbId const id = convertId(newcomer);
    if (id.namespaceId() == orbId_.namespaceId() && id != orbId_)
        catchUpLater_(newcomer);
    else
        parts_->presence->endArrival(newcomer);
}

// One that does not answer is waited for by a worker, so that the arrivals of others are told.
// While nothing is observed there is nobody to wait for.
void TreflectORB::catchUpLater_(Transport::TerminationId const& newcomer) {
    WithPermission const permission;
    bool const observes = parts_->classes.isAnyObserved();
    TreflectMessage arrival = allocateRequest(sizeof newcomer.value());
    if (!observes || arrival.empty()) {
        catchUpWith_(newcomer);
        return;
    }
    TipprmiStream stream(arrival, true);
    stream << newcomer.value();
    stream.msg().kind(TreflectMessage::kMsg);
    stream.msg().type(TreflectMessage::tOrbAppeared);
    stream.msg().addressed().originator(termId());
    if (!enqueue_(stream.msg().addressed()))
        catchUpWith_(newcomer);
}

// One that has gone again is not to be listed as missed: nobody would take it from the list.
void TreflectORB::catchUpWith_(Transport::TerminationId const& newcomer) {
    {
        WithPermission const permission;
        if (exists(newcomer))
            orbAppeared(convertId(newcomer));
    }
    TreflectReleaseHandlerState const released;
    parts_->presence->endArrival(newcomer);
}

void TreflectORB::orbAppeared(TreflectOrbId const& id) {
    parts_->classes.appeared(id);
}

void TreflectORB::disappeare(Transport::Termination& termination) {
    Transport::TerminationId const gone = termination.termId();
    {
        WithPermission const permission;
        // Without memory for a handler there are no stubs.
        if (TreflectObjectHandler* const handler = TreflectObjectHandler::getInstance())
            handler->invalidateStubs(convertId(gone));
        parts_->presentOrbs.remove(gone);  // only now: a call that fails meanwhile does the same
        parts_->classes.forget(gone);
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
