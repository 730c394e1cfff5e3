#include "platform/transport/link/Reassembly.h"

#include <cstring>
#include <utility>

#include "platform/transport/MessageChain.h"

namespace Link {

Reassembly::Outcome Reassembly::take(Record const& part, Transport::AddressedMessage& message) {
    if (part.head.offset == 0)
        begin(part.head);
    else if (!goesOnWith(part.head))
        return Outcome::Garbage;
    if (!message_.empty() && part.head.length > 0)
        std::memcpy(message_.buf() + received_, part.bytes, part.head.length);
    received_ += part.head.length;
    if (received_ < first_.total)
        return Outcome::Incomplete;
    underWay_ = false;
    message = std::exchange(message_, {});
    return message.empty() ? Outcome::PassedOver : Outcome::Complete;
}

void Reassembly::begin(RecordHead const& head) {
    underWay_ = true;
    first_ = head;
    received_ = 0;
    message_ = Transport::allocateUninitialized(head.total);
    if (message_.empty())
        return;
    message_.originator(head.from);
    message_.destination(head.to);
}

bool Reassembly::goesOnWith(RecordHead const& head) const {
    return underWay_ && head.kind == first_.kind && head.from == first_.from &&
           head.to == first_.to && head.serial == first_.serial && head.total == first_.total &&
           head.offset == received_;
}

void Reassembly::passOverFor(Transport::TerminationId to) {
    if (underWay_ && first_.kind == RecordKind::Message && first_.to == to)
        message_ = {};
}

void Reassembly::drop() {
    underWay_ = false;
    message_ = {};
}

}  // namespace Link
