#include "Recording.h"

#include <boost/crc.hpp>
#include <istream>
#include <set>

namespace recording {

namespace {

constexpr std::size_t kHeadSize = 8;  // length and checksum
constexpr std::size_t kMostClasses = 65536;
constexpr std::size_t kMostObjects = 1 << 20;

std::uint32_t checksumOf(std::string const& bytes) {
    boost::crc_32_type checksum;
    checksum.process_bytes(bytes.data(), bytes.size());
    return checksum.checksum();
}

void append(std::string& bytes, std::uint32_t number) {
    constexpr int kBits = 32;
    constexpr unsigned int kByte = 0xFF;
    for (int shift = kBits - 8; shift >= 0; shift -= 8)
        bytes += static_cast<char>(number >> shift & kByte);
}

std::uint32_t numberAt(std::string const& bytes, std::size_t at) {
    std::uint32_t number = 0;
    for (std::size_t i = at; i < at + 4; ++i)
        number = number << 8 | static_cast<unsigned char>(bytes[i]);
    return number;
}

/** As many bytes as there are, `size` at most: the length of a record is not believed. */
std::string read(std::istream& file, std::size_t size) {
    constexpr std::size_t kAtOnce = 1 << 16;
    std::string bytes;
    while (bytes.size() < size && file) {
        std::size_t const begin = bytes.size();
        bytes.resize(std::min(size, begin + kAtOnce));
        file.read(&bytes[begin], static_cast<std::streamsize>(bytes.size() - begin));
        bytes.resize(begin + static_cast<std::size_t>(file.gcount()));
    }
    return bytes;
}

/** Nothing for a kind that is not known, or a value that is none of its kind. */
std::optional<Record> decode(std::string const& payload) {
    TipprmiStream stream(payload.data(), static_cast<int>(payload.size()));
    Record record;
    stream >> record;
    if (stream.hasUnmarshallingFailed())
        return std::nullopt;
    auto const* const described = std::get_if<TreflectClassDescription>(&record);
    if (described && !described->fault().empty())
        return std::nullopt;
    return record;
}

std::string typeText(TreflectClassDescription::Parameter const& parameter) {
    return parameter.name.empty() ? parameter.type : parameter.type + " " + parameter.name;
}

Types typesOf(TreflectClassDescription const& owner,
              std::vector<TreflectClassDescription::Parameter> const& parameters) {
    TreflectTypes known;
    for (std::string const& definition : owner.types)
        known.add(definition);
    Types types;
    for (auto const& parameter : parameters)
        types.emplace_back(typeText(parameter), known);
    return types;
}

}  // namespace

std::string encode(Record const& record) {
    TipprmiStream stream(100);
    stream << record;
    auto const size = static_cast<std::size_t>(stream.getDataSize());
    if (stream.hasMarshallingFailed() || size > kLargestRecord)
        return {};
    return framed(std::string(reinterpret_cast<char const*>(stream.getDataPtr()), size));
}

std::string framed(std::string const& payload) {
    std::string bytes;
    bytes.reserve(kHeadSize + payload.size());
    append(bytes, static_cast<std::uint32_t>(payload.size()));
    append(bytes, checksumOf(payload));
    return bytes + payload;
}

// ---- Reading -----------------------------------------------------------------------------------

bool Reader::begin() {
    begun_ = true;
    if (read(file_, kMarkSize) == std::string(kMark))
        return true;
    end(Ending::kNoRecording);
    return false;
}

std::optional<std::string> Reader::payload() {
    std::string const head = read(file_, kHeadSize);
    if (head.size() < kHeadSize) {
        ending_ = head.empty() ? Ending::kComplete : Ending::kCutOff;
        return std::nullopt;
    }
    std::size_t const size = numberAt(head, 0);
    if (size > kLargestRecord) {
        ending_ = Ending::kDamaged;
        return std::nullopt;
    }
    std::string bytes = read(file_, size);
    if (bytes.size() == size && checksumOf(bytes) == numberAt(head, 4))
        return bytes;
    // What a writer has not got to write ends the file.
    ending_ = bytes.size() < size ? Ending::kCutOff : Ending::kDamaged;
    return std::nullopt;
}

std::optional<Record> Reader::next() {
    if (ending_ != Ending::kNone || (!begun_ && !begin()))
        return std::nullopt;
    while (std::optional<std::string> const bytes = payload()) {
        std::optional<Record> record = decode(*bytes);
        if (!record)
            continue;
        auto const* const begun = std::get_if<Begin>(&*record);
        if (begun && begun->version != kVersion)
            return end(Ending::kNoRecording);
        return record;
    }
    return std::nullopt;
}

// ---- What is known -----------------------------------------------------------------------------

void Known::note(Record const& record) {
    if (auto const* const described = std::get_if<TreflectClassDescription>(&record)) {
        if (classes_.size() < kMostClasses)
            classes_[described->hash] = *described;
    } else if (auto const* const object = std::get_if<Object>(&record)) {
        if (objects_.size() < kMostObjects)
            objects_[object->number] = *object;
    }
}

Object const* Known::object(unsigned int number) const {
    auto const found = objects_.find(number);
    return found == objects_.end() ? nullptr : &found->second;
}

Known::Found Known::find(unsigned int number, std::string const& name) const {
    Object const* const owner = object(number);
    std::vector<std::uint64_t> left;
    if (owner)
        left.push_back(owner->classHash);
    std::set<std::uint64_t> seen(left.begin(), left.end());
    // The class, then its bases, generation by generation.
    for (std::size_t i = 0; i < left.size(); ++i) {
        auto const found = classes_.find(left[i]);
        if (found == classes_.end())
            continue;
        for (auto const& operation : found->second.operations) {
            if (operation.name == name)
                return {&found->second, &operation};
        }
        for (auto const& base : found->second.bases) {
            if (seen.insert(base.hash).second)
                left.push_back(base.hash);
        }
    }
    return {};
}

Types Known::argumentTypes(unsigned int object, std::string const& operation) const {
    Found const found = find(object, operation);
    return found.operation ? typesOf(*found.owner, found.operation->in) : Types();
}

Types Known::resultTypes(unsigned int object, std::string const& operation) const {
    Found const found = find(object, operation);
    return found.operation ? typesOf(*found.owner, found.operation->out) : Types();
}

TreflectParameterType Known::exceptionType(unsigned int object, std::string const& operation,
                                           unsigned int code) const {
    Found const found = find(object, operation);
    if (!found.operation)
        return TreflectParameterType("");
    for (auto const& raised : found.operation->raises) {
        if (raised.code == code)
            return typesOf(*found.owner, {{"", raised.type}}).front();
    }
    return TreflectParameterType("");
}

std::string Known::attributeComment(unsigned int object, std::string const& name) const {
    Found const get = find(object, "get" + name);
    if (!get.owner)
        return {};
    for (auto const& attribute : get.owner->attributes) {
        if (attribute.name == name)
            return attribute.doc;
    }
    return {};
}

Types Known::attributeTypes(unsigned int object, std::string const& attribute) const {
    return resultTypes(object, "get" + attribute);
}

}  // namespace recording
