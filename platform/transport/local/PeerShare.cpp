#include "platform/transport/local/PeerShare.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/transport/local/Descriptor.h"

namespace Transport {
namespace {

/** A socket, two bells and the set in which callers wait, once it stands. */
constexpr std::size_t kDescriptorsWhileOpen = 4;
/** What the process has open itself: who has few descriptors would else have none for others beside
 * one that takes all it may. */
constexpr std::size_t kOwnDescriptors = 64;
/** Of memory: two control pages, two rings, up to three of the peer that wait to be read; and a
 * part of what threads need, and our own rings that have grown, which Kind::Rings bounds. */
constexpr std::size_t kMappingsWhileOpen = 9;
constexpr std::size_t kUsualMappings = 65530;
/** So many times what is free may one process have, of connections. */
constexpr std::size_t kChannelsForOneFree = 7;

/** So many areas of memory the system lets a process map, its threads' stacks included. */
std::size_t mostMappings() {
    char text[24]{};
    Descriptor const file(::open("/proc/sys/vm/max_map_count", O_RDONLY | O_CLOEXEC));
    if (!file.valid() || ::read(file.get(), text, sizeof text - 1) <= 0)
        return kUsualMappings;
    return std::strtoul(text, nullptr, 10);
}

}  // namespace

PeerShare::Amounts PeerShare::most_{kTotal, kTotal, kTotalOfRings, mostChannels()};
PeerShare::Amounts PeerShare::all_{};

std::size_t PeerShare::mostChannels() {
    std::size_t const all = mostDescriptors();
    std::size_t const others = all - std::min(all / 2, kOwnDescriptors);
    return std::min(others / kDescriptorsWhileOpen, mostMappings() / kMappingsWhileOpen);
}

std::size_t PeerShare::total(Kind kind, std::size_t bytes) {
    return of(kind, most_).exchange(bytes);
}

/** Who has nothing yet is given what he asks for, whatever others keep. Answers find a little more
 * than all else, as in each channel. Who takes at the same time as others near the end of the room
 * may be refused what one of them gives back. */
bool PeerShare::take(Kind kind, std::size_t bytes, Room room) {
    std::size_t const usual = of(kind, most_).load(std::memory_order_relaxed);
    std::size_t const most = room == Room::Usual ? usual : usual + usual / 8;
    std::size_t const own = of(kind, taken_).fetch_add(bytes, std::memory_order_relaxed) + bytes;
    std::size_t const all = of(kind, all_).fetch_add(bytes, std::memory_order_relaxed) + bytes;
    std::size_t const times = kind == Kind::Channels ? kChannelsForOneFree : 1;
    if (own == bytes || (all <= most && own <= times * (most - all)))
        return true;
    give(kind, bytes);
    return false;
}

void PeerShare::give(Kind kind, std::size_t bytes) {
    of(kind, taken_).fetch_sub(bytes, std::memory_order_relaxed);
    of(kind, all_).fetch_sub(bytes, std::memory_order_relaxed);
}

bool PeerShare::Reservation::grow(std::size_t bytes, Room room) {
    if (share_ != nullptr && !share_->take(kind_, bytes, room))
        return false;
    bytes_ += bytes;
    return true;
}

void PeerShare::Reservation::shrinkTo(std::size_t bytes) {
    if (bytes >= bytes_)
        return;
    if (share_ != nullptr)
        share_->give(kind_, bytes_ - bytes);
    bytes_ = bytes;
}

}  // namespace Transport
