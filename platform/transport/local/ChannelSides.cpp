#include "platform/transport/local/ChannelSides.h"

#include <cerrno>
#include <new>

#include "platform/transport/local/Bell.h"

namespace Transport {

OwnSide OwnSide::make() {
    OwnSide side;
    side.bell = makeDoorBell();
    side.file = makeSealedFile(kRingOffset + kSmallestRing);
    if ((!side.bell.valid() || !side.file.valid()) && errno == EMFILE && raiseDescriptorLimit()) {
        side.bell = makeDoorBell();
        side.file = makeSealedFile(kRingOffset + kSmallestRing);
    }
    if (!side.bell.valid() || !side.file.valid())
        return {};
    int const fd = side.file.get();
    side.control = Mapping::of(fd, 0, sizeof(ControlPage), Mapping::Access::ReadWrite);
    side.ring.capacity = kSmallestRing;
    side.ring.mapping = Mapping::of(fd, kRingOffset, kSmallestRing, Mapping::Access::ReadWrite);
    side.ring.starts = FrameStarts(kSmallestRing);
    if (side.control.valid())
        new (side.control.data()) ControlPage{};
    sealWriting(fd);
    return side;
}

PeerSide PeerSide::of(ReceivedPacket& received) {
    PeerSide side;
    std::uint32_t const capacity = received.packet.ringCapacity;
    if (!isRingCapacity(capacity) || !received.file.valid() || !received.bell.valid() ||
        !isSealedFile(received.file.get(), kRingOffset + capacity) ||
        !takeDoorBell(received.bell.get()))
        return {};
    Descriptor const file(received.file.release());
    int const fd = file.get();
    side.control = Mapping::of(fd, 0, sizeof(ControlPage), Mapping::Access::ReadOnly);
    side.ring.capacity = capacity;
    side.ring.mapping = Mapping::of(fd, kRingOffset, capacity, Mapping::Access::ReadOnly);
    side.bell = Descriptor(received.bell.release());
    return side;
}

}  // namespace Transport
