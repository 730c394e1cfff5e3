#pragma once

#include <string>

#include "WireText.h"
#include "ipprmi/TipprmiStream.h"

/** The data of a stream in hexadecimal, without blanks. */
inline std::string hex(TipprmiStream const& stream) {
    return wire::hex(stream.getDataPtr(), static_cast<std::size_t>(stream.getDataSize()));
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
