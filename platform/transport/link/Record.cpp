#include "platform/transport/link/Record.h"

#include <algorithm>
#include <cstring>

#include "transport/AddressedMessage.h"

namespace Link {
namespace {

constexpr std::size_t padded(std::size_t size) {
    return (size + 7) & ~std::size_t{7};
}

std::uint32_t littleWord(unsigned char const* at) {
    return std::uint32_t{at[0]} | std::uint32_t{at[1]} << 8 | std::uint32_t{at[2]} << 16 |
           std::uint32_t{at[3]} << 24;
}

void putLittleWord(unsigned char* at, std::uint32_t word) {
    for (int i = 0; i < 4; ++i)
        at[i] = static_cast<unsigned char>(word >> 8 * i);
}

RecordHead readHead(unsigned char const* at) {
    RecordHead head;
    head.kind = static_cast<RecordKind>(littleWord(at));
    head.from = littleWord(at + 4);
    head.to = littleWord(at + 8);
    head.serial = littleWord(at + 12);
    head.total = littleWord(at + 16);
    head.offset = littleWord(at + 20);
    head.length = littleWord(at + 24);
    return head;
}

/** A part lies within its message, and none but that of an empty message is empty. */
bool isPart(RecordHead const& head) {
    return head.total <= Transport::kLargestMessage && head.offset <= head.total &&
           head.length <= head.total - head.offset && (head.length > 0 || head.total == 0);
}

bool makesSense(RecordHead const& head) {
    switch (head.kind) {
        case RecordKind::Message:
        case RecordKind::Returned:
            return isPart(head);
        case RecordKind::Arrived:
        case RecordKind::Reachable:
            return head.length <= kMostNameBytes;
        case RecordKind::Settled:
        case RecordKind::Refused:
            return head.length == 0 && head.total > 0;
        case RecordKind::Departed:
        case RecordKind::Probe:
            return head.length == 0;
    }
    return false;
}

}  // namespace

RecordReader::Result RecordReader::next(Record& record) {
    if (left_ == 0)
        return Result::End;
    if (left_ < RecordHead::kBytes)
        return Result::Garbage;
    record.head = readHead(at_);
    std::size_t const behind = left_ - RecordHead::kBytes;
    if (record.head.length > behind || padded(record.head.length) > behind ||
        !makesSense(record.head)) {
        left_ = 0;
        return Result::Garbage;
    }
    record.bytes = at_ + RecordHead::kBytes;
    std::size_t const whole = RecordHead::kBytes + padded(record.head.length);
    at_ += whole;
    left_ -= whole;
    return Result::Record;
}

long Piece::room() const {
    return static_cast<long>(kMostPieceBytes - RecordHead::kBytes) -
           static_cast<long>(bytes_.size());
}

void Piece::append(RecordHead const& record, unsigned char const* bytes) {
    std::size_t const start = bytes_.size();
    bytes_.resize(start + RecordHead::kBytes + padded(record.length));
    unsigned char* const at = bytes_.data() + start;
    std::uint32_t const words[] = {static_cast<std::uint32_t>(record.kind),
                                   record.from.value(),
                                   record.to.value(),
                                   record.serial,
                                   record.total,
                                   record.offset,
                                   record.length,
                                   0};
    for (std::size_t i = 0; i < std::size(words); ++i)
        putLittleWord(at + 4 * i, words[i]);
    if (record.length > 0)
        std::memcpy(at + RecordHead::kBytes, bytes, record.length);
}

std::string joinNames(std::string const& actor, std::string const& name) {
    std::string bytes = actor.substr(0, kMostNameBytes / 2);
    bytes += '\0';
    bytes += name;
    bytes.resize(std::min(bytes.size(), kMostNameBytes));
    return bytes;
}

void splitNames(std::string const& bytes, std::string& actor, std::string& name) {
    std::size_t const end = std::min(bytes.find('\0'), bytes.size());
    actor = bytes.substr(0, end);
    name = end < bytes.size() ? bytes.substr(end + 1) : std::string();
}

}  // namespace Link
