#pragma once

#include <optional>

#include "ipprmi/TipprmiStream.h"

/**
 * One encoded value in a stream of its own. Copies share the buffer; an any whose buffer is shared
 * gets a new one before it is written. Its stream (100 data bytes of room) is allocated when first
 * used. The value's type is not recorded: extracting another type than was inserted reads the bytes
 * as that type. A value without lock: one thread at a time, but copies in several threads are
 * independent of each other.
 *
 * Wire form: int data length, data. The data alone, without the length, is what a receiver reads as
 * the value itself: writeBare, takeBare and takeRest turn arguments and results of calls into anys
 * and back, for programs that do not know their types.
 */
class REFLECTORB_API TipprmiAny {
public:
    /** Replaces the content by `value`. */
    template <class T>
    TipprmiAny& insert(T const& value) {
        writable() << value;
        return *this;
    }
    /** Reads the content from its start, as often as wanted. A read past its end fails for good:
     * until the next insert every extraction yields zeros. */
    template <class T>
    TipprmiAny& extract(T& value) {
        TipprmiStream& stream = readable();
        stream >> value;
        return *this;
    }
    /** Whether there is no content. */
    bool empty() const { return !stream_ || stream_->empty(); }

    /** Appends the content to `stream`, without a length. */
    TipprmiStream& writeBare(TipprmiStream& stream) const;
    /** Takes the next `n` bytes of `stream` as content. False, in silence and with any and stream
     * as they were, when it has not that many left. */
    bool takeBare(TipprmiStream& stream, int n);
    /** Takes all bytes that `stream` has left as content; false without memory for them. */
    bool takeRest(TipprmiStream& stream) { return takeBare(stream, stream.getUnreadSize()); }
    /** Replaces the content by `n` bytes, which may be its own. False, with the content as it was,
     * when there is no memory for them or they are more than a message holds. */
    bool setData(void const* source, int n);
    /** The content; null when there has been none yet. */
    unsigned char const* getDataPtr() const { return stream_ ? stream_->getDataPtr() : nullptr; }
    /** Number of bytes of the content. */
    int getDataSize() const { return stream_ ? stream_->getDataSize() : 0; }

    /** Whether a read of this any has failed, or its value was too large. */
    bool hasUnmarshallingFailed() const { return stream_ && stream_->hasUnmarshallingFailed(); }

    friend REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiAny const& value);
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiAny& value);

private:
    /** An empty stream that nobody else shares. */
    TipprmiStream& writable();
    /** The stream, rewound. */
    TipprmiStream& readable();
    /** Takes the next any of `stream` as content; none when its length is below 1. */
    void read_(TipprmiStream& stream);

    static constexpr int kInitialRoom = 100;  // data bytes; small values never grow it

    std::optional<TipprmiStream> stream_;  // none until first used
};
