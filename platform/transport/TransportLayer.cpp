#include "transport/TransportLayer.h"

#include "platform/transport/local/Rendezvous.h"

namespace Transport {

TransportLayer& TransportLayer::instance() {
    static TransportLayer& layer = *new TransportLayer;
    return layer;
}

bool TransportLayer::exists(TerminationId id) const {
    return Rendezvous::instance().exists(id);
}

bool TransportLayer::stillExists(TerminationId id) const {
    return Rendezvous::instance().stillExists(id);
}

Owner TransportLayer::ownerOf(TerminationId id) const {
    return Rendezvous::instance().ownerOf(id);
}

std::list<TerminationId> TransportLayer::getTerminations() const {
    auto const all = Rendezvous::instance().terminations();
    return {all.begin(), all.end()};
}

std::list<TerminationId> Group::contains() const {
    std::list<TerminationId> members;
    for (TerminationId const id : Rendezvous::instance().terminations())
        if (id.groupId() == id_)
            members.push_back(id);
    return members;
}

}  // namespace Transport
