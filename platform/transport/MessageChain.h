#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/transport/MessagePool.h"
#include "transport/AddressedMessage.h"

namespace Transport {

/** As AddressedMessage::allocate, for bytes that are overwritten at once: of unknown content. */
AddressedMessage allocateUninitialized(std::size_t size);
/** A message of the same bytes and addresses in a buffer of its own; empty when memory has run out.
 */
AddressedMessage copyOf(AddressedMessage const& message);
/** Whether the message came back once and was sent again. */
bool wasSentAgain(AddressedMessage const& message);
void noteSentAgain(AddressedMessage& message);

/** How much may wait in one queue. Whoever waits for an answer cannot send it again, so answers
 * find room where all else is refused. */
enum class Room : std::size_t {
    Usual = std::size_t{64} * 1024 * 1024,
    ForAnswers = std::size_t{72} * 1024 * 1024
};

/**
 * First in, first out, linked through the blocks: needs no memory of its own. Holds messages that
 * have no other owner, since a block can be in one queue only. A resource without a lock.
 */
class MessageChain {
public:
    /** What is known of one message, in a queue or not. */
    static bool isMarked(AddressedMessage const& message, MessageMark mark) {
        return message.block_ != nullptr && message.block_->has(mark);
    }
    static void mark(AddressedMessage& message, MessageMark mark) {
        if (message.block_ != nullptr)
            message.block_->marks |= static_cast<std::uint8_t>(mark);
    }
    /** Where a message ended in the ring that it has come out of; kNotInRing: it has not. */
    static std::uint32_t endInRing(AddressedMessage const& message) {
        return message.block_ != nullptr ? message.block_->endInRing : MessageBlock::kNotInRing;
    }
    static void endInRing(AddressedMessage& message, std::uint32_t end) {
        message.block_->endInRing = end;
    }

    MessageChain() = default;
    ~MessageChain() { clear(); }
    MessageChain(MessageChain&& other) noexcept { swap(other); }
    MessageChain(MessageChain const&) = delete;
    MessageChain& operator=(MessageChain const&) = delete;

    bool empty() const { return first_ == nullptr; }
    /** What the queue weighs against a byte limit: the messages and their heads. */
    std::size_t bytes() const { return bytes_; }
    std::size_t count() const { return count_; }
    static std::size_t weight(std::size_t messageSize) {
        return messageSize + sizeof(MessageBlock);
    }
    bool hasRoomFor(std::size_t messageSize, Room room) const {
        return bytes_ + weight(messageSize) <= static_cast<std::size_t>(room);
    }

    void push(AddressedMessage message) {
        MessageBlock* block = std::exchange(message.block_, nullptr);
        block->next = nullptr;
        (first_ == nullptr ? first_ : last_->next) = block;
        last_ = block;
        bytes_ += weight(block->size);
        ++count_;
    }
    /** The oldest message, or an empty handle. */
    AddressedMessage pop() {
        MessageBlock* block = first_;
        if (block == nullptr)
            return {};
        first_ = block->next;
        block->next = nullptr;
        bytes_ -= weight(block->size);
        --count_;
        return AddressedMessage(block);
    }
    /** The oldest message, which stays in the queue; null when there is none. */
    MessageBlock const* front() const { return first_; }
    /** The latest one; only when the queue is not empty. */
    MessageBlock& back() { return *last_; }
    /** Takes over all messages of `other`, behind those that are here. */
    void append(MessageChain& other) {
        while (!other.empty())
            push(other.pop());
    }
    void markAll(MessageMark mark) {
        for (MessageBlock* block = first_; block != nullptr; block = block->next)
            block->marks |= static_cast<std::uint8_t>(mark);
    }
    void swap(MessageChain& other) {
        std::swap(first_, other.first_);
        std::swap(last_, other.last_);
        std::swap(bytes_, other.bytes_);
        std::swap(count_, other.count_);
    }
    void clear() {
        while (!empty())
            pop();
    }

private:
    MessageBlock* first_ = nullptr;
    MessageBlock* last_ = nullptr;  // valid while first_ is not null
    std::size_t bytes_ = 0;
    std::size_t count_ = 0;
};

}  // namespace Transport
