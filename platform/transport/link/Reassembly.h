#pragma once

#include "platform/transport/link/Record.h"
#include "transport/AddressedMessage.h"

namespace Link {

/**
 * Puts one message together out of its parts, which come one behind the other: so of a peer no
 * more than one message is held that is not whole. Part of a Session, under its lock.
 */
class Reassembly {
public:
    enum class Outcome {
        Incomplete,
        Complete,
        PassedOver,  // its last part has come; there was no memory for it, or it is of no use
        Garbage,     // a part that does not go on where the one before has ended
    };

    /** Takes a part, of a record that makes sense by itself; `message` is the whole one when it is
     * complete, with the record's addresses. A first part drops what was not complete. */
    Outcome take(Record const& part, Transport::AddressedMessage& message);
    /** Passes over what is still to come of a message for `to`, which has gone. */
    void passOverFor(Transport::TerminationId to);
    void drop();

private:
    void begin(RecordHead const& head);
    bool goesOnWith(RecordHead const& head) const;

    bool underWay_ = false;
    RecordHead first_;
    std::uint32_t received_ = 0;
    Transport::AddressedMessage message_;  // empty: the parts are passed over
};

}  // namespace Link
