// Reads a payload of unknown origin as every type, in any order, between writes.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzProcess.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiSequence.h"

namespace {

/** An input: the number of steps, one byte each, then the payload of an arrived message, which
 * begins with the number of its data bytes. */
enum Step : unsigned char {
    kReadNumber,
    kReadBool,
    kReadNamespace,
    kReadCharacters,
    kReadString,
    kReadNested,
    kReadTerminationId,
    kReadOid,
    kReadAny,
    kReadNumbers,
    kReadAnys,
    kReadContainer,
    kSkip,
    kRewind,
    kClear,
    kCopy,
    kWriteNumber,
    kWriteOwnBytes,
    kWriteNestedSelf,
    kSetOwnBytes,
    kWriteBackAll,
    kSteps
};

/** Everything that a stream can be read into, kept from step to step. */
class Reader {
public:
    explicit Reader(TreflectMessage const& message) : stream_(message, false) {}

    void take(unsigned char step) {
        if (step < kSkip)
            read(step);
        else
            change(step);
        if (stream_.getDataSize() < 0 || stream_.getDataSize() > stream_.getDataLimit())
            std::abort();
    }

private:
    void read(unsigned char step) {
        switch (step) {
            case kReadNumber:
                stream_ >> number_;
                break;
            case kReadBool:
                stream_ >> truth_;
                break;
            case kReadNamespace:
                stream_ >> namespace_;
                break;
            case kReadCharacters:
                readCharacters();
                break;
            case kReadString:
                stream_ >> text_;
                break;
            case kReadNested:
                stream_ >> nested_;
                break;
            case kReadTerminationId:
                stream_ >> termination_;
                break;
            case kReadOid:
                stream_ >> oid_;
                break;
            case kReadAny:
                stream_ >> any_;
                any_.extract(text_);
                break;
            case kReadNumbers:
                stream_ >> numbers_;
                break;
            case kReadAnys:
                stream_ >> anys_;
                break;
            default:
                stream_ >> container_;
                container_.getExceptionData(exception_);
                break;
        }
    }

    void readCharacters() {
        char* characters = nullptr;
        stream_ >> characters;
        std::unique_ptr<char[]> const owned(characters);
        oid_.setIdString(characters);
    }

    void change(unsigned char step) {
        int const half = stream_.getDataSize() / 2;
        switch (step) {
            case kSkip:
                stream_.unmarshall(nullptr, 3);
                break;
            case kRewind:
                stream_.rewind();
                break;
            case kClear:
                stream_.clear();
                break;
            case kCopy:
                nested_ = stream_;
                break;
            case kWriteNumber:
                stream_ << number_;
                break;
            case kWriteOwnBytes:
                stream_.marshall(stream_.getDataPtr() + half, stream_.getDataSize() - half);
                break;
            case kWriteNestedSelf:
                stream_ << stream_ << nested_;
                break;
            case kSetOwnBytes:
                stream_.setData(stream_.getDataPtr(), half);
                break;
            default:
                stream_ << truth_ << text_ << oid_ << any_ << numbers_ << anys_ << container_;
                break;
        }
    }

    TipprmiStream stream_;
    TipprmiStream nested_{1};
    unsigned int number_ = 0;
    bool truth_ = false;
    NamespaceId namespace_ = NSID_UNIT;
    std::string text_;
    Transport::TerminationId termination_;
    TipprmiOID oid_{"", NSID_UNIT};
    TipprmiAny any_;
    TipprmiSequence<unsigned int, 0u> numbers_;
    TipprmiSequence<TipprmiAny, 0u> anys_;
    TipprmiExceptionContainer container_;
    TipprmiGeneralException exception_;
};

void runStream(std::uint8_t const* data, std::size_t size) {
    if (size == 0)
        return;
    // Few steps: each may double what there is.
    std::size_t const steps = std::min<std::size_t>(std::min<std::size_t>(data[0], 14), size - 1);
    std::uint8_t const* const payload = data + 1 + steps;
    auto const bytes = static_cast<unsigned int>(size - 1 - steps);
    TreflectMessage message(nullptr, 0, bytes);
    if (bytes > 0)
        std::memcpy(message.buf(), payload, bytes);
    Reader reader(message);
    for (std::size_t i = 0; i < steps; ++i)
        reader.take(data[1 + i] % kSteps);
}

}  // namespace

FUZZ_TARGET(stream, runStream)
