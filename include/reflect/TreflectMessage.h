#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>

#include "transport/AddressedMessage.h"

class TreflectORB;

/**
 * The broker's view of a transport message. A value: copies share the buffer. The originator and
 * the destination are the transport's and are not repeated in the header.
 *
 * Header at the start of the transport's buffer, each field unsigned, most significant byte first:
 *
 * | offset | width | field | meaning |
 * |---|---|---|---|
 * | 0 | 4 | transactionId | pairs a response with its request; 0 until the sender assigns one |
 * | 4 | 4 | type | what the payload is (type_t) |
 * | 8 | 4 | kind | the role in the exchange (kind_t) |
 * | 12 | size - 12 | payload | depends on the type |
 *
 * A message without a buffer (allocation failed), or with one that is too short for the header, has
 * size 0, a null `buf`, reads as all zeros and ignores what is set.
 *
 * No lock: the handle is used by one thread at a time; whoever shares its buffer with another
 * thread must order their accesses.
 */
class REFLECTORB_API TreflectMessage final {
public:
    /** Bytes of the header. */
    static constexpr unsigned int kHeaderSize = 12;

    /** The role in the exchange. kNoDestination: a request that comes back, since it could not be
     * delivered. kResponseFailure: its sender has waited in vain for an answer. */
    enum kind_t : unsigned int {
        kUndef = 0,
        kMsg = 1,
        kRequest = 2,
        kResponse = 3,
        kNoDestination = 4,
        kResponseFailure = 5
    };

    /** What the payload is: a search for an identifier, a call, a notice of objects created
     * (OCN) or deleted (ODN), a subscription to such notices or its end, or a question for
     * counters. */
    enum type_t : unsigned int {
        tUndef = 0,
        tResolve = 1,
        tPayload = 2,
        tOCN = 3,
        tODN = 4,
        tOCNSubscribe = 5,
        tODNSubscribe = 6,
        tOCNUnsubscribe = 7,
        tODNUnsubscribe = 8,
        tOrbAppeared = 9,
        tPerfCounters = 10
    };

    /** Wraps a transport message, without copying its bytes. */
    TreflectMessage(Transport::AddressedMessage const& message);
    /** A new message of `size` payload bytes with `transactionId`; kind and type are the caller's
     * to set. A null broker gives a message without originator. Without a buffer when it would
     * exceed Transport::kLargestMessage. */
    TreflectMessage(TreflectORB const* orb, unsigned int const& transactionId, unsigned int size);
    /** A new message of `size` payload bytes that starts with the header of `other` and as much of
     * its payload as fits; what is beyond holds anything until the caller writes it. Reserves room
     * for further growth when it is larger than `other`. */
    TreflectMessage(TreflectORB const* orb, TreflectMessage const& other, unsigned int size);

    /** The transport's handle on the same buffer. */
    operator Transport::AddressedMessage() const { return message_; }

    /** Fields of the header; 0 without one. */
    kind_t kind() const;
    type_t type() const;
    unsigned int transactionId() const;
    /** Set a field of the header; no effect without one. */
    void kind(kind_t value);
    void type(type_t value);
    void transactionId(unsigned int const& value);

    /** Payload bytes and where they start; 0 and null when the buffer is shorter than the header.
     */
    unsigned int size() const {
        std::size_t const whole = message_.size();
        return whole < kHeaderSize ? 0 : static_cast<unsigned int>(whole - kHeaderSize);
    }
    unsigned char* buf() {
        return message_.size() < kHeaderSize ? nullptr : message_.buf() + kHeaderSize;
    }
    unsigned char const* buf() const {
        return message_.size() < kHeaderSize ? nullptr : message_.buf() + kHeaderSize;
    }
    /** Whether there is no buffer. */
    bool empty() const { return message_.empty(); }
    /** Makes the payload `size` bytes long in place; only for the buffer's sole owner, see
     * Transport::AddressedMessage::extend. */
    bool extend(unsigned int size) {
        return size <= Transport::kLargestMessage - kHeaderSize &&
               message_.extend(static_cast<std::size_t>(size) + kHeaderSize);
    }
    /** Has room for `size` payload bytes kept behind the buffer, for `extend`: moves to another
     * buffer when this one has less. Whether there is so much. */
    bool reserve(TreflectORB const* orb, unsigned int size);
    /** Whether no other handle shares the buffer; false without a buffer. */
    bool isSoleOwner() { return message_.extend(message_.size()); }

    /** The addresses that the transport keeps beside the buffer; no termination when there are
     * none. */
    Transport::TerminationId originator() const { return message_.originator(); }
    Transport::TerminationId destination() const { return message_.destination(); }
    /** The transport's handle, for sending. */
    Transport::AddressedMessage& addressed() { return message_; }

    /** Printable labels, always six characters. */
    std::string kindToStr(kind_t const& kind) const;
    std::string typeToStr(type_t const& type) const;

    /**
     * Whether the message may be processed: checks its addresses, type and kind (kUndef expects no
     * kind in particular), logs the last failing check at level 3 or, with `output`, the sound
     * message at level 5. `line` and `place` are printed. `unused` is ignored. A message without
     * destination is reported and accepted.
     */
    bool testValidation(kind_t expected, int line, char const* place, bool output,
                        int unused) const;

    /** Single messages come from a pool, so that a response handed to its waiter costs no
     * allocation. */
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, std::nothrow_t const&) noexcept;
    static void operator delete(void* memory) noexcept;
    static void operator delete(void* memory, std::nothrow_t const&) noexcept;

private:
    std::uint32_t field_(std::size_t offset) const;
    void field_(std::size_t offset, std::uint32_t value);

    Transport::AddressedMessage message_;
};
