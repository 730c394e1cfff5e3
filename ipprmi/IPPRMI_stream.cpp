// The byte stream of every message body: room, raw bytes and the encodings of the basic types.
#include <algorithm>
#include <climits>
#include <cstring>

#include "ipprmi/BigEndian.h"
#include "ipprmi/TipprmiStream.h"
#include "logging/LineLimit.h"
// A floor above: a stream is a message ready to be sent, so it takes its buffer from the broker.
#include "reflect/TreflectORB.h"

namespace {

constexpr char const* kSource = "IPPRMI_stream";
/** How many lines pass at first of those that a message causes once. */
constexpr unsigned kOncePerMessage = 100;
/** Bytes of iptr_ ahead of the data. */
constexpr unsigned int kPrefix = 4;
constexpr std::uint64_t kLargestData =
    Transport::kLargestMessage - TreflectMessage::kHeaderSize - kPrefix;

/** A request of the unit's broker; without a broker (the process ends) one without originator. */
TreflectMessage newRequest(std::uint64_t dataSize) {
    if (dataSize > kLargestData)
        return TreflectMessage(Transport::AddressedMessage());
    auto const size = static_cast<unsigned int>(dataSize) + kPrefix;
    if (TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT))
        return orb->allocateRequest(size);
    TreflectMessage request(nullptr, 0, size);
    request.kind(TreflectMessage::kRequest);
    return request;
}

/** A copy of `message` in a buffer of its own, or one without buffer when that cannot be had. */
TreflectMessage reallocated(TreflectMessage const& message, std::uint64_t dataSize) {
    if (message.empty() || dataSize > kLargestData)
        return newRequest(dataSize);
    auto const size = static_cast<unsigned int>(dataSize) + kPrefix;
    if (TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT))
        return orb->reallocateMessage(message, size);
    return TreflectMessage(nullptr, message, size);
}

/** A null source stands for zeros. */
void copyOrZero(void* destination, void const* source, std::size_t n) {
    if (n == 0)
        return;
    if (source)
        std::memmove(destination, source, n);
    else
        std::memset(destination, 0, n);
}

int toInt(std::size_t length) {
    return static_cast<int>(std::min<std::size_t>(length, INT_MAX));
}

}  // namespace

TipprmiStream::TipprmiStream(int size)
    : message_(newRequest(static_cast<unsigned int>(std::max(size, 1)))) {
    iptr_(0);
    checkRange_();
}

TipprmiStream::TipprmiStream(void const* data, int n)
    : message_(newRequest(static_cast<unsigned int>(std::max(n, 0)))) {
    if (message_.empty()) {
        dropWrite_();
        return;
    }
    int const size = std::max(n, 0);
    iptr_(size);
    copyOrZero(getDataPtr(), data, static_cast<std::size_t>(size));
    checkRange_();
}

TipprmiStream::TipprmiStream(TreflectMessage const& message, bool clear) : message_(message) {
    if (clear)
        this->clear();
    checkRange_();
}

TipprmiStream TipprmiStream::withoutBuffer_() {
    return TipprmiStream(TreflectMessage(Transport::AddressedMessage()), false);
}

