#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/transport/link/Session.h"

namespace Link {

/** How the link with another machine is. A value. */
struct PeerStatus {
    unsigned char slot = 0;
    std::string machine;
    std::string state;             // "linked", "greeting", "away", or "passed over"
    double seconds = 0;            // for which they have been linked
    std::size_t terminations = 0;  // of that machine
    Session::Figures figures;
    std::size_t queuedBytes = 0;     // to be written
    std::size_t unsettledBytes = 0;  // and what is not in the rings of its destinations yet

    bool linked() const { return state == "linked"; }
};

/** How this machine's link is. A value. */
struct LinkStatus {
    unsigned char slot = 0;
    std::string machine;
    std::string state;              // what it is about
    std::string interface;          // empty: none yet
    double seconds = 0;             // since it began
    std::vector<PeerStatus> peers;  // the other machines in sight
};

/** As JSON, which docs/guide.md describes. */
std::string documentOf(LinkStatus const& status);

/** What the command `status` is asked for. */
struct StatusRequest {
    bool json = false;
    std::size_t machines = 1;  // that are to be linked at least
};

/** Asks the link of the folder at this path, shows what it says, and answers the exit code. */
int showStatus(StatusRequest const& request, std::string const& folder);

}  // namespace Link
