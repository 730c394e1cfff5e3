// The broker's view of a transport message: its header, labels and validation.
#include <algorithm>
#include <cstring>

#include "ipprmi/BigEndian.h"
#include "logging/LineLimit.h"
#include "reflect/TreflectMessage.h"
// A floor above: messages take their buffers from the broker that will send them.
#include "reflect/TreflectORB.h"

namespace {

constexpr char const* kSource = "ReflectMessage";
/** How many of a kind of report pass before they are limited: others can send what causes one. */
constexpr unsigned kMostAtFirst = 100;
/** The priority of every message of this system. */
constexpr int kPriority = 5;

constexpr std::size_t kTransactionIdOffset = 0;
constexpr std::size_t kTypeOffset = 4;
constexpr std::size_t kKindOffset = 8;

/** `reserve` payload bytes are the room kept for growth, when more than `size`. */
Transport::AddressedMessage allocate(TreflectORB const* orb, unsigned int size,
                                     std::uint64_t reserve = 0) {
    std::uint64_t const whole = std::uint64_t{size} + TreflectMessage::kHeaderSize;
    if (whole > Transport::kLargestMessage)
        return {};
    auto const bytes = static_cast<std::size_t>(whole);
    auto const capacity = static_cast<std::size_t>(std::min<std::uint64_t>(
        reserve + TreflectMessage::kHeaderSize, Transport::kLargestMessage));
    if (orb)
        return orb->allocateMessage(bytes, kPriority, capacity);
    return Transport::AddressedMessage::allocate(bytes, capacity);
}

/** The number of the last failing check, 0 when all hold. */
int findError(TreflectMessage const& message, TreflectMessage::kind_t expected) {
    int error = 0;
    if (message.destination().value() == 0)
        error = 1;
    if (message.originator().value() == 0)
        error = 2;
    if (message.originator() == message.destination())
        error = 3;
    if (message.type() == TreflectMessage::tUndef)
        error = 4;
    if (message.kind() == TreflectMessage::kUndef)
        error = 5;
    if (expected != TreflectMessage::kUndef && expected != message.kind())
        error = 6;
    return error;
}

}  // namespace

TreflectMessage::TreflectMessage(Transport::AddressedMessage const& message) : message_(message) {}

TreflectMessage::TreflectMessage(TreflectORB const* orb, unsigned int const& transactionId,
                                 unsigned int size)
    : message_(allocate(orb, size)) {
    this->transactionId(transactionId);
}

TreflectMessage::TreflectMessage(TreflectORB const* orb, TreflectMessage const& other,
                                 unsigned int size)
    // Whoever needs more room once needs it again: twice as much is kept ready.
    : message_(allocate(orb, std::min(size, other.size()),
                        size > other.size() ? std::uint64_t{size} * 2 : 0)) {
    std::size_t const bytes = std::min(message_.size(), other.message_.size());
    if (bytes >= kHeaderSize)
        std::memcpy(message_.buf(), other.message_.buf(), bytes);
    if (size > other.size() && !extend(size))
        message_ = Transport::AddressedMessage();
}

bool TreflectMessage::reserve(TreflectORB const* orb, unsigned int size) {
    unsigned int const present = this->size();
    if (extend(size))
        return extend(present);
    if (message_.size() < kHeaderSize)
        return false;
    Transport::AddressedMessage roomy = allocate(orb, present, size);
    if (roomy.empty())
        return false;
    std::memcpy(roomy.buf(), message_.buf(), message_.size());
    message_ = std::move(roomy);
    return true;
}

std::uint32_t TreflectMessage::field_(std::size_t offset) const {
    if (message_.size() < kHeaderSize)
        return 0;
    return ipprmi::loadBigEndian(message_.buf() + offset);
}

void TreflectMessage::field_(std::size_t offset, std::uint32_t value) {
    if (message_.size() >= kHeaderSize)
        ipprmi::storeBigEndian(message_.buf() + offset, value);
}

TreflectMessage::kind_t TreflectMessage::kind() const {
    return static_cast<kind_t>(field_(kKindOffset));
}

TreflectMessage::type_t TreflectMessage::type() const {
    return static_cast<type_t>(field_(kTypeOffset));
}

unsigned int TreflectMessage::transactionId() const {
    return field_(kTransactionIdOffset);
}

void TreflectMessage::kind(kind_t value) {
    field_(kKindOffset, value);
}

void TreflectMessage::type(type_t value) {
    field_(kTypeOffset, value);
}

void TreflectMessage::transactionId(unsigned int const& value) {
    field_(kTransactionIdOffset, value);
}

std::string TreflectMessage::kindToStr(kind_t const& kind) const {
    switch (kind) {
        case kUndef:
            return "kUndef";
        case kMsg:
            return "kMsg  ";
        case kRequest:
            return "kRequ.";
        case kResponse:
            return "kResp.";
        case kNoDestination:
            return "kNoDes";
        case kResponseFailure:
            return "kReFai";
    }
    return "k?????";
}

std::string TreflectMessage::typeToStr(type_t const& type) const {
    switch (type) {
        case tUndef:
            return "tUndef";
        case tResolve:
            return "tRslve";
        case tPayload:
            return "tPayld";
        case tOCN:
            return "tOCN  ";
        case tODN:
            return "tODN  ";
        case tOCNSubscribe:
            return "tOCNSU";
        case tODNSubscribe:
            return "tODNSU";
        case tOCNUnsubscribe:
            return "tOCNUN";
        case tODNUnsubscribe:
            return "tODNUN";
        case tOrbAppeared:
            return "tOrbAp";
        case tPerfCounters:
            return "tPfCnt";
    }
    return "t?????";
}

bool TreflectMessage::testValidation(kind_t expected, int line, char const* place, bool output,
                                     int /*unused*/) const {
    int const error = findError(*this, expected);
    if (error != 0) {
        static Logging::LineLimit limit(kMostAtFirst);
        REFLECTORB_LOG_LIMITED(
            limit, 3, kSource,
            "    ReflMsg err=%2d: %s, %s(%s), des=%08X, org=%08X, trAcId=%08X (%2d: %s)", error,
            typeToStr(type()).c_str(), kindToStr(kind()).c_str(), kindToStr(expected).c_str(),
            destination().value(), originator().value(), transactionId(), line, place ? place : "");
    } else if (output) {
        static Logging::LineLimit limit(kMostAtFirst);
        REFLECTORB_LOG_LIMITED(
            limit, 5, kSource,
            "    ReflMsg output: %s, %s(%s), des=%08X, org=%08X, trAcId=%08X (%2d: %s)",
            typeToStr(type()).c_str(), kindToStr(kind()).c_str(), kindToStr(expected).c_str(),
            destination().value(), originator().value(), transactionId(), line, place ? place : "");
    }
    return error == 0 || error == 1;
}
