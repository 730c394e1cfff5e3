#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "ipprmi/TipprmiScalar.h"
#include "reflect/NamespaceId.h"
#include "reflect/TreflectMessage.h"
#include "transport/TerminationId.h"

/**
 * The byte stream in which every request, response, notice and nested value is encoded. It writes
 * into and reads out of the payload of a TreflectMessage directly: a filled stream is a message
 * ready to be sent. A value; copies share the message's buffer. No lock: one thread at a time.
 *
 * Payload layout:
 *
 * | offset | width | field |
 * |---|---|---|
 * | 0 | 4 | iptr_: number of data bytes written, most significant byte first |
 * | 4 | iptr_ | data: the encodings in the order written, no padding, no tags |
 * | 4 + iptr_ | rest | unused |
 *
 * A read past the data yields zeros and sets a flag; later reads then yield zeros silently, so a
 * caller may read a whole list and test hasUnmarshallingFailed() once. A write that finds no room
 * (the largest message is 16 MiB, or memory has run out) is dropped and sets the same flag; what
 * hasMarshallingFailed() alone answers. Such a stream is not sent; one of which only a read has
 * failed is.
 *
 * An arrived iptr_ is not trusted: reads stop at the end of the buffer, whatever it claims. A
 * stream without a buffer (memory has run out) is empty.
 *
 * Growing makes the capacity exactly what the write needs, as getDataLimit shows it; behind it the
 * buffer keeps hidden room, so n small writes cost O(n).
 */
class REFLECTORB_API TipprmiStream {
public:
    /** Room for the arguments or the results of most calls; a stream grows beyond it. */
    static constexpr int kUsualSize = 100;

    /** An empty stream with room for max(size, 1) data bytes. */
    explicit TipprmiStream(int size);
    /** A stream that holds the `n` bytes at `data` (null: zeros). */
    TipprmiStream(void const* data, int n);
    /** A stream over a message's buffer; `clear`: emptied for writing, else to read what it holds.
     */
    TipprmiStream(TreflectMessage const& message, bool clear);
    /** An empty stream without a buffer, which it takes when something is written; for a response,
     * which mostly brings its own. For the library's own use, as is the next. */
    static TipprmiStream withoutBuffer_();
    /** Gives a stream without a buffer the usual room. */
    void ensureBuffer_();
    /** Shares the buffer of `other`; the read position and the flags are copied. */
    TipprmiStream(TipprmiStream const& other);
    TipprmiStream& operator=(TipprmiStream const& other);
    ~TipprmiStream() = default;

    /** Appends `n` raw bytes, which may be the stream's own. Nothing when `n` is below 1. */
    TipprmiStream& marshall(void const* source, int n);
    /** Takes the next `n` raw bytes; a null destination skips them. */
    TipprmiStream& unmarshall(void* destination, int n);
    /**
     * Reads the length of a text or a nested value; 0 when it is below 1. Any length up to
     * kAcceptedLength is taken as it is; a greater one than the bytes that remain fails the read.
     */
    int readLength();
    /**
     * Reads the number of elements of a list. Any count up to kAcceptedCount is taken as it is; a
     * greater one than the bytes that remain could hold, at four bytes each, fails the read and
     * gives 0.
     */
    unsigned int readCount();
    /**
     * The same for elements of at least `leastSize` bytes each, and trusting nobody: a count of
     * more than the bytes that remain could hold fails the read. Of elements without bytes there
     * may be kAcceptedCount.
     */
    unsigned int readCount(std::size_t leastSize);
    /** What a reader allocates on the word of a sender, before it looks at what has arrived: enough
     * for every real value, too little to exhaust the memory. */
    static constexpr int kAcceptedLength = 1024 * 1024;
    static constexpr unsigned int kAcceptedCount = 65536;
    /** How many values may stand within each other: elements of sequences and maps, the values of
     * optionals and variants. Deeper ones are neither written nor read. */
    static constexpr int kMaxNesting = 64;

