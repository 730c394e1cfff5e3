#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

namespace fuzz {

/** Takes an input apart, step by step. Behind its end come zeros. */
class Script {
public:
    Script(std::uint8_t const* data, std::size_t size) : at_(data), end_(data + size) {}

    bool more() const { return at_ != end_; }
    std::uint8_t byte() { return more() ? *at_++ : std::uint8_t{0}; }
    /** Most significant byte first, as on the wire. */
    std::uint32_t number() {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | byte();
        return value;
    }
    /** As many as a length in one byte says; 255: all that are left. */
    std::string text() {
        std::size_t const length = byte();
        auto const left = static_cast<std::size_t>(end_ - at_);
        std::size_t const taken = length == 255 ? left : std::min(length, left);
        std::string bytes(reinterpret_cast<char const*>(at_), taken);
        at_ += taken;
        return bytes;
    }

private:
    std::uint8_t const* at_;
    std::uint8_t const* const end_;
};

}  // namespace fuzz
