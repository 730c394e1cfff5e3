#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

/**
 * How a single number lies in a stream: 4 bytes, or 8 if the number has 8, most significant byte
 * first. Used by the operators of TipprmiStream and, for many numbers at a time, by those of the
 * sequences; programs write and read numbers with the operators.
 */
namespace tipprmi {

/** Numbers, characters and bool. */
template <class T>
inline constexpr bool isNumber = std::is_arithmetic_v<T>;

/** Whether a number has the same form on every machine. A `long` has 4 bytes here and 8 there; it
 * is taken where it is std::int64_t. */
template <class T>
inline constexpr bool isPortable = sizeof(T) <= 8 && !std::is_same_v<T, long double> &&
                                   (sizeof(long) == 8 || (!std::is_same_v<T, long> &&
                                                          !std::is_same_v<T, unsigned long>));

/** Bytes of a number in a stream. */
template <class T>
inline constexpr std::size_t kNumberSize = sizeof(T) == 8 ? 8 : 4;

/** The number whose bytes in memory are those of `value` with the most significant one first;
 * and back. */
inline std::uint32_t bigEndian(std::uint32_t value) {
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? value : __builtin_bswap32(value);
}
/** The number whose bytes in memory are those of `value` with the most significant one first;
 * and back. */
inline std::uint64_t bigEndian(std::uint64_t value) {
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? value : __builtin_bswap64(value);
}

/** The word that stands for a number of at most 4 bytes: of a float its bits, of a char its value
 * as an unsigned one, since machines differ in the sign of a char. */
template <class T>
std::uint32_t wordOf(T value) {
    if constexpr (std::is_floating_point_v<T>) {
        std::uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    } else if constexpr (std::is_same_v<T, char>) {
        return static_cast<unsigned char>(value);
    } else {
        return static_cast<std::uint32_t>(value);
    }
}

/** Puts a number at any address. */
template <class T>
void store(unsigned char* to, T value) {
    if constexpr (kNumberSize<T> == 8) {
        std::uint64_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        bits = bigEndian(bits);
        std::memcpy(to, &bits, sizeof bits);
    } else {
        std::uint32_t const word = bigEndian(wordOf(value));
        std::memcpy(to, &word, sizeof word);
    }
}

/** Takes a number from any address; false, and 0, when what lies there is out of its range. Any
 * word but 0 is true. */
template <class T>
bool load(unsigned char const* from, T& value) {
    std::conditional_t<kNumberSize<T> == 8, std::uint64_t, std::uint32_t> bits;
    std::memcpy(&bits, from, sizeof bits);
    bits = bigEndian(bits);
    if constexpr (std::is_same_v<T, bool>) {
        value = bits != 0;
        return true;
    } else if constexpr (sizeof(T) == sizeof bits) {
        std::memcpy(&value, &bits, sizeof value);
        return true;
    } else {
        value = static_cast<T>(bits);
        bool const inRange = wordOf(value) == bits;
        if (!inRange)
            value = T();
        return inRange;
    }
}

}  // namespace tipprmi
