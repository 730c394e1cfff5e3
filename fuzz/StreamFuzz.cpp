// Reads a payload of unknown origin as every type, in any order, between writes.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "FuzzProcess.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiSequence.h"

namespace {

/** Everything that a stream can be read into, kept from step to step. */
class Reader {
public:
    explicit Reader(TreflectMessage const& message) : stream_(message, false) {}

    void take(unsigned char step) {
        static std::vector<void (*)(Reader&)> const steps = {
            [](Reader& r) { r.stream_ >> r.number_; },
            [](Reader& r) { r.stream_ >> r.truth_; },
            [](Reader& r) { r.stream_ >> r.namespace_; },
            [](Reader& r) { r.readCharacters(); },
            [](Reader& r) { r.stream_ >> r.text_; },
            [](Reader& r) { r.stream_ >> r.nested_; },
            [](Reader& r) { r.stream_ >> r.termination_; },
            [](Reader& r) { r.stream_ >> r.oid_; },
            [](Reader& r) { r.readAny(); },
            [](Reader& r) { r.stream_ >> r.numbers_; },
            [](Reader& r) { r.stream_ >> r.anys_; },
            [](Reader& r) { r.readContainer(); },
            [](Reader& r) { r.stream_.unmarshall(nullptr, 3); },
            [](Reader& r) { r.stream_.rewind(); },
            [](Reader& r) { r.stream_.clear(); },
            [](Reader& r) { r.nested_ = r.stream_; },
            [](Reader& r) { r.stream_ << r.number_; },
            [](Reader& r) {
                r.stream_.marshall(r.stream_.getDataPtr() + r.half(),
                                   r.stream_.getDataSize() - r.half());
            },
            [](Reader& r) { r.stream_ << r.stream_ << r.nested_; },
            [](Reader& r) { r.stream_.setData(r.stream_.getDataPtr(), r.half()); },
            [](Reader& r) { r.writeBackAll(); },
        };
        steps[step % steps.size()](*this);
        if (stream_.getDataSize() < 0 || stream_.getDataSize() > stream_.getDataLimit())
            std::abort();
    }

private:
    int half() const { return stream_.getDataSize() / 2; }
    void readCharacters() {
        char* characters = nullptr;
        stream_ >> characters;
        std::unique_ptr<char[]> const owned(characters);
        oid_.setIdString(characters);
    }
    void readAny() {
        stream_ >> any_;
        any_.extract(text_);
    }
    void readContainer() {
        stream_ >> container_;
        container_.getExceptionData(exception_);
    }
    void writeBackAll() {
        stream_ << truth_ << text_ << oid_ << any_ << numbers_ << anys_ << container_;
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

/** An input: the number of steps, one byte each, then the payload of an arrived message, which
 * begins with the number of its data bytes. */
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
        reader.take(data[1 + i]);
}

}  // namespace

FUZZ_TARGET(stream, runStream)
