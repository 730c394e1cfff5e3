// The byte stream of every message body: room, raw bytes and the encodings of the basic types.
#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <vector>

#include "ipprmi/BigEndian.h"
#include "ipprmi/TipprmiStream.h"
#include "logging/Log.h"
// A floor above: a stream is a message ready to be sent, so it takes its buffer from the broker.
#include "reflect/TreflectORB.h"

namespace {

constexpr char const* kSource = "IPPRMI_stream";
/** Bytes of iptr_ ahead of the data. */
constexpr unsigned int kPrefix = 4;
constexpr std::uint64_t kLargestPayload = Transport::kLargestMessage - TreflectMessage::kHeaderSize;

/** A request of the unit's broker; without a broker (the process ends) one without originator. */
TreflectMessage newRequest(std::uint64_t payloadSize) {
    if (payloadSize > kLargestPayload)
        return TreflectMessage(Transport::AddressedMessage());
    auto const size = static_cast<unsigned int>(payloadSize);
    if (TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT))
        return orb->allocateRequest(size);
    TreflectMessage request(nullptr, 0, size);
    request.kind(TreflectMessage::kRequest);
    return request;
}

/** A copy of `message` in a buffer of its own, or one without buffer when that cannot be had. */
TreflectMessage reallocated(TreflectMessage const& message, std::uint64_t payloadSize) {
    if (message.empty() || payloadSize > kLargestPayload)
        return newRequest(payloadSize);
    auto const size = static_cast<unsigned int>(payloadSize);
    if (TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT))
        return orb->reallocateMessage(message, size);
    return TreflectMessage(nullptr, message, size);
}

void copyOrZero(void* destination, void const* source, int n) {
    if (n < 1)
        return;
    if (source)
        std::memcpy(destination, source, static_cast<std::size_t>(n));
    else
        std::memset(destination, 0, static_cast<std::size_t>(n));
}

int toInt(std::size_t length) {
    return static_cast<int>(std::min<std::size_t>(length, INT_MAX));
}

}  // namespace

TipprmiStream::TipprmiStream(int size)
    : message_(newRequest(std::uint64_t{kPrefix} + static_cast<unsigned int>(std::max(size, 1)))) {
    iptr_(0);
    checkRange_();
}

TipprmiStream::TipprmiStream(void const* data, int n)
    : message_(newRequest(std::uint64_t{kPrefix} + static_cast<unsigned int>(std::max(n, 0)))) {
    if (message_.empty()) {
        dropWrite_();
        return;
    }
    iptr_(std::max(n, 0));
    copyOrZero(getDataPtr(), data, n);
    checkRange_();
}

TipprmiStream::TipprmiStream(TreflectMessage const& message, bool clear) : message_(message) {
    if (clear)
        this->clear();
    checkRange_();
}

TipprmiStream::TipprmiStream(TipprmiStream const& other)
    : optr_(other.optr_),
      message_(other.message_),
      failed_(other.failed_),
      writeDropped_(other.writeDropped_) {
    checkRange_();
}

TipprmiStream& TipprmiStream::operator=(TipprmiStream const& other) {
    if (this != &other) {
        optr_ = other.optr_;
        message_ = other.message_;
        failed_ = other.failed_;
        writeDropped_ = other.writeDropped_;
    }
    checkRange_();
    return *this;
}

int TipprmiStream::iptr_() const {
    if (message_.size() < kPrefix)
        return 0;
    return static_cast<int>(ipprmi::loadBigEndian(message_.buf()));
}

void TipprmiStream::iptr_(int const& value) {
    if (message_.size() >= kPrefix)
        ipprmi::storeBigEndian(message_.buf(), static_cast<std::uint32_t>(value));
}

unsigned char* TipprmiStream::getDataPtr() {
    return message_.size() < kPrefix ? nullptr : message_.buf() + kPrefix;
}

unsigned char const* TipprmiStream::getDataPtr() const {
    return message_.size() < kPrefix ? nullptr : message_.buf() + kPrefix;
}

int TipprmiStream::getDataLimit() const {
    return static_cast<int>(std::max(message_.size(), kPrefix) - kPrefix);
}