void TipprmiStream::ensureBuffer_() {
    if (message_.empty())
        *this = TipprmiStream(kUsualSize);
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

TipprmiStream::View TipprmiStream::view_() const {
    // The stream owns its handle, but not alone the buffer: const is the handle's.
    auto& whole = const_cast<TreflectMessage&>(message_).addressed();
    std::size_t const size = whole.size();
    if (size < TreflectMessage::kHeaderSize + kPrefix)
        return {nullptr, 0, 0};
    unsigned char* const payload = whole.buf() + TreflectMessage::kHeaderSize;
    return {payload + kPrefix, ipprmi::loadBigEndian(payload),
            static_cast<unsigned int>(size - TreflectMessage::kHeaderSize - kPrefix)};
}

void TipprmiStream::iptr_(int const& value) {
    if (unsigned char* const data = getDataPtr())
        ipprmi::storeBigEndian(data - kPrefix, static_cast<std::uint32_t>(value));
}

int TipprmiStream::getUnreadSize() const {
    return failed_ ? 0 : std::max(getDataSize() - optr_, 0);
}

void TipprmiStream::logOutOfRange_(View const& view) const {
    // A sender can have it said at every read and every copy.
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "iptr_(%d) out of range(%d);this=%p",
                           static_cast<int>(view.written), static_cast<int>(view.limit),
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

bool TipprmiStream::allocate_(int n, View& view) {
    std::uint64_t const needed = std::uint64_t{view.written} + static_cast<unsigned int>(n);
    if (needed <= view.limit)
        return true;
    if (needed <= kLargestData) {
        // Mostly there is hidden room, and the bytes stay where they are. A payload too short for
        // iptr_ has no bytes yet, but may have part of one.
        bool const inPlace = message_.extend(static_cast<unsigned int>(needed) + kPrefix);
        if (inPlace || reallocate_(needed)) {
            unsigned char* const data = inPlace && view.data ? view.data : getDataPtr();
            // A received length may lie behind the buffer's end.
            if (view.written > view.limit)
                std::memset(data + view.limit, 0, view.written - view.limit);
            view = {data, view.written, static_cast<unsigned int>(needed)};
            return true;
        }
    }
    logOutOfRange_(view);
    return false;
}

void TipprmiStream::reserve(std::size_t n) {
    View const view = view_();
    std::uint64_t const needed = std::uint64_t{view.written} + n;
    // A stream that lacks no room keeps the buffer that it may share with others.
    if (!view.data || needed <= view.limit || n > kLargestData || needed > kLargestData)
        return;
    message_.reserve(TreflectORB::getInstance(NSID_UNIT),
                     static_cast<unsigned int>(needed) + kPrefix);
}

bool TipprmiStream::reallocate_(std::uint64_t dataSize) {
    TreflectMessage grown = reallocated(message_, dataSize);
    if (grown.empty())
        return false;
    message_ = std::move(grown);
    return true;
}

TipprmiStream& TipprmiStream::marshall(void const* source, int n) {
    View view = view_();
    checkRange_(view);
    if (n < 1)
        return *this;
    View const before = view;
    if (!allocate_(n, view)) {
        dropWrite_();
        return *this;
    }
    // Growing may have moved the buffer, and with it a source that lies inside.
    if (view.data != before.data && before.holds(source))
        source = view.data + (static_cast<unsigned char const*>(source) - before.data);
    copyOrZero(view.data + view.written, source, static_cast<unsigned int>(n));
    ipprmi::storeBigEndian(view.data - kPrefix, view.written + static_cast<unsigned int>(n));
    return *this;
}

void TipprmiStream::failRead_(int n) {
    View const view = view_();
    static Logging::LineLimit limit(kOncePerMessage);
    REFLECTORB_LOG_LIMITED(
        limit, 3, kSource,
        "::unmarshall() request out of bounds: getDataSize(%d)-optr_(%d) < size(%d), "
        "iptr_=%d, limit=%d",
        static_cast<int>(view.size()), optr_, n, static_cast<int>(view.written),
        static_cast<int>(view.limit));
    message_.testValidation(TreflectMessage::kUndef, 0, "", true, 0);
    stopUnmarshalling();
}

unsigned char const* TipprmiStream::take(std::size_t n) {
    if (failed_)
        return nullptr;
    View const view = view_();
    checkRange_(view);
    // Another stream over the same buffer may have emptied it.
    if (std::max(static_cast<int>(view.size()) - optr_, 0) < toInt(n)) {
        failRead_(toInt(n));
        return nullptr;
    }
    unsigned char const* const from = view.data + optr_;
    optr_ += static_cast<int>(n);
    return from;
}

unsigned char* TipprmiStream::append(std::size_t n) {
    View view = view_();
    checkRange_(view);
    if (n > kLargestData || !allocate_(static_cast<int>(n), view)) {
        dropWrite_();
        return nullptr;
    }
    if (n > 0)
        ipprmi::storeBigEndian(view.data - kPrefix, view.written + static_cast<unsigned int>(n));
    return view.data + view.written;
}

std::string_view TipprmiStream::takeText() {
    auto const length = static_cast<std::size_t>(readLength());
    unsigned char const* const from = length > 0 ? take(length) : nullptr;
    return from ? std::string_view(reinterpret_cast<char const*>(from), length)
                : std::string_view();
}

bool TipprmiStream::Level::refuse_() {
    static Logging::LineLimit limit(kOncePerMessage);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "values are nested more than %d deep", kMaxNesting);
    return false;
}

TipprmiStream& TipprmiStream::unmarshall(void* destination, int n) {
    if (n < 1) {
        if (!failed_)
            checkRange_();
        return *this;
    }
    unsigned char const* const from = take(static_cast<unsigned int>(n));
    if (destination)
        copyOrZero(destination, from, static_cast<unsigned int>(n));
    return *this;
}

int TipprmiStream::readLength() {
    int length = 0;
    *this >> length;
    if (length < 1)
        return 0;
    if (length > kAcceptedLength && getDataSize() - optr_ < length) {
        failRead_(length);
        return 0;
    }
    return length;
}

unsigned int TipprmiStream::readCount() {
    unsigned int count = 0;
    *this >> count;
    auto const remaining = static_cast<unsigned int>(std::max(getDataSize() - optr_, 0));
    if (count > kAcceptedCount && count > remaining / 4) {
        failRead_(toInt(count));
        return 0;
    }
    return count;
}

unsigned int TipprmiStream::readCount(std::size_t leastSize) {
    unsigned int count = 0;
    *this >> count;
    auto const unread = static_cast<unsigned int>(getUnreadSize());
    bool const fits = leastSize == 0 ? count <= kAcceptedCount : count <= unread / leastSize;
    if (!fits)
        failRead_(toInt(count));
    return fits ? count : 0;
}

void TipprmiStream::setData(void const* source, int n) {
    int const size = std::max(n, 0);
    // Kept until the bytes are copied, since they may be its own.
    TreflectMessage const former = message_;
    TreflectMessage fresh = reallocated(former, static_cast<unsigned int>(size));
    if (fresh.empty()) {
        checkRange_();
        dropWrite_();
        return;
    }
    message_ = std::move(fresh);
    clear();
    iptr_(size);
    copyOrZero(getDataPtr(), source, static_cast<std::size_t>(size));
    checkRange_();
}

void TipprmiStream::printUnmarshallError(unsigned int cc, unsigned int mc) const {
    // It tells of a failed call, so it is filed under those who make calls.
    static Logging::LineLimit limit(kOncePerMessage);
    REFLECTORB_LOG_LIMITED(limit, 4, "CallHelper", "Unmarshall error on cc=0x%X, mc=%d", cc,
                           static_cast<int>(mc));
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
    return stream << std::string_view(value);
}

TipprmiStream& operator<<(TipprmiStream& stream, std::string_view value) {
    int const length = toInt(value.size());
    stream << length;
    return stream.marshall(value.data(), length);
}

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiByteView value) {
    int const length = toInt(value.size);
    stream << length;
    return stream.marshall(value.data, length);
}

