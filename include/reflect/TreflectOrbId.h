#pragma once

#include <cstdint>

#include "reflect/NamespaceId.h"

/**
 * Address of a broker, 32 bits. Slot 0 in NSID_UNIT stands for the unit's own current slot, so that
 * an id given to others stays valid when the active slot changes. 0 is no broker.
 *
 * | bits | field |
 * |---|---|
 * | 0 to 15 | name id |
 * | 16 to 23 | slot id |
 * | 24 to 31 | namespace id |
 */
class TreflectOrbId {
public:
    constexpr TreflectOrbId() = default;
    /** From the number that `value` yields. */
    constexpr TreflectOrbId(unsigned int value) : value_(value) {}
    /** From its fields. */
    constexpr TreflectOrbId(unsigned short nameId, unsigned char slotId, NamespaceId namespaceId)
        : value_(static_cast<std::uint32_t>(nameId) | static_cast<std::uint32_t>(slotId) << 16 |
                 (static_cast<std::uint32_t>(namespaceId) & 0xFFu) << 24) {}

    /** All fields as one number, as it travels; 0 for no broker. */
    constexpr unsigned int value() const { return value_; }
    /** The fields of the table above. */
    constexpr unsigned short nameId() const { return static_cast<unsigned short>(value_ & 0xFFFF); }
    constexpr unsigned char slotId() const {
        return static_cast<unsigned char>(value_ >> 16 & 0xFF);
    }
    constexpr NamespaceId namespaceId() const { return static_cast<NamespaceId>(value_ >> 24); }

    friend constexpr bool operator==(TreflectOrbId a, TreflectOrbId b) {
        return a.value_ == b.value_;
    }
    friend constexpr bool operator!=(TreflectOrbId a, TreflectOrbId b) {
        return a.value_ != b.value_;
    }
    friend constexpr bool operator<(TreflectOrbId a, TreflectOrbId b) {
        return a.value_ < b.value_;
    }

private:
    std::uint32_t value_ = 0;
};