int TipprmiStream::getDataSize() const {
    auto const written = static_cast<unsigned int>(iptr_());
    return static_cast<int>(std::min(written, static_cast<unsigned int>(getDataLimit())));
}

void TipprmiStream::checkRange_() const {
    int const limit = getDataLimit();
    int const written = iptr_();
    // A value that does not fit an int is out of range as well.
    if (static_cast<unsigned int>(written) > static_cast<unsigned int>(limit))
        REFLECTORB_LOG(3, kSource, "iptr_(%d) out of range(%d);this=%p", written, limit,
                       static_cast<void const*>(this));
}

void TipprmiStream::clear() {
    iptr_(0);
    optr_ = 0;
    failed_ = false;
    writeDropped_ = false;
}

void TipprmiStream::dropWrite_() {
    failed_ = true;
    writeDropped_ = true;
}

bool TipprmiStream::allocate_(int n) {
    if (n <= 0)
        return true;
    std::uint64_t const needed =
        std::uint64_t{static_cast<unsigned int>(iptr_())} + static_cast<unsigned int>(n);
    if (static_cast<std::uint64_t>(getDataLimit()) >= needed)
        return true;
    grow_(needed + kPrefix);
    if (static_cast<std::uint64_t>(getDataLimit()) >= needed)
        return true;
    REFLECTORB_LOG(3, kSource, "iptr_(%d) out of range(%d);this=%p", iptr_(), getDataLimit(),
                   static_cast<void const*>(this));
    return false;
}

void TipprmiStream::grow_(std::uint64_t payloadSize) {
    if (payloadSize <= kLargestPayload && message_.extend(static_cast<unsigned int>(payloadSize)))
        return;
    TreflectMessage grown = reallocated(message_, payloadSize);
    if (!grown.empty())
        message_ = std::move(grown);
}

TipprmiStream& TipprmiStream::marshall(void const* source, int n) {
    checkRange_();
    if (n < 1)
        return *this;
    // Growing may move the buffer, and with it a source that lies inside.
    auto const* from = static_cast<unsigned char const*>(source);
    unsigned char const* const data = getDataPtr();
    std::less<> const before;
    bool const own = data && !before(from, data) && before(from, data + getDataLimit());
    std::size_t const offset = own ? static_cast<std::size_t>(from - data) : 0;

    if (!allocate_(n)) {
        dropWrite_();
        return *this;
    }
    unsigned char* const target = getDataPtr();
    int const written = iptr_();
    if (own)
        std::memmove(target + written, target + offset, static_cast<std::size_t>(n));
    else
        copyOrZero(target + written, source, n);
    iptr_(written + n);
    return *this;
}

void TipprmiStream::failRead_(int n) {
    REFLECTORB_LOG(3, kSource,
                   "::unmarshall() request out of bounds: getDataSize(%d)-optr_(%d) < size(%d), "
                   "iptr_=%d, limit=%d",
                   getDataSize(), optr_, n, iptr_(), getDataLimit());
    message_.testValidation(TreflectMessage::kUndef, 0, "", true, 0);
    stopUnmarshalling();
}

unsigned char const* TipprmiStream::take_(int n) {
    checkRange_();
    if (failed_)
        return nullptr;
    if (getDataSize() - optr_ < n) {
        failRead_(n);
        return nullptr;
    }
    unsigned char const* const from = getDataPtr() + optr_;
    optr_ += n;
    return from;
}

TipprmiStream& TipprmiStream::unmarshall(void* destination, int n) {
    if (n < 1) {
        checkRange_();
        return *this;
    }
    unsigned char const* const from = take_(n);
    if (destination)
        copyOrZero(destination, from, n);
    return *this;
}

int TipprmiStream::readLength() {
    int length = 0;
    *this >> length;
    if (length < 1)
        return 0;
    if (length > kHonouredLength && getDataSize() - optr_ < length) {
        failRead_(length);
        return 0;
    }
    return length;
}

unsigned int TipprmiStream::readCount() {
    unsigned int count = 0;
    *this >> count;
    auto const remaining = static_cast<unsigned int>(std::max(getDataSize() - optr_, 0));
    if (count > kHonouredCount && count > remaining / 4) {
        failRead_(toInt(count));
        return 0;
    }
    return count;
}

