// A number of bytes. Streams carry numbers of 32 bits, so a larger one travels in two halves: this
// is how a type of one's own becomes an argument or a result of a call.
#pragma once

#include <ipprmi.h>

#include <cstdint>

struct ByteCount {
    std::uint64_t bytes = 0;
};

inline TipprmiStream& operator<<(TipprmiStream& stream, ByteCount const& value) {
    return stream << static_cast<unsigned int>(value.bytes >> 32)
                  << static_cast<unsigned int>(value.bytes);
}

inline TipprmiStream& operator>>(TipprmiStream& stream, ByteCount& value) {
    unsigned int high = 0;
    unsigned int low = 0;
    stream >> high >> low;
    value.bytes = static_cast<std::uint64_t>(high) << 32 | low;
    return stream;
}
