#pragma once

#include <cstdint>
#include <functional>

namespace Transport {

/** Number of a group of terminations. */
using GroupId = std::uint8_t;

/** No group. */
constexpr GroupId GRPID_UNDEF = 0;
/** The transport's own control group. */
constexpr GroupId TRSPCTRL = 4;

/**
 * Address of a termination: 32 bits, ordered by value. The value 0 is no termination. A value.
 *
 * | bits | field |
 * |---|---|
 * | 0 to 15 | name id, unique in its slot, and among all whose address this folder has given |
 * | 16 to 23 | slot id |
 * | 24 to 31 | group id |
 */
class TerminationId {
public:
    constexpr TerminationId() = default;
    /** From the number that `value` yields. */
    constexpr TerminationId(unsigned int value) : value_(value) {}
    /** From its fields. */
    constexpr TerminationId(unsigned short nameId, unsigned char slotId, GroupId groupId)
        : value_(static_cast<std::uint32_t>(nameId) | static_cast<std::uint32_t>(slotId) << 16 |
                 static_cast<std::uint32_t>(groupId) << 24) {}

    /** All fields as one number. */
    constexpr unsigned int value() const { return value_; }
    /** The fields of the table above. */
    constexpr unsigned short nameId() const { return static_cast<unsigned short>(value_ & 0xFFFF); }
    constexpr unsigned char slotId() const {
        return static_cast<unsigned char>(value_ >> 16 & 0xFF);
    }
    constexpr GroupId groupId() const { return static_cast<GroupId>(value_ >> 24); }

    friend constexpr bool operator==(TerminationId a, TerminationId b) {
        return a.value_ == b.value_;
    }
    friend constexpr bool operator!=(TerminationId a, TerminationId b) {
        return a.value_ != b.value_;
    }
    friend constexpr bool operator<(TerminationId a, TerminationId b) {
        return a.value_ < b.value_;
    }

private:
    std::uint32_t value_ = 0;
};
static_assert(sizeof(TerminationId) == 4, "travels as its 4 bytes");

}  // namespace Transport

template <>
struct std::hash<Transport::TerminationId> {
    std::size_t operator()(Transport::TerminationId id) const noexcept { return id.value(); }
};
