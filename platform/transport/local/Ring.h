#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/transport/MessageChain.h"
#include "platform/transport/local/ControlPage.h"
#include "platform/transport/local/DeferredHead.h"
#include "platform/transport/local/PeerShare.h"
#include "platform/transport/local/SharedMemory.h"
#include "transport/AddressedMessage.h"

namespace Transport {

/** Where the ring begins in the first file of a side: a multiple of every page size in use. Pages
 * that nobody touches take no memory. */
constexpr std::size_t kRingOffset = 64 * 1024;
constexpr std::uint32_t kSmallestRing = 16 * 1024;
constexpr std::uint32_t kUsualRing = 256 * 1024;     // grown to for many small messages
constexpr std::uint32_t kLargestRing = 1024 * 1024;  // grown to for large ones

/** A power of two within the bounds. */
constexpr bool isRingCapacity(std::uint32_t capacity) {
    return capacity >= kSmallestRing && capacity <= kLargestRing &&
           (capacity & (capacity - 1)) == 0;
}

/**
 * Head of each frame in a ring; `length` bytes follow, padded to a multiple of 8. A message is one
 * frame (length equals total) or several one behind the other, each with the same total.
 */
struct FrameHead {
    std::uint32_t length;  // bytes in this frame
    std::uint32_t total;  // bytes of the whole message, with kSentBack added if it is one of those;
                          // kNextRing: what follows is in the next ring
};
static_assert(sizeof(FrameHead) == 8, "shared by processes of any word size");

constexpr std::uint32_t kNextRing = 0xFFFFFFFF;
/** Of a message that the receiver itself has sent, and which could not be delivered where it was
 * passed on to. Says nothing of any message to others. */
constexpr std::uint32_t kSentBack = 0x80000000;
static_assert(kLargestMessage < kSentBack, "the mark is no part of a size");

constexpr std::uint32_t frameBytes(std::size_t length) {
    return static_cast<std::uint32_t>(sizeof(FrameHead) + ((length + 7) & ~std::size_t{7}));
}

/**
 * Where frames begin in a ring, one bit for each 8 bytes: the owner's own record, which nobody else
 * can reach. What lies in the ring itself are bytes of all ages and senders. A resource that can be
 * moved.
 */
class FrameStarts {
public:
    FrameStarts() = default;
    /** Of a ring of so many bytes; invalid when memory has run out. */
    explicit FrameStarts(std::uint32_t capacity);

    bool valid() const { return words_ != nullptr; }
    /** A frame of so many bytes lies at `position`, and none that lay there before. */
    void note(std::uint32_t position, std::uint32_t bytes);
    bool at(std::uint32_t position) const {
        std::uint32_t const index = position / 8 & mask_;
        return (words_[index / 32] >> index % 32 & 1) != 0;
    }

private:
    void clear(std::uint32_t index, std::uint32_t count);

    std::unique_ptr<std::uint32_t[]> words_;
    std::uint32_t mask_ = 0;  // of the indices of bits
};

/** The bytes of one ring, mapped. */
struct RingArea {
    Mapping mapping;
    std::uint32_t capacity = 0;
    FrameStarts starts{};  // in the sender's rings
};

/**
 * What one side has put into its rings and the other one has not taken yet. Positions count bytes
 * since the start and go on when a larger ring takes the place of a smaller one. Needs no memory
 * but for what it gives back. A resource that can be moved.
 */
class SentMessages {
public:
    explicit SentMessages(RingArea area) : area_(std::move(area)) {}

    /** Moves all messages that the peer has not taken, completely, to `queue`, in order: copies of
     * what is in the rings. Those that were sent back are not among them: they are the peer's.
     * False when memory runs out for one; to be called again for it and those behind it. */
    bool recover(MessageChain& queue, std::uint32_t originator, std::uint32_t destination);

    /** A ring that is filled four times over, at least, by the one that follows it. */
    static constexpr std::size_t kMostFormer = 3;
    static_assert(kSmallestRing << 2 * kMostFormer == kLargestRing, "growth by a factor of 4");

protected:
    struct Former {
        RingArea area;
        std::uint32_t end = 0;  // position behind its last frame
    };

    void forgetTaken();

    RingArea area_;
    std::array<Former, kMostFormer> former_;  // that the peer has not emptied yet, oldest first
    std::size_t formerCount_ = 0;
    MessageChain kept_;  // whole, each until the peer has gone beyond its end
    std::uint32_t tail_ = 0;
    std::uint32_t head_ = 0;  // as last read from the peer

private:
    RingArea const& areaAt(std::uint32_t position, std::uint32_t& end) const;
    std::uint32_t startOfFrame(std::uint32_t position) const;
    std::uint32_t frameAfter(std::uint32_t position) const;
    bool recoverFrame(std::uint32_t next, AddressedMessage& message);
};

/** The sending end of a ring. Not synchronized; the channel's mutex guards it. */
class RingWriter : private SentMessages {
public:
    RingWriter(ControlPage& own, ControlPage const& peer, RingArea area);

    /** Puts a message of `size` bytes in, if it fits as one frame. `mark` is 0 or kSentBack. */
    bool put(unsigned char const* bytes, std::size_t size, std::uint32_t mark = 0);
    /** Puts in as much of a message from its byte `done` on as fits in a piece worth its while;
     * answers how many bytes. */
    std::uint32_t putPiece(unsigned char const* bytes, std::uint32_t size, std::uint32_t done,
                           std::uint32_t mark = 0);
    /** Keeps the message that was put in last until the peer has taken it, to be able to give back
     * this very one: it went in by pieces, or there is more to know of it than its bytes. */
    void keepUntilTaken(AddressedMessage message);
    /** Goes on in a ring four times as large or more, which the peer has been sent already. Needs
     * no room. */
    void goOnIn(RingArea area);

