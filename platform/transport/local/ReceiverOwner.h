#pragma once

#include <cstdint>
#include <optional>

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
 * another machine, and passes on what comes. All calls are made on that thread (or, of a message,
 * on one that has its role), one at a time, with no lock of the transport held.
 */
class ReceiverOwner {
public:
    /** A message has arrived. Who passes it on, and has it from another process, where
     * MessageChain::endInRing tells its place, says when that one need not keep it any more: see
     * Channel::release. */
    virtual void received(AddressedMessage const& message) = 0;
    /** Instead of that, for who passes messages on: one from another process, over the channel of
     * this token. Peers that follow each other under one id have different ones. */
    virtual void receivedOver(std::uint32_t /*channel*/, AddressedMessage const& message) {
        received(message);
    }
    /** The connection with `peer` ends, and this termination stays. What has come over it and is
     * not released the peer has taken back, or else it is the owner's from now on, up to the place
     * that he answers: what is behind that the peer has back, too. Must not throw. */
    virtual std::optional<std::uint32_t> connectionEnded(TerminationId, std::uint32_t /*channel*/,
                                                         bool /*takenBack*/) {
        return std::nullopt;
    }
    /** A message that was sent could not be delivered. */
    virtual void cameBack(AddressedMessage const& message, Reached reached) = 0;
    /** For the time being there is nothing more: for who gathers what he has received. */
    virtual void batchEnded() {}
    /** Messages that had to wait for `peer` have gone where it takes them from: all up to this
     * place (see Switchboard::issue) that have not come back. Who has come back out of the queue is
     * told before any later place, and who has left it before he comes back. Must not throw. */
    virtual void leftQueue(TerminationId, std::uint64_t) {}
    /** Before anything can come over a channel with `peer`. Must not throw. */
    virtual void channelBegan(TerminationId, std::uint32_t /*channel*/) {}
    /** The peer of such a channel has gone, or this termination ends: all that came over it, and
     * all that comes back since the peer has not read it, has been handed over. Must not throw. */
    virtual void channelCleared(TerminationId, std::uint32_t /*channel*/) {}
    /** Whether it passes messages on, and is to be told all that; asked once. */
    virtual bool passesOn() const { return false; }
    /** Whether it has threads that may take in messages by themselves, see WorkWait; asked once. */
    virtual bool hasWorkers() const { return false; }

protected:
    ~ReceiverOwner() = default;
};

}  // namespace Transport
