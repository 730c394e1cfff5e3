#include "platform/transport/link/Status.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

namespace Link {
namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(PeerStatus const& peer) {
    return {{"slot", peer.slot},
            {"machine", peer.machine},
            {"state", peer.state},
            {"seconds", peer.seconds},
            {"terminations", peer.terminations},
            {"messagesOut", peer.figures.messagesOut},
            {"messagesIn", peer.figures.messagesIn},
            {"bytesOut", peer.figures.bytesOut},
            {"bytesIn", peer.figures.bytesIn},
            {"queuedBytes", peer.queuedBytes},
            {"unsettledBytes", peer.unsettledBytes},
            {"returned", peer.figures.givenBack},
            {"sessions", peer.figures.opened},
            {"partings", peer.figures.ended}};
}

}  // namespace

std::string documentOf(LinkStatus const& status) {
    Json peers = Json::array();
    for (PeerStatus const& peer : status.peers)
        peers.push_back(jsonOf(peer));
    Json const all = {
        {"slot", status.slot},   {"machine", status.machine},     {"pid", getpid()},
        {"state", status.state}, {"interface", status.interface}, {"seconds", status.seconds},
        {"peers", peers}};
    // A machine's name may be of any bytes.
    return all.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace Link
