// Bytes as hexadecimal digits, as tests of the wire format write and compare them.
#pragma once

#include <boost/algorithm/hex.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "ipprmi/TipprmiStream.h"
#include "reflect/TreflectOrbId.h"

namespace wire {

inline std::string bare(std::string digits) {
    digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
    return digits;
}
inline std::vector<unsigned char> bytes(std::string const& digits) {
    std::vector<unsigned char> result;
    boost::algorithm::unhex(bare(digits), std::back_inserter(result));
    return result;
}
/** Without blanks. */
inline std::string hex(void const* bytes, std::size_t size) {
    auto const* const all = static_cast<unsigned char const*>(bytes);
    std::string text;
    boost::algorithm::hex(all, all + size, std::back_inserter(text));
    return text;
}
/** With a blank behind every fourth byte. */
inline std::string spaced(std::string const& digits) {
    std::string text = bare(digits);
    for (std::size_t at = 8; at < text.size(); at += 9)
        text.insert(at, 1, ' ');
    return text;
}
inline std::string number(unsigned int value) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08X", value);
    return digits;
}
/** A text as it is encoded. */
inline std::string text(std::string const& value) {
    return number(static_cast<unsigned int>(value.size())) + hex(value.data(), value.size());
}
/** A handle as it is encoded: identifier, namespace, internal id, broker. */
inline std::string handle(std::string const& name, unsigned int ioid = 0, unsigned int broker = 0) {
    return text(name) + number(1) + number(ioid) + number(broker);
}
inline std::string handle(unsigned int ioid, TreflectOrbId orb) {
    return handle("", ioid, orb.value());
}

/** The data of a stream. */
inline std::string hex(TipprmiStream const& stream) {
    return hex(stream.getDataPtr(), static_cast<std::size_t>(stream.getDataSize()));
}
/** The data of a message. */
inline std::string data(TreflectMessage const& message) {
    return message.empty() ? "nothing came" : hex(TipprmiStream(message, false));
}
inline void write(TipprmiStream& stream, std::string const& digits) {
    for (unsigned char const byte : bytes(digits))
        stream.marshall(&byte, 1);
}
/** A value as it is encoded. */
template <class T>
std::string form(T const& value) {
    TipprmiStream stream(100);
    stream << value;
    return hex(stream);
}

}  // namespace wire
