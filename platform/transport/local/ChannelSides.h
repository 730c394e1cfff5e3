#pragma once

#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/Packet.h"
#include "platform/transport/local/Ring.h"
#include "platform/transport/local/SharedMemory.h"

namespace Transport {

/** What one side of a channel makes for the other before they connect. */
struct OwnSide {
    Descriptor file;  // handed to the peer, then closed
    Descriptor bell;
    Mapping control;
    RingArea ring;

    bool valid() const {
        return bell.valid() && control.valid() && ring.mapping.valid() && ring.starts.valid();
    }
    ControlPage& page() const { return *reinterpret_cast<ControlPage*>(control.data()); }
    static OwnSide make();
};

/** What one side of a channel got from the other. */
struct PeerSide {
    Descriptor bell;
    Mapping control;
    RingArea ring;

    bool valid() const { return bell.valid() && control.valid() && ring.mapping.valid(); }
    ControlPage const& page() const {
        return *reinterpret_cast<ControlPage const*>(control.data());
    }
    /** Checks and maps what came with a Hello or a Welcome; invalid when it makes no sense. */
    static PeerSide of(ReceivedPacket& received);
};

}  // namespace Transport
