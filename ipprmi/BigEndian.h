#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

/** Numbers in wire order, most significant byte first, at addresses of any alignment. */
namespace ipprmi {

inline std::uint32_t loadBigEndian(unsigned char const* from) {
    std::uint32_t word;
    std::memcpy(&word, from, sizeof word);
    return ntohl(word);
}

inline void storeBigEndian(unsigned char* to, std::uint32_t value) {
    std::uint32_t const word = htonl(value);
    std::memcpy(to, &word, sizeof word);
}

}  // namespace ipprmi