TipprmiStream& operator>>(TipprmiStream& stream, std::vector<std::uint8_t>& bytes) {
    int length = 0;
    stream >> length;
    unsigned char const* const from =
        length < 1 ? nullptr : stream.take(static_cast<unsigned int>(length));
    bytes.assign(from, from ? from + length : nullptr);
    return stream;
}

TipprmiStream& operator<<(TipprmiStream& stream, std::wstring const& text) {
    stream << static_cast<unsigned int>(text.size());
    tipprmi::writeElements<wchar_t>(stream, text.data(), text.size());
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, std::wstring& text) {
    text.resize(stream.readCount(sizeof(wchar_t)));
    if (!tipprmi::readNumbers<wchar_t>(stream, text.data(), text.size()))
        text.clear();
    return stream;
}

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiStream const& value) {
    // Asked once: the two may be one, or share their buffer.
    int const size = value.getDataSize();
    bool const incomplete = value.hasMarshallingFailed();
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
    else if (unsigned char const* const from = stream.take(bytes))
        value.assign(reinterpret_cast<char const*>(from), bytes);
    else
        value.assign(bytes, '\0');
    return stream;
}

TipprmiStream& operator>>(TipprmiStream& stream, TipprmiStream& value) {
    int const length = stream.readLength();
    if (length > 0) {
        // A null pointer, when the bytes are missing, stands for zeros.
        unsigned char const* const from = stream.take(static_cast<unsigned int>(length));
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
