#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>

#include "platform/transport/MessageChain.h"

namespace Transport {

/**
 * What one other process makes this one keep, in bytes or connections and however many terminations
 * it has, since each of these could fill what a single channel may hold. Shared by the channels to
 * them.
 *
 * A process may have as much as is still free for all: one by itself half of what there is, and
 * those who take much share it between them. Of connections it may have seven times as many as are
 * free, since a link stands for all terminations of other machines. The first that each asks for it
 * is given in any case: so many who take much keep nobody from one message at a time. Any thread;
 * needs neither lock nor memory.
 */
class PeerShare {
public:
    enum class Kind {
        Unsent,      // waits to be sent to it, or to be taken by it
        Unfinished,  // messages that it has sent in part
        Rings,       // those to it that have grown
        Channels,    // connections with it: their number, since each takes descriptors
    };
    class Reservation;

    PeerShare() = default;
    PeerShare(PeerShare const&) = delete;
    PeerShare& operator=(PeerShare const&) = delete;

    /** For tests: what there is of a kind for all processes together. Answers what there was. */
    static std::size_t total(Kind kind, std::size_t bytes);
    static constexpr std::size_t kTotal = 4 * static_cast<std::size_t>(Room::Usual);
    static constexpr std::size_t kTotalOfRings = 4 * kTotal;

private:
    using Amounts = std::array<std::atomic<std::size_t>, 4>;

    bool take(Kind kind, std::size_t bytes, Room room);
    void give(Kind kind, std::size_t bytes);
    static std::atomic<std::size_t>& of(Kind kind, Amounts& amounts) {
        return amounts[static_cast<std::size_t>(kind)];
    }

    static std::size_t mostChannels();

    static Amounts most_;
    static Amounts all_;
    Amounts taken_{};
};

/** What one channel has of a share. Gives it back at its end. Without a share it is not bounded. A
 * resource, guarded by its owner. */
class PeerShare::Reservation {
public:
    explicit Reservation(Kind kind, std::shared_ptr<PeerShare> share = nullptr)
        : share_(std::move(share)), kind_(kind) {}
    ~Reservation() { shrinkTo(0); }
    Reservation(Reservation const&) = delete;
    Reservation& operator=(Reservation const&) = delete;

    std::size_t bytes() const { return bytes_; }
    /** False when the process may not have so much more. What it has of a kind begins with one
     * message or ring, of whatever size. */
    bool grow(std::size_t bytes, Room room = Room::Usual);
    void shrinkTo(std::size_t bytes);

private:
    std::shared_ptr<PeerShare> const share_;
    Kind const kind_;
    std::size_t bytes_ = 0;
};

}  // namespace Transport
