// What a broker does when other brokers come and go.
#include <new>

#include "handler_threads/TreflectReleaseHandlerState.h"
#include "handler_threads/WithPermission.h"
#include "oswrap/OutOfMemory.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/broker/AllLevelsReleased.h"
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
    int const process = Transport::TransportLayer::instance().ownerOf(newcomer).process;
    if (!parts_->classes.isAnyObserved())
        catchUpWith_(newcomer);
    else if (parts_->arrivals.begin(newcomer, process))
        catchUpByWorker_(newcomer);
}

// However much waits to be served, since those that are under way are few. Memory is waited for:
// nobody else would tell of the arrival.
void TreflectORB::catchUpByWorker_(Transport::TerminationId const& newcomer) {
    auto const attempt = [&] {
        TreflectMessage const arrival = allocateRequest(sizeof newcomer.value());
        if (arrival.empty())
            throw std::bad_alloc();
        TipprmiStream stream(arrival, true);
        stream << newcomer.value();
        stream.msg().kind(TreflectMessage::kMsg);
        stream.msg().type(TreflectMessage::tOrbAppeared);
        stream.msg().addressed().originator(termId());
        MessageQueue::Pushed const pushed = parts_->messageQueue.push(
            stream.msg().addressed(), parts_->classes.subscriptions().deletions(),
            Backlog::Bounds::None);
        if (pushed.fate != MessageQueue::Fate::Kept)
            throw std::bad_alloc();
        if (pushed.need == MessageQueue::Need::Worker)
            startCountedWorker_(Patience::Some);
    };
    while (!OSWrap::withMemory(attempt)) {
        AllLevelsReleased const released;
        OSWrap::awaitMemory();
    }
}

// Others have waited for its place.
void TreflectORB::caughtUpWith_(Transport::TerminationId const& newcomer) {
    handlerthreads::trustPermission();
    parts_->arrivals.end(newcomer);
    for (auto next = parts_->arrivals.next(); next.value() != 0; next = parts_->arrivals.next())
        catchUpByWorker_(next);
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
    bool neverCaughtUpWith = false;
    {
        WithPermission const permission;
        // Without memory for a handler there are no stubs.
        if (TreflectObjectHandler* const handler = TreflectObjectHandler::getInstance())
            handler->invalidateStubs(convertId(gone));
        parts_->presentOrbs.remove(gone);  // only now: a call that fails meanwhile does the same
        parts_->classes.forget(gone);
        neverCaughtUpWith = parts_->arrivals.forget(gone);
    }
    {
        TreflectReleaseHandlerState const released;
        parts_->presence->notify(gone, TreflectOrbObserverIf::kDisappear);
        if (neverCaughtUpWith)
            parts_->presence->endArrival(gone);
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
