#pragma once

#include <memory>

#include "transport/Termination.h"

namespace Transport {

class LocalTermination;

/**
 * A termination of this process: the base of a broker. Has a receiving thread of its own from
 * `start` to `stop`. Virtual operations stand in a fixed order of slots.
 *
 * Callbacks: `receive` and `receiveError` run on the receiving thread, or on one that waits for an
 * answer (AnswerWait) or for work (WorkWait), one message at a time, and must not wait for a
 * response.
 * `appeared` and `disappeare` run on the process's arrivals thread and departures thread, never on
 * a receiving thread. No lock of the transport is held in a callback, but for the one that keeps
 * messages apart.
 */
class REFLECTORB_API TerminationImpl : public Termination {
public:
    /** Takes an address in `group` with the slot of this process and a free name id (which is not
     * reused soon). termId() is 0, with a log line, when the rendezvous folder refuses. `name` is
     * for people (part of what a listing shows); may be empty. */
    TerminationImpl(GroupId group, char const* name);
    /** Frees the address. A class derived from this one calls `stop` in its own destructor, or is
     * stopped before: here its operations have gone, and none of them may be called any more. */
    virtual ~TerminationImpl();
    TerminationImpl(TerminationImpl const&) = delete;
    TerminationImpl& operator=(TerminationImpl const&) = delete;

    /** A message arrived. The result is of no account to the transport. */
    virtual bool receive(AddressedMessage const& message) = 0;
    /** Sends to this termination itself. */
    virtual int issue(AddressedMessage& message);
    /** A message of ours that was taken could not be delivered: a copy of our own, and again one
     * when it was sent again and did not arrive then either. */
    virtual bool receiveError(AddressedMessage const& message) = 0;
    virtual int issueError(AddressedMessage const& message);
    /** Makes the termination visible to all and starts the receiving thread; 1 on success, else 0.
     */
    virtual int start();
    /** Called by `start` when the termination is visible. The default does nothing. */
    virtual void started();
    /**
     * Withdraws the termination. Returns when no callback of it is running or will come, except the
     * one that called it. Idempotent. Does nothing in a forked child. A callback that does not
     * return keeps it waiting: whoever may not wait for ever, such as a process that exits, has it
     * called by a thread that can be left behind.
     */
    virtual void stop();
    /** Any termination of any group came up (our own too) or has gone. */
    virtual void appeared(Termination& termination) = 0;
    virtual void disappeare(Termination& termination) = 0;

    /**
     * Takes nothing more that `peer`, a termination of another process, sends to this one, until
     * `goOn`: it waits on its way, then with its sender, whose `issue` answers 0 once that is full.
     * Answers are held up like all else, so this is for a peer of which none is awaited. False
     * when nothing came from there over a channel. In `receive` only; may be repeated.
     */
    bool holdBack(TerminationId peer);
    /** Ends that; harmless for a peer that is not held back. Any thread. */
    void goOn(TerminationId peer) const;

    /**
     * Has the message that `receiveError` is called with sent to its destination once more: for an
     * answer, which its receiver may not have had the memory to take in. Done when `receiveError`
     * has returned; keep no handle on the message. False when it has been sent again before, or its
     * destination has gone. In `receiveError` only.
     */
    bool sendAgain(AddressedMessage const& message);

    /** Has threads that serve this termination take in messages by themselves, see WorkWait. Before
     * `start`. */
    void readByWorkers();

    /** A zero-filled buffer whose originator is this termination. `priority` is always 5 in this
     * system, and of no effect on one machine. Empty when larger than kLargestMessage. `capacity`:
     * see AddressedMessage::allocate. */
    AddressedMessage allocateMessage(std::size_t size, int priority,
                                     std::size_t capacity = 0) const;

private:
    /// The driver's half, from construction to destruction.
    std::unique_ptr<LocalTermination> local_;
};

}  // namespace Transport
