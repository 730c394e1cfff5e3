#pragma once

#include <list>

#include "ipprmi/TipprmiStream.h"
#include "reflect/TreflectMessage.h"
#include "reflect/TreflectORB.h"
#include "transport/TransportLayer.h"

/**
 * A request of one broker to another, other than a call of an object: write its arguments, send it,
 * which waits for the response, and read that. Lives on the stack of the thread that asks.
 */
class BrokerRequest {
public:
    BrokerRequest(TreflectORB const& orb, TreflectMessage::type_t type);
    BrokerRequest(BrokerRequest const&) = delete;
    BrokerRequest& operator=(BrokerRequest const&) = delete;

    TipprmiStream& arguments() { return request_; }
    /** An exception container when the sending has failed. */
    TipprmiStream& response() { return response_; }

    /** Sends it, and waits for the response; as TreflectORB::forwardMsg does. False when it could
     * not be sent, or was not answered. */
    bool send(Transport::TerminationId const& target);
    /** The same, but others get the run permission only when the request has been issued: it leaves
     * ahead of whatever they send. */
    bool sendAheadOfOthers(Transport::TerminationId const& target);

private:
    TreflectORB const& orb_;
    TipprmiStream request_;
    TipprmiStream response_;
};

/** Whether the transport knows a termination: it has come up and not gone. */
inline bool exists(Transport::TerminationId const& termination) {
    return Transport::TransportLayer::instance().exists(termination);
}

/** All brokers of the group of `orb`, itself included, in the order of their terminations. */
inline std::list<Transport::TerminationId> membersOfGroup(TreflectORB const& orb) {
    return Transport::TransportLayer::instance().getGroup(orb.termId().groupId()).contains();
}