    /** Makes room for `n` more bytes, which count as written, and answers where they go: for many
     * numbers at a time. Null, and the write is dropped, when there is no room. Of use until the
     * stream is written or copied. */
    unsigned char* append(std::size_t n);
    /** The next `n` bytes, which count as read; null when the read has failed. They are there until
     * the stream is written. */
    unsigned char const* take(std::size_t n);
    /** Reads a text, or bytes, where they lie instead of copying them; they are there as long as
     * those of `take`. Empty when the read has failed. */
    std::string_view takeText();
    /** Makes ready for `n` more bytes, so that writing them does not move what is there. The
     * capacity stays as it is; without memory for so much nothing happens. */
    void reserve(std::size_t n);

    /** Replaces the whole content by `n` bytes (null: zeros); the read position and the flag are
     * reset. */
    void setData(void const* source, int n);
    /** Puts the read position back to the start; keeps data and flag. */
    void rewind() { optr_ = 0; }
    /** Empties the stream and clears the flag. */
    void clear();
    /** Whether there are no data bytes. */
    bool empty() const { return getDataSize() == 0; }

    /** The message whose payload the stream is. */
    TreflectMessage& msg() { return message_; }
    TreflectMessage const& msg() const { return message_; }
    /** The data bytes; null when the buffer has no room for any stream. */
    unsigned char* getDataPtr() { return view_().data; }
    unsigned char const* getDataPtr() const { return view_().data; }
    /** Number of data bytes written; not more than getDataLimit(). */
    int getDataSize() const { return static_cast<int>(view_().size()); }
    /** Number of data bytes that are still to be read: the last ones there are; 0 when a read has
     * failed. */
    int getUnreadSize() const;
    /** Room for data bytes in the present buffer. */
    int getDataLimit() const { return static_cast<int>(view_().limit); }

    /** Makes every further read fail. */
    void stopUnmarshalling() { failed_ = true; }
    /** Says that the content is incomplete, as a write does that is dropped: it is not sent. */
    void stopMarshalling() { dropWrite_(); }
    /** Whether a read has failed, until the stream is cleared or its content replaced. */
    bool hasUnmarshallingFailed() const { return failed_; }
    /** Whether a write was dropped: the content is incomplete, until it is cleared or replaced. */
    bool hasMarshallingFailed() const { return writeDropped_; }
    /** Logs at level 4 that the arguments or the result of a call could not be read. */
    void printUnmarshallError(unsigned int cc, unsigned int mc) const;

    /** Lives while values are written or read that stand within another one. A value that is too
     * deep is not allowed, which makes the write, or the read, fail. */
    class REFLECTORB_API Level {
    public:
        /** What is done with the values. */
        enum Direction { kWriting, kReading };

        /** One level deeper, until it is destroyed. */
        Level(TipprmiStream& stream, Direction direction)
            : stream_(stream), allowed_(++stream.nesting_ <= kMaxNesting || refuse_()) {
            if (!allowed_ && direction == kWriting)
                stream.stopMarshalling();
            else if (!allowed_)
                stream.stopUnmarshalling();
        }
        ~Level() { --stream_.nesting_; }
        Level(Level const&) = delete;
        Level& operator=(Level const&) = delete;

        /** False when the value is too deep: leave it alone. */
        bool isAllowed() const { return allowed_; }

    private:
        /** Logs that it is too deep; false. */
        static bool refuse_();

