#pragma once

#include <memory>

#include "ipprmi/TipprmiStream.h"

/**
 * One encoded value in a stream of its own. Copies share the buffer; an any whose buffer is shared
 * gets a new one before it is written. Its stream (100 data bytes of room) is allocated when first
 * used. The value's type is not recorded: extracting another type than was inserted reads the bytes
 * as that type.
 *
 * Wire form: int data length, data.
 */
class REFLECTORB_API TipprmiAny {
public:
    TipprmiAny();
    TipprmiAny(TipprmiAny const& other);
    TipprmiAny& operator=(TipprmiAny const& other);
    ~TipprmiAny();

    /** Replaces the content by `value`. */
    template <class T>
    TipprmiAny& insert(T const& value) {
        writable() << value;
        return *this;
    }
    /** Reads the content from its start, as often as wanted. */
    template <class T>
    TipprmiAny& extract(T& value) {
        TipprmiStream& stream = readable();
        stream >> value;
        return *this;
    }
    bool empty() const;
    /** Whether a read of this any has failed. */
    bool hasUnmarshallingFailed() const;

    friend REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiAny const& value);
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiAny& value);

private:
    /** An empty stream that nobody else shares. */
    TipprmiStream& writable();
    /** The stream, rewound. */
    TipprmiStream& readable();

    std::unique_ptr<TipprmiStream> stream_;  // null until first used
};
