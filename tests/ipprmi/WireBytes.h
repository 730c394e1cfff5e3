#pragma once

#include <cstdio>
#include <string>

#include "ipprmi/TipprmiStream.h"

/** The data of a stream in hexadecimal, without blanks. */
inline std::string hex(TipprmiStream const& stream) {
    std::string text;
    for (int i = 0; i < stream.getDataSize(); ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", stream.getDataPtr()[i]);
        text += digits;
    }
    return text;
}

template <class T>
std::string wireForm(T const& value) {
    TipprmiStream stream(100);
    stream << value;
    return hex(stream);
}

/** A stream over an arrived payload, which claims `written` data bytes and has `room` of them. */
inline TipprmiStream arrived(unsigned int written, unsigned int room) {
    TreflectMessage message(nullptr, 7, 4 + room);
    for (unsigned int i = 0; i < 4; ++i)
        message.buf()[i] = static_cast<unsigned char>(written >> (24 - 8 * i));
    return TipprmiStream(message, false);
}
