// Takes a buffer of unknown origin as an arrived message: checks and reports it, then reads it.
#include <cstring>

#include "FuzzProcess.h"
#include "ipprmi/TipprmiException.h"
#include "reflect/TreflectORB.h"

namespace {

constexpr std::size_t kAddressBytes = 8;

TreflectMessage arrived(std::uint8_t const* data, std::size_t size) {
    auto whole = Transport::AddressedMessage::allocate(size - kAddressBytes);
    if (size > kAddressBytes)
        std::memcpy(whole.buf(), data + kAddressBytes, size - kAddressBytes);
    std::uint32_t addresses[2];
    std::memcpy(addresses, data, kAddressBytes);
    whole.originator(addresses[0]);
    whole.destination(addresses[1]);
    return TreflectMessage(whole);
}

/** Reports the message by its type, and reads it as a response. */
void readPayload(TreflectMessage const& message) {
    if (TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT))
        orb->testInfoAboutMessage(message.originator(), message, true);
    TipprmiStream stream(message, false);
    TipprmiExceptionContainer container;
    TipprmiGeneralException exception;
    stream >> container;
    container.getExceptionData(exception);
    if (stream.hasUnmarshallingFailed())
        stream.printUnmarshallError(0, exception.code());
}

void runMessage(std::uint8_t const* data, std::size_t size) {
    if (size < kAddressBytes)
        return;
    TreflectMessage const message = arrived(data, size);
    message.testValidation(TreflectMessage::kUndef, 0, "", true, 0);
    message.testValidation(message.kind(), 0, "", true, 0);
    message.testValidation(TreflectMessage::kResponse, 0, "", false, 0);
    readPayload(message);

    TreflectMessage const grown(nullptr, message, message.size() + 100);
    TreflectMessage const cut(nullptr, message, message.size() / 2);
    if (grown.transactionId() != message.transactionId() || cut.type() != message.type())
        std::abort();
    readPayload(cut);
    TipprmiStream answer(message, true);
    answer << TipprmiExceptionContainer() << "answer";
}

}  // namespace

FUZZ_TARGET(message, runMessage)
