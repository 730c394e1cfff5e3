#include "transport/AddressedMessage.h"

#include <algorithm>
#include <cstring>

#include "platform/transport/MessageChain.h"
#include "platform/transport/MessagePool.h"

namespace Transport {
namespace {

MessageBlock* addReference(MessageBlock* block) {
    if (block != nullptr)
        block->references.fetch_add(1, std::memory_order_relaxed);
    return block;
}

}  // namespace

AddressedMessage::AddressedMessage(AddressedMessage const& other)
    : block_(addReference(other.block_)) {}

AddressedMessage& AddressedMessage::operator=(AddressedMessage const& other) {
    AddressedMessage copy(other);
    std::swap(block_, copy.block_);
    return *this;
}

AddressedMessage::~AddressedMessage() {
    if (block_ != nullptr && block_->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        MessagePool::give(block_);
}

AddressedMessage AddressedMessage::allocate(std::size_t size, std::size_t capacity) {
    if (size > kLargestMessage)
        return {};
    AddressedMessage message(
        MessagePool::take(std::max(size, std::min(capacity, kLargestMessage))));
    if (message.block_ != nullptr) {
        message.block_->size = static_cast<std::uint32_t>(size);
        std::memset(message.block_->data(), 0, size);
    }
    return message;
}

AddressedMessage allocateUninitialized(std::size_t size) {
    if (size > kLargestMessage)
        return {};
    AddressedMessage message(MessagePool::take(size));
    if (message.block_ != nullptr)
        message.block_->size = static_cast<std::uint32_t>(size);
    return message;
}

bool wasSentAgain(AddressedMessage const& message) {
    return MessageChain::isMarked(message, MessageMark::SentAgain);
}

void noteSentAgain(AddressedMessage& message) {
    message.block_->marks = static_cast<std::uint8_t>(MessageMark::SentAgain);
}

AddressedMessage copyOf(AddressedMessage const& message) {
    AddressedMessage copy = allocateUninitialized(message.size());
    if (copy.empty())
        return copy;
    if (message.size() > 0)
        std::memcpy(copy.buf(), message.buf(), message.size());
    copy.originator(message.originator());
    copy.destination(message.destination());
    return copy;
}

unsigned char* AddressedMessage::buf() {
    return block_ != nullptr ? block_->data() : nullptr;
}

unsigned char const* AddressedMessage::buf() const {
    return block_ != nullptr ? block_->data() : nullptr;
}

std::size_t AddressedMessage::size() const {
    return block_ != nullptr ? block_->size : 0;
}

TerminationId AddressedMessage::originator() const {
    return block_ != nullptr ? block_->originator : 0u;
}

TerminationId AddressedMessage::destination() const {
    return block_ != nullptr ? block_->destination : 0u;
}

void AddressedMessage::originator(TerminationId id) {
    if (block_ != nullptr)
        block_->originator = id.value();
}

void AddressedMessage::destination(TerminationId id) {
    if (block_ != nullptr)
        block_->destination = id.value();
}

bool AddressedMessage::extend(std::size_t size) {
    if (block_ == nullptr || block_->references.load(std::memory_order_acquire) != 1)
        return false;
    if (size > block_->capacity || size > kLargestMessage)
        return false;
    block_->size = static_cast<std::uint32_t>(size);
    return true;
}

}  // namespace Transport