void TipprmiStream::setData(void const* source, int n) {
    int const size = std::max(n, 0);
    // Kept until the bytes are copied, since they may be its own.
    TreflectMessage const former = message_;
    TreflectMessage fresh =
        reallocated(former, std::uint64_t{kPrefix} + static_cast<unsigned>(size));
    if (fresh.empty()) {
        checkRange_();
        dropWrite_();
        return;
    }
    message_ = std::move(fresh);
    clear();
    iptr_(size);
    copyOrZero(getDataPtr(), source, size);
    checkRange_();
}

void TipprmiStream::printUnmarshallError(unsigned int cc, unsigned int mc) const {
    // It tells of a failed call, so it is filed under those who make calls.
    REFLECTORB_LOG(4, "CallHelper", "Unmarshall error on cc=0x%X, mc=%d", cc, static_cast<int>(mc));
}

TipprmiStream& operator<<(TipprmiStream& stream, unsigned int value) {
    unsigned char bytes[4];
    ipprmi::storeBigEndian(bytes, value);
    return stream.marshall(bytes, sizeof bytes);
}

TipprmiStream& operator<<(TipprmiStream& stream, int value) {
    return stream << static_cast<unsigned int>(value);
}

TipprmiStream& operator<<(TipprmiStream& stream, bool value) {
    return stream << static_cast<int>(value);
}

TipprmiStream& operator<<(TipprmiStream& stream, NamespaceId value) {
    return stream << static_cast<unsigned int>(value);
}

TipprmiStream& operator<<(TipprmiStream& stream, char const* value) {
    int const length = value ? toInt(std::strlen(value)) : 0;
    stream << length;
    return stream.marshall(value, length);
}

TipprmiStream& operator<<(TipprmiStream& stream, std::string const& value) {
    int const length = toInt(value.size());
    stream << length;
    return stream.marshall(value.data(), length);
}

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiStream const& value) {
    // Asked once: the two may be one, or share their buffer.
    int const size = value.getDataSize();
    bool const incomplete = value.writeDropped_;
    stream << size;
    stream.marshall(value.getDataPtr(), size);
    if (incomplete)
        stream.dropWrite_();
    return stream;
}

TipprmiStream& operator<<(TipprmiStream& stream, Transport::TerminationId const& value) {
    // The one number that travels in the host's own order.
    std::uint32_t const raw = value.value();
    return stream.marshall(&raw, sizeof raw);
}

TipprmiStream& operator>>(TipprmiStream& stream, unsigned int& value) {
    unsigned char bytes[4];
    stream.unmarshall(bytes, sizeof bytes);
    value = ipprmi::loadBigEndian(bytes);
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, int& value) {
    unsigned int number = 0;
    stream >> number;
    value = static_cast<int>(number);
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, bool& value) {
    int number = 0;
    stream >> number;
    value = number != 0;
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, NamespaceId& /*value*/) {
    unsigned int dropped = 0;
    return stream >> dropped;
}

TipprmiStream& operator>>(TipprmiStream& stream, char*& value) {
    int const length = stream.readLength();
    value = new char[static_cast<std::size_t>(length) + 1]();
    return stream.unmarshall(value, length);
}

TipprmiStream& operator>>(TipprmiStream& stream, std::string& value) {
    int const length = stream.readLength();
    auto const bytes = static_cast<std::size_t>(length);
    if (length < 1)
        value.clear();
    else if (unsigned char const* const from = stream.take_(length))
        value.assign(reinterpret_cast<char const*>(from), bytes);
    else
        value.assign(bytes, '\0');
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, TipprmiStream& value) {
    int const length = stream.readLength();
    if (length > 0) {
        // A null pointer, when the bytes are missing, stands for zeros.
        unsigned char const* const from = stream.take_(length);
        value.setData(from, length);
    }
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, Transport::TerminationId& value) {
    std::uint32_t raw = 0;
    stream.unmarshall(&raw, sizeof raw);
    value = Transport::TerminationId(raw);
    return stream;
}
