#pragma once

#include <string>

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
 * (the largest message is 16 MiB) is dropped and sets the same flag.
 */
class REFLECTORB_API TipprmiStream {
public:
    /** An empty stream with room for max(size, 1) data bytes. */
    explicit TipprmiStream(int size);
    /** A stream that holds the `n` bytes at `data`. */
    TipprmiStream(void const* data, int n);
    /** A stream over a message's buffer; `clear`: emptied for writing, else to read what it holds.
     */
    TipprmiStream(TreflectMessage const& message, bool clear);
    TipprmiStream(TipprmiStream const& other);
    TipprmiStream& operator=(TipprmiStream const& other);
    ~TipprmiStream() = default;

    /** Appends `n` raw bytes. */
    TipprmiStream& marshall(void const* source, int n);
    /** Takes the next `n` raw bytes; a null destination skips them. */
    TipprmiStream& unmarshall(void* destination, int n);
    /** Replaces the whole content by `n` bytes; the read position and the flag are reset. */
    void setData(void const* source, int n);
    /** Puts the read position back to the start; keeps data and flag. */
    void rewind() { optr_ = 0; }
    /** Empties the stream and clears the flag. */
    void clear();
    bool empty() const { return getDataSize() == 0; }

    TreflectMessage& msg() { return message_; }
    TreflectMessage const& msg() const { return message_; }
    unsigned char* getDataPtr();
    unsigned char const* getDataPtr() const;
    /** Number of data bytes written. */
    int getDataSize() const { return iptr_(); }
    /** Room for data bytes in the present buffer. */
    int getDataLimit() const;

    /** Makes every further read fail. */
    void stopUnmarshalling() { failed_ = true; }
    bool hasUnmarshallingFailed() const { return failed_; }
    /** Logs at level 4 that the arguments or the result of a call could not be read. */
    void printUnmarshallError(unsigned int cc, unsigned int mc) const;

private:
    int iptr_() const;
    void iptr_(int const& value);
    void allocate_(int n);

    int optr_ = 0;  // read position, from the first data byte
    TreflectMessage message_;
    bool failed_ = false;
};

/**
 * The encodings. Numbers and lengths have 4 bytes, most significant first.
 *
 * | type | written | read |
 * |---|---|---|
 * | unsigned int, int | 4 bytes | 4 bytes |
 * | bool | int 1 or 0 | any int but 0 is true |
 * | NamespaceId | its value as unsigned int | consumed, the target stays as it is |
 * | char const* | int length, characters, no NUL | (char*&) new[] text with a NUL, the caller's to
 * delete[] | | std::string | int length, bytes | the bytes; cleared when the length is below 1 | |
 * TipprmiStream | int data size, data | contents replaced; untouched when the size is below 1 | |
 * Transport::TerminationId | 4 raw bytes in host order | the same |
 */
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, unsigned int value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, int value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, bool value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, NamespaceId value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, char const* value);
REFLECTORB_API TipprmiStream& operator<<(TipprmiStream& stream, std::string const& value);
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
