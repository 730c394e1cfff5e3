#include "platform/transport/local/PeerShare.h"

namespace Transport {

PeerShare::Amounts PeerShare::most_{kTotal, kTotal, kTotalOfRings};
PeerShare::Amounts PeerShare::all_{};

void PeerShare::total(Kind kind, std::size_t bytes) {
    of(kind, most_).store(bytes);
}

/** Who has nothing yet is given what he asks for, whatever others keep. Answers find a little more
 * than all else, as in each channel. Who takes at the same time as others near the end of the room
 * may be refused what one of them gives back. */
bool PeerShare::take(Kind kind, std::size_t bytes, Room room) {
    std::size_t const usual = of(kind, most_).load(std::memory_order_relaxed);
    std::size_t const most = room == Room::Usual ? usual : usual + usual / 8;
    std::size_t const own = of(kind, taken_).fetch_add(bytes, std::memory_order_relaxed) + bytes;
    std::size_t const all = of(kind, all_).fetch_add(bytes, std::memory_order_relaxed) + bytes;
    if (own == bytes || (all <= most && own <= most - all))
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