        TipprmiStream& stream_;
        bool const allowed_;
    };

private:
    friend class TipprmiAny;
    friend REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream,
                                                    TipprmiStream const& value);
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, std::string& value);
    friend REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiStream& value);

    /** One look at the payload, since asking the message for its parts costs a call each. */
    struct View {
        unsigned char* data;   // null when there is no room for any stream
        unsigned int written;  // iptr_ as it stands there, whatever that is; 0 without data
        unsigned int limit;    // room for data bytes

        unsigned int size() const { return written < limit ? written : limit; }
        bool holds(void const* byte) const {
            std::less<> const before;
            return data && !before(byte, data) && before(byte, data + limit);
        }
    };
    View view_() const;

    int iptr_() const { return static_cast<int>(view_().written); }
    void iptr_(int const& value);
    /** Makes room for `n` more bytes and brings `view` up to date; whether there is room now. */
    bool allocate_(int n, View& view);
    /** Moves to a buffer with room for `dataSize` data bytes; whether there is one. */
    bool reallocate_(std::uint64_t dataSize);
    /** Logs when more bytes are claimed to be written than there is room for. */
    void checkRange_() const { checkRange_(view_()); }
    void checkRange_(View const& view) const {
        if (view.written > view.limit)
            logOutOfRange_(view);
    }
    void logOutOfRange_(View const& view) const;
    void failRead_(int n);
    void dropWrite_();

    int optr_ = 0;  // read position, from the first data byte
    TreflectMessage message_;
    std::uint16_t nesting_ = 0;  // how many Levels there are; not copied
    bool failed_ = false;
    bool writeDropped_ = false;  // then failed_ holds too; spreads to streams this one is nested in
};

/**
 * The encodings. Numbers and lengths have 4 bytes, most significant first; numbers of 64 bits have
 * 8. Those of containers are in TipprmiContainers.h, that of structs in TipprmiStruct.h.
 *
 * | type | written | read |
 * |---|---|---|
 * | unsigned int, int | 4 bytes | 4 bytes |
 * | std::int8_t, std::uint8_t, std::int16_t, std::uint16_t | 4 bytes, as int or unsigned int | fails when it is out of range |
 * | std::int64_t, std::uint64_t | 8 bytes | 8 bytes |
 * | float, double | 4 or 8 bytes of IEEE 754 | the same |
 * | char | 4 bytes, 0 to 255 | fails when it is out of range |
 * | wchar_t, char16_t, char32_t | 4 bytes | fails when it is out of range |
 * | enums | 4 bytes, their value | any value that their type holds |
 * | bool | int 1 or 0 | any int but 0 is true |
 * | NamespaceId | its value as unsigned int | consumed, the target stays as it is |
 * | char const* | int length, characters, no NUL (null: length 0) | see char*& |
 * | char*& | see char const* | new[] text with a NUL, the caller's to delete[] |
 * | std::string | int length, bytes | the bytes; cleared when the length is below 1 |
 * | std::string_view | as std::string | as an argument of `serve` only: nothing else owns the bytes |
 * | TipprmiStream | int data size, data | contents replaced; untouched when the size is below 1 |
 * | Transport::TerminationId | 4 raw bytes in host order | the same |
 *
 * A text or nested value whose length is there but whose bytes are not reads as that many zeros.
 * A `long` is taken only where it is std::int64_t, and so is a std::size_t: it compiles on a 64-bit
 * machine and not on one of 32 bits, whose peers would expect other bytes. What has no operators,
 * and a pointer other than those to characters, does not compile.
 */
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, unsigned int value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, int value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, bool value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, NamespaceId value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, char const* value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, std::string const& value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, std::string_view value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, TipprmiStream const& value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream,
                                         Transport::TerminationId const& value);

REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, unsigned int& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, int& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, bool& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, NamespaceId& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, char*& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, std::string& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, TipprmiStream& value);
REFLECTORB_API TipprmiStream& operator>>(TipprmiStream& stream, Transport::TerminationId& value);

// ---- Other numbers, and enums ------------------------------------------------------------------

template <class T, std::enable_if_t<tipprmi::isNumber<T>, int> = 0>
TipprmiStream& operator<<(TipprmiStream& stream, T value) {
    static_assert(tipprmi::isPortable<T>, "this number has not the same size on every machine");
    unsigned char bytes[tipprmi::kNumberSize<T>];
    tipprmi::store(bytes, value);
    return stream.marshall(bytes, sizeof bytes);
}