    /** Whether the peer must be rung because it sleeps; true once for each time it fell asleep. */
    bool mustRing();
    /** Asks the peer to ring when it has taken something. Look for room once more afterwards. */
    void wantSpace();
    bool hasRoomFor(std::size_t length);
    /** Whether a message should go in by pieces, rather than wait for room for the whole. */
    bool isLarge(std::size_t size) const;

    std::uint32_t capacity() const { return area_.capacity; }
    /** What of all that was kept the peer has not taken, as far as has been looked. */
    std::size_t keptBytes() const { return kept_.bytes(); }
    std::uint32_t position() const { return tail_; }
    /** Whether the peer has taken everything. */
    bool allTaken();
    /** The peer's words made no sense: the channel must be closed. */
    bool broken() const { return broken_; }
    /** Ends the writing: what the peer has not taken. Believes the peer only how far it has come,
     * and goes by what was put in for the rest. */
    SentMessages giveUp();

private:
    std::uint32_t room();
    void refreshHead();
    void writeFrame(unsigned char const* bytes, std::uint32_t length, std::uint32_t total);

    ControlPage& own_;
    ControlPage const& peer_;
    std::uint32_t lastRung_ = 0;
    bool broken_ = false;
};

/**
 * The receiving end of a ring. Trusts nothing that it reads there. Used by one thread at a time;
 * see ReadingEnd. What it has taken is its sender's no more as soon as it is kept, or, for an owner
 * who passes it on, when that one releases it; see DeferredHead.
 */
class RingReader {
public:
    enum class Result {
        Nothing,
        Piece,     // of a message that is not complete yet
        Message,   // complete
        NoMemory,  // for the message that begins here: it is still there
        NoRoom,    // for one more message in pieces, likewise
        NextRing,  // continue with `goOnIn`
        Garbage,
    };

    /** `share`: of the process whose ring it is; without one, messages in pieces are not bounded.
     * `placesFrom`: messages are to be released, and the first one has this place and its bytes. */
    RingReader(ControlPage& own, ControlPage const& peer, RingArea area,
               std::shared_ptr<PeerShare> share = nullptr,
               std::optional<std::uint32_t> placesFrom = std::nullopt);

    /** A message, which knows its place, is the sender's until `keep` is called; before `next` is
     * called again. */
    Result next(AddressedMessage& message);
    void keep() { deferred_.has_value() ? keepForOwner() : keepAll(); }
    /** Whether the last message is one of ours that comes back, not one of the sender's. */
    bool isSentBack() const { return partMark_ != 0; }
    /** Leaves the last message to its sender. Nothing can be read any more. */
    void leave() { head_ -= lastFrame_; }
    void goOnIn(RingArea area);

    // ---- For an owner who releases what he has kept; any thread, else no effect ----
    /** All messages up to the one of this place may go. Whether the peer must be rung. */
    bool release(std::uint32_t place) {
        return deferred_.has_value() && deferred_->release(place - placesFrom_);
    }

    bool hasData() const { return peer_.tail.load() != head_; }
    /** Tells the peer that it must ring from now on. Look for data once more afterwards. */
    void fallAsleep();
    void wakeUp();
    /** Shows the peer what has been taken; true when it must be rung because it wants space, and
     * half of the ring is free. */
    bool finishBatch();
    /** Bytes taken since the start. */
    std::uint32_t position() const { return head_; }
    /** The place of a message that ends here. */
    std::uint32_t place() const { return placesFrom_ + head_; }
    /** The same as the peer was shown it, and whether it has put in more than that. Any thread. */
    std::uint32_t shownPosition() const { return own_.head.load(std::memory_order_relaxed); }
    bool hasMoreThanShown() const { return peer_.tail.load() != shownPosition(); }

private:
    Result nextFrame(AddressedMessage& message);
    Result firstFrame(FrameHead const& head, std::uint32_t mark, AddressedMessage& message);
    void copyOut(unsigned char* to, std::uint32_t position, std::uint32_t length) const;
    Result endFrame(FrameHead const& head, AddressedMessage& message);
    void keepAll() { own_.head.store(head_, std::memory_order_release); }
    void keepForOwner();
    void pass() { deferred_.has_value() ? deferred_->passed(head_) : keepAll(); }

    ControlPage& own_;
    ControlPage const& peer_;
    RingArea area_;
    std::uint32_t const placesFrom_;
    std::optional<DeferredHead> deferred_;  // for an owner who releases
    std::uint32_t head_ = 0;
    std::uint32_t tail_ = 0;       // as last read from the peer
    std::uint32_t lastFrame_ = 0;  // bytes of it
    std::uint32_t sleepCount_ = 0;
    std::uint32_t lastWant_ = 0;
    AddressedMessage partial_;     // being put together; empty when there was no memory
    std::uint32_t partTotal_ = 0;  // its size; 0 when none is being put together
    std::uint32_t partDone_ = 0;
    PeerShare::Reservation unfinished_;  // for it, when it comes in pieces
    std::uint32_t partMark_ = 0;         // 0 or kSentBack; stays when the message is complete
};

}  // namespace Transport
