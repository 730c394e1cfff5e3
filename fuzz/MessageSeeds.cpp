// Seeds of the message target: two addresses and a message, as the library's own writers make them.
#include "FuzzProcess.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"

namespace {

std::string seed(TipprmiStream& stream, TreflectMessage::kind_t kind,
                 TreflectMessage::type_t type) {
    stream.msg().kind(kind);
    stream.msg().type(type);
    stream.msg().transactionId(0x00100000);
    Transport::AddressedMessage const whole = stream.msg();
    std::string const addresses("\x01\x00\x01\x01\x02\x00\x01\x01", 8);
    return addresses + std::string(reinterpret_cast<char const*>(whole.buf()), whole.size());
}

}  // namespace

int main(int argc, char** argv) {
    fuzz::startProcess();
    fuzz::SeedFolder const folder(argc, argv);

    TipprmiStream call(100);
    call << 0x1234u << true << 0x641E8FCDu << 1001 << "argument";
    folder.write("call", seed(call, TreflectMessage::kRequest, TreflectMessage::tPayload));
    folder.write("one-way", seed(call, TreflectMessage::kMsg, TreflectMessage::tPayload));

    TipprmiStream failure(100);
    writeGeneralException(failure, 5);
    folder.write("failure", seed(failure, TreflectMessage::kResponse, TreflectMessage::tPayload));

    TipprmiStream resolve(100);
    resolve << TipprmiOID("object", NSID_UNIT);
    folder.write("resolve", seed(resolve, TreflectMessage::kRequest, TreflectMessage::tResolve));

    TipprmiStream subscribe(100);
    subscribe << 0xAB12u << true;
    folder.write("subscribe",
                 seed(subscribe, TreflectMessage::kRequest, TreflectMessage::tOCNSubscribe));
    return 0;
}
