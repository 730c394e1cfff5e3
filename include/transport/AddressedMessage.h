#pragma once

#include <cstddef>
#include <utility>

#include "oswrap/Export.h"
#include "transport/TerminationId.h"

namespace Transport {

struct MessageBlock;

/** The largest message in bytes; the allocation of a larger one fails. */
constexpr std::size_t kLargestMessage = 16u * 1024u * 1024u;

/**
 * A handle on one message buffer with its two addresses. Copies share the buffer (reference
 * counted, atomically), so a change made through one copy is seen by all. Buffers come from a pool
 * and go back to it: a call costs no heap allocation once the pool is warm. An empty handle has no
 * buffer and size 0.
 */
class REFLECTORB_API AddressedMessage {
public:
    AddressedMessage() = default;
    /** Shares the buffer of `other`. */
    AddressedMessage(AddressedMessage const& other);
    /** Takes over the buffer of `other`, which is empty then. */
    AddressedMessage(AddressedMessage&& other) noexcept
        : block_(std::exchange(other.block_, nullptr)) {}
    /** Lets go of the buffer that it has, and shares that of `other`. */
    AddressedMessage& operator=(AddressedMessage const& other);
    /** Exchanges the buffers. */
    AddressedMessage& operator=(AddressedMessage&& other) noexcept {
        std::swap(block_, other.block_);
        return *this;
    }
    ~AddressedMessage();

    /**
     * A zero-filled buffer of `size` bytes without addresses. `capacity` (when larger) reserves
     * room behind it for `extend`. Empty when `size` exceeds kLargestMessage or memory has run out.
     */
    static AddressedMessage allocate(std::size_t size, std::size_t capacity = 0);

    /** Whether there is no buffer. */
    bool empty() const { return block_ == nullptr; }
    /** The bytes; null without a buffer. They stay where they are until the last handle goes. */
    unsigned char* buf();
    unsigned char const* buf() const;
    /** Number of bytes; 0 without a buffer. */
    std::size_t size() const;
    /** Who sent it and to whom; no termination as long as that is not set, or without a buffer. */
    TerminationId originator() const;
    TerminationId destination() const;
    /** Set them for all handles on the buffer; no effect without one. `issue` sets the
     * destination. */
    void originator(TerminationId id);
    void destination(TerminationId id);

    /**
     * Makes the buffer `size` bytes long in place; the new bytes hold anything until the caller
     * writes them. Only when this handle is the buffer's sole owner and the reserved room suffices;
     * otherwise false and nothing changes.
     */
    bool extend(std::size_t size);

private:
    friend class MessageChain;
    friend AddressedMessage allocateUninitialized(std::size_t size);
    friend bool wasSentAgain(AddressedMessage const& message);
    friend void noteSentAgain(AddressedMessage& message);
    explicit AddressedMessage(MessageBlock* block) : block_(block) {}

    MessageBlock* block_ = nullptr;  // counted reference, null when empty
};

}  // namespace Transport