template <class T, std::enable_if_t<tipprmi::isNumber<T>, int> = 0>
TipprmiStream& operator>>(TipprmiStream& stream, T& value) {
    static_assert(tipprmi::isPortable<T>, "this number has not the same size on every machine");
    unsigned char bytes[tipprmi::kNumberSize<T>];
    stream.unmarshall(bytes, sizeof bytes);
    if (!tipprmi::load(bytes, value))
        stream.stopUnmarshalling();
    return stream;
}

template <class T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
TipprmiStream& operator<<(TipprmiStream& stream, T value) {
    static_assert(sizeof(T) <= 4, "an enum travels as a number of 4 bytes");
    return stream << static_cast<unsigned int>(static_cast<std::underlying_type_t<T>>(value));
}

template <class T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
TipprmiStream& operator>>(TipprmiStream& stream, T& value) {
    static_assert(sizeof(T) <= 4, "an enum travels as a number of 4 bytes");
    unsigned int number = 0;
    stream >> number;
    auto const held = static_cast<std::underlying_type_t<T>>(number);
    if (static_cast<unsigned int>(held) != number)
        stream.stopUnmarshalling();
    value = stream.hasUnmarshallingFailed() ? T() : static_cast<T>(held);
    return stream;
}

// ---- What cannot be written or read ------------------------------------------------------------

namespace tipprmi {

/** What the operators below answer, so that they can be distinguished. There is none. */
class NoOperators : public TipprmiStream {
    NoOperators() = delete;
};

/** Whether T has an operator<< (or an operator>>) for TipprmiStream. */
template <class T>
inline constexpr bool isWritable =
    std::is_same_v<decltype(std::declval<TipprmiStream&>() << std::declval<T const&>()),
                   TipprmiStream&>;
template <class T>
inline constexpr bool isReadable =
    std::is_same_v<decltype(std::declval<TipprmiStream&>() >> std::declval<T&>()), TipprmiStream&>;

// Made by conversion, so that every other operator is preferred.
struct StreamOfAnything {
    StreamOfAnything(TipprmiStream& stream);
};
struct Unwritable {
    template <class T>
    Unwritable(T const&) {
        static_assert(isWritable<T>,
                      "T has no operator<< for TipprmiStream: write one, or list "
                      "the members of a struct with REFLECTORB_STRUCT");
    }
};
struct Unreadable {
    template <class T>
    Unreadable(T&) {
        constexpr bool isView = std::is_pointer_v<T> || std::is_same_v<T, std::string_view>;
        static_assert(!isView, "nothing would own the bytes that are read: take a std::string");
        static_assert(isView || isReadable<T>,
                      "T has no operator>> for TipprmiStream: write one, or list "
                      "the members of a struct with REFLECTORB_STRUCT");
    }
};

}  // namespace tipprmi

tipprmi::NoOperators& operator<<(tipprmi::StreamOfAnything, tipprmi::Unwritable const&);
tipprmi::NoOperators& operator>>(tipprmi::StreamOfAnything, tipprmi::Unreadable const&);

/** A pointer would be written as a bool. */
template <class T, std::enable_if_t<!std::is_same_v<std::remove_const_t<T>, char>, int> = 0>
tipprmi::NoOperators& operator<<(TipprmiStream& stream, T*) {
    static_assert(!std::is_same_v<T, T>,
                  "a pointer means nothing elsewhere: write what it leads to");
    return static_cast<tipprmi::NoOperators&>(stream);
}
template <class Member, class Class>
tipprmi::NoOperators& operator<<(TipprmiStream& stream, Member Class::*) {
    static_assert(!std::is_same_v<Class, Class>, "a pointer to a member means nothing elsewhere");
    return static_cast<tipprmi::NoOperators&>(stream);
}

// They need the stream, and every user of it may need them.
#include "ipprmi/TipprmiContainers.h"
