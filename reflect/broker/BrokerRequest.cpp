#include "reflect/broker/BrokerRequest.h"

#include "reflect/broker/TreflectOrbParts.h"

namespace {

TreflectMessage const& withType(TreflectMessage::type_t type, TipprmiStream& request) {
    request.msg().type(type);
    return request.msg();
}

}  // namespace

BrokerRequest::BrokerRequest(TreflectORB const& orb, TreflectMessage::type_t type)
    : orb_(orb),
      request_(orb.allocateRequest(TreflectORB::Parts::kRequestSize), true),
      response_(orb.allocateResponse(withType(type, request_), TreflectORB::Parts::kResponseSize),
                true) {}

bool BrokerRequest::send(Transport::TerminationId const& target) {
    return orb_.forwardMsg_(target, true, request_.msg(), response_);
}

bool BrokerRequest::sendAheadOfOthers(Transport::TerminationId const& target) {
    return orb_.forward_(target, true, request_.msg(), response_,
                         TreflectORB::GiveWay::AfterIssuing);
}
