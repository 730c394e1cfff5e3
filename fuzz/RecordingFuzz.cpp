// Files of `reflectorb record`, which may come from anywhere: read, and shown by what they
// describe.
#include <sstream>

#include "FuzzProcess.h"
#include "tool/Recording.h"

namespace {

/** What is written is read as the same. */
void requireRoundTrip(recording::Record const& record) {
    std::string const bytes = recording::encode(record);
    std::istringstream file(recording::kMark + bytes);
    recording::Reader reader(file);
    std::optional<recording::Record> const read = reader.next();
    if (!read || recording::encode(*read) != bytes)
        std::abort();
}

void print(recording::Types const& types, recording::Anys const& values) {
    for (std::size_t i = 0; i < types.size() && i < values.size(); ++i)
        static_cast<void>(types[i].print(values[i]));
}

void show(recording::Known const& known, recording::Record const& record) {
    if (auto const* const call = std::get_if<recording::Call>(&record)) {
        print(known.argumentTypes(call->object, call->operation), call->arguments);
    } else if (auto const* const end = std::get_if<recording::End>(&record)) {
        print(known.resultTypes(end->object, end->operation), end->results);
        print({known.exceptionType(end->object, end->operation, end->code)}, {end->fields});
    } else if (auto const* const value = std::get_if<recording::Value>(&record)) {
        print(known.attributeTypes(value->object, value->attribute), {value->value});
        static_cast<void>(known.attributeComment(value->object, value->attribute));
    }
}

/** Nobody finds the checksums of what he changes by chance: with an odd first byte the rest are
 * payloads, each behind its length of two bytes; else it is a file. */
std::string fileOf(std::uint8_t const* data, std::size_t size) {
    std::string const bytes(reinterpret_cast<char const*>(data + 1), size - 1);
    if ((data[0] & 1) == 0)
        return bytes;
    std::string file = recording::kMark;
    for (std::size_t at = 0; at + 2 <= bytes.size();) {
        std::size_t const length = static_cast<std::size_t>(
            static_cast<unsigned char>(bytes[at]) << 8 | static_cast<unsigned char>(bytes[at + 1]));
        file += recording::framed(bytes.substr(at + 2, length));
        at += 2 + length;
    }
    return file;
}

void runRecording(std::uint8_t const* data, std::size_t size) {
    if (size < 1)
        return;
    std::istringstream file(fileOf(data, size));
    recording::Reader reader(file);
    recording::Known known;
    while (std::optional<recording::Record> const record = reader.next()) {
        known.note(*record);
        show(known, *record);
        requireRoundTrip(*record);
    }
    if (reader.ending() == recording::Reader::Ending::kNone)
        std::abort();
}

}  // namespace

FUZZ_TARGET(recording, runRecording)
