#pragma once

#include <cstdint>

#include "transport/AddressedMessage.h"
#include "transport/TerminationId.h"

namespace Transport {

/** How far a message had come that comes back. */
enum class Reached {
    Queue,  // it waited with its sender
    Ring,   // it was put where the receiver takes it from
};

/**
 * Whom a receiving thread works for: a termination of this process, or who stands for one of
 * another machine. All calls are made on that thread (or, of a message, on one that has its role),
 * one at a time, with no lock of the transport held.
 */
class ReceiverOwner {
public:
    /** A message has arrived. */
    virtual void received(AddressedMessage const& message) = 0;
    /** A message that was sent could not be delivered. */
    virtual void cameBack(AddressedMessage const& message, Reached reached) = 0;
    /** For the time being there is nothing more: for who gathers what he has received. */
    virtual void batchEnded() {}
    /** Messages that had to wait for `peer` have gone where it takes them from: all up to this
     * place (see Switchboard::issue) that have not come back. Who has come back out of the queue is
     * told before any later place, and who has left it before he comes back. Must not throw. */
    virtual void leftQueue(TerminationId, std::uint64_t) {}
    /** Whether it is to be told that; asked once. */
    virtual bool tellsPlaces() const { return false; }
    /** Whether it has threads that may take in messages by themselves, see WorkWait; asked once. */
    virtual bool hasWorkers() const { return false; }

protected:
    ~ReceiverOwner() = default;
};

}  // namespace Transport
