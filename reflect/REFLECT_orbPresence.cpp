// What a broker does when other brokers come and go.
#include "handler_threads/TreflectHandlerState.h"
#include "reflect/OngoingRequest.h"
#include "reflect/TreflectObjectHandler.h"
#include "reflect/TreflectOrbParts.h"

void TreflectORB::appeared(Transport::Termination&) {}

void TreflectORB::disappeare(Transport::Termination& termination) {
    Transport::TerminationId const gone = termination.termId();
    {
        TreflectHandlerState const handlerState(true);
        TreflectObjectHandler::getInstance()->invalidateStubs(convertId(gone));
    }
    for (OngoingRequest* const record : parts_->ongoingRequests_.takeAllOf(gone))
        record->reset(OngoingRequest::disconnected(), gone);
}
