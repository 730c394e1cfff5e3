#pragma once

#include "oswrap/Export.h"
#include "transport/AddressedMessage.h"
#include "transport/TerminationId.h"

namespace Transport {

/** A handle on a termination anywhere: just its address. A value. */
class REFLECTORB_API Termination {
public:
    /** A handle on the termination of this address, whether there is one or not. */
    explicit Termination(TerminationId id = {}) : id_(id) {}

    /** The address; 0 for none. */
    TerminationId termId() const { return id_; }

    /**
     * Sends `message` to this termination, in the name of message.originator(), which must be a
     * started termination of this process, and sets its destination. Never blocks on a slow
     * receiver. Keeps order per pair. When it has returned, the caller may change the buffer. 1:
     * handed to the transport. 0: no such termination, or the queue for it is full (64 MiB), or
     * too much waits for its process (128 MiB, and no more than is still free of 256 MiB for all),
     * or the message is empty, or its originator is not ours. A message that was taken and could
     * not be delivered comes back through receiveError.
     */
    int issue(AddressedMessage& message) const;
    /** As `issue`, for a message that somebody there waits for: finds room (8 MiB more) also when
     * the queue is full for others. */
    int issueAnswer(AddressedMessage& message) const;
    /** Gives `message` back to this termination (one of this process) as undeliverable: it comes
     * through its receiveError on its receiving thread. 1 when taken, else 0. */
    int issueError(AddressedMessage const& message) const;

protected:
    /** Leads to another address from now on. */
    void termId(TerminationId id) { id_ = id; }

private:
    TerminationId id_;
};

}  // namespace Transport
