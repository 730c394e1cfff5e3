// Seeds of the stream target: payloads as the library's own writers make them.
#include <initializer_list>

#include "FuzzProcess.h"
#include "StreamScript.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiSequence.h"

namespace {

std::string seed(std::initializer_list<fuzz::Step> steps, TipprmiStream const& stream) {
    std::string bytes(1, static_cast<char>(steps.size()));
    for (fuzz::Step const step : steps)
        bytes += static_cast<char>(step);
    auto const* const payload = reinterpret_cast<char const*>(stream.msg().buf());
    return bytes.append(payload, stream.msg().size());
}

TipprmiSequence<TipprmiAny, 0u> someAnys() {
    TipprmiSequence<TipprmiAny, 0u> anys;
    anys.setLength(3);
    anys[0].insert(7u);
    anys[1].insert("text");
    return anys;
}

}  // namespace

int main(int argc, char** argv) {
    fuzz::startProcess();
    fuzz::SeedFolder const folder(argc, argv);

    TipprmiStream basic(100);
    basic << 1u << true << NSID_NODE << "characters" << std::string("string")
          << TipprmiStream("ab", 2) << Transport::TerminationId(0x01020304u);
    folder.write("basic", seed({fuzz::kReadNumber, fuzz::kReadBool, fuzz::kReadNamespace,
                                fuzz::kReadCharacters, fuzz::kReadString, fuzz::kReadNested,
                                fuzz::kReadTerminationId, fuzz::kWriteBackAll},
                               basic));

    TipprmiSequence<unsigned int, 0u> numbers;
    numbers.setLength(4);
    TipprmiStream values(100);
    values << TipprmiOID("object", NSID_UNIT) << someAnys()[1] << numbers << someAnys();
    folder.write("values", seed({fuzz::kReadOid, fuzz::kReadAny, fuzz::kReadNumbers,
                                 fuzz::kReadAnys, fuzz::kWriteNestedSelf},
                                values));

    TipprmiStream response(100);
    writeGeneralException(response, 5);
    response << TipprmiExceptionContainer() << 3;
    folder.write("response", seed({fuzz::kReadContainer, fuzz::kReadContainer, fuzz::kReadNumber,
                                   fuzz::kSkip, fuzz::kRewind, fuzz::kCopy, fuzz::kWriteOwnBytes},
                                  response));
    folder.write("empty",
                 seed({fuzz::kSetOwnBytes, fuzz::kReadString, fuzz::kClear}, TipprmiStream(1)));
    return 0;
}
