#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "oswrap/AdaptiveWait.h"
#include "oswrap/Clock.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Mutex.h"
#include "platform/transport/MessageChain.h"
#include "platform/transport/local/Acceptor.h"
#include "platform/transport/local/Descriptor.h"
#include "platform/transport/local/EventSet.h"
#include "platform/transport/local/Inbox.h"
#include "platform/transport/local/Pace.h"
#include "platform/transport/local/ReceiverTimers.h"
#include "platform/transport/local/UnsentCount.h"
#include "platform/transport/local/WorkerSet.h"
#include "transport/TerminationId.h"

namespace Transport {

class Channel;
class ReceiverOwner;
class ReceiverPool;

/**
 * What the receiving thread of one visible termination serves: those who connect, the sockets and
 * bells of its channels, messages from terminations of the same process, and messages that come
 * back. Shared by that thread, the channels and the switchboard, so that it outlives a termination
 * that is deleted in its own callback.
 *
 * The thread is its own, which ends when `stop` has been called and clears up by itself, or one of
 * a ReceiverPool, which it shares with others.
 */
class Receiver : public std::enable_shared_from_this<Receiver> {
public:
    using Source = EventSet::Source;

    /** The owner lives until `stop` has returned, unless it is deleted in its own callback. */
    Receiver(TerminationId id, ReceiverOwner& owner);
    ~Receiver();
    Receiver(Receiver const&) = delete;
    Receiver& operator=(Receiver const&) = delete;

    /** Makes what the thread waits on; false, with a log line, on failure. */
    bool prepare();
    /** Takes the listening descriptor and starts a thread of its own, or has one of the pool serve
     * it; false, with a log line, on failure. */
    bool start(OpenSocket listening);
    bool start(OpenSocket listening, ReceiverPool& pool);

    // ---- Any thread ----
    TerminationId id() const { return id_; }
    /** Takes a copy of a message from a termination of this process; 1 when taken. */
    int deliverCopy(AddressedMessage const& message, Room room);
    /** From now on no message of this process is taken: the termination is out of sight. */
    void refuseReceiving() { inbox_.refuseMessages(); }
    /** Takes messages, each without other owners, that are to go through receiveError. One at a
     * time they are bounded like what arrives; those of a channel are as many as it had taken. */
    int giveBack(AddressedMessage message);
    void giveBack(MessageChain& messages);
    /** Has the message that `receiveError` is called with sent once more when that has returned;
     * false when it has been before, or its destination has gone. In `receiveError` only. */
    bool sendAgain(AddressedMessage const& message);
    /** Has the thread call the channel's `service`. */
    void request(Channel& channel);
    /** The same for a channel whose ring has been handed over to the thread. */
    void requestReading(Channel& channel);
    /** Whether the termination may still send. */
    bool sending() const { return unsent_.sending(); }
    /** How many messages wait in the queues of channels. */
    std::size_t unsent() const { return unsent_.count(); }
    /** How many of them go back to those who have sent them. */
    std::size_t returning() const { return returning_.load(); }
    void refuseSending() { unsent_.refuseSending(); }
    /** Whether the owner passes messages on: releases those that have come, and is told which have
     * left a channel's queue, and of each channel when it begins and is cleared. */
    bool passesOn() const { return passesOn_; }
    /** Counts messages that wait in a channel's queue. */
    void unsentMore() { unsent_.more(); }
    void unsentLess(std::size_t count) { unsent_.less(count); }
    void returningMore() { returning_.fetch_add(1); }
    void returningLess(std::size_t count) { returning_.fetch_sub(count); }
    /** See UnsentCount::wait; at once on the receiving thread itself. */
    void waitUntilSent(long long idle, long long most);
    /** Ends the thread, or its part for this one. Returns when it makes no callback of this one any
     * more, unless called from inside one; not from inside one of another that shares the thread.
     */
    void stop();
    /** Has the thread end soon, which `stop` then waits for. */
    void beginToStop();
    /** Nothing more is taken out of rings: what is there, or comes, stays with its senders. What
     * has been taken has been delivered when this returns. Not from inside a callback. */
    void takeNoMore();
    bool takesNoMore() const { return takesNoMore_.load(std::memory_order_relaxed); }
    /** Whether this is the receiving thread, or one that reads in its place just now. */
    bool onReceivingThread() const;
    /** The same of any termination: such a thread must not wait. */
    static bool onSomeReceivingThread() { return received_ != nullptr; }
    /** For a scope, the calling thread reads in place of the receiving thread. */
    class Receiving {
    public:
        explicit Receiving(Receiver const& receiver)
            : outer_(std::exchange(received_, &receiver)) {}
        ~Receiving() { received_ = outer_; }
        Receiving(Receiving const&) = delete;
        Receiving& operator=(Receiving const&) = delete;

    private:
        Receiver const* const outer_;
    };
    static std::uint32_t newToken();
    /** Where workers of the owner wait. */
    WorkerSet& workers() { return workers_; }
    /** Whether what comes is one message at a time, each after an answer to the one before: then
     * workers without work read. Statistics. */
    bool oneAtATime() const { return pace_.oneAtATime(); }
    /** It is not, as far as workers are concerned: each bell that tells of room would wake them. */
    void comesOutOfTurn() { pace_.interrupt(); }
    /** The token of the channel on which that has come last. */
    std::uint32_t lastFrom() const { return lastFrom_.load(std::memory_order_relaxed); }

    /** Time between two looks for idle channels, in nanoseconds. */
    static void idleLookInterval(long long nanoseconds);

    // ---- Who has the role of reading a channel ----
    bool stopping() const { return stopping_.load(); }
    /** Hands the message to the termination. The thread has seen just before that it is not
     * `stopping`; a `stop` that begins meanwhile on another thread waits for this. */
    void deliver(Channel& channel, AddressedMessage const& message);
    /** The same, by the receiving thread, which may leave the channel's ring just before. False: it
     * stays its sender's. */
    bool deliverFrom(Channel& channel, AddressedMessage const& message);
    /** Likewise one of its own that a peer could not pass on: for good, it is not sent again. */
    void takeBack(AddressedMessage& message);

    // ---- Receiving thread ----
    /** See ReceiverOwner::connectionEnded: nothing when the termination takes no more. */
    std::optional<std::uint32_t> connectionEnded(Channel const& channel, bool takenBack);
    /** Tells the owner what has left a channel's queue, after all that has come back so far. */
    void leftQueue(TerminationId peer, std::uint64_t place);
    void enrol(Channel& channel);
    void dismiss(Channel& channel);
    bool watch(int fd, std::uint32_t token, Source source);
    void unwatch(int fd) { events_.unwatch(fd); }
    /** Looks at the channel's ring from now on without waiting for its bell, unless another thread
     * reads it. */
    void makeHot(Channel& channel);
    void makeCold(Channel& channel);
    /** Calls `service` of a channel with a retry time when that has come. */
    void wakeAt(long long time) { timers_.at(time); }
    /** There are none left: channels of this termination without traffic for a tenth of a second or
     * two give theirs back, and those that have had them for longer. Not a link's, who never do:
     * what they have passed on counts for those at the other ends, who give them back. */
    void wantDescriptors() {
        if (!passesOn_)
            timers_.hurryIdleLook(OSWrap::Clock::nowNanoseconds());
    }
    /** A channel of this termination waits for some to connect: until it has tried again, those who
     * connect here are to leave it enough. */
    void keepDescriptors() { keptUntil_ = OSWrap::Clock::nowNanoseconds() + kKeepFor; }
    bool keepsDescriptors() const { return OSWrap::Clock::nowNanoseconds() < keptUntil_; }

    // ---- Receiving thread, as what drives this one, in a scope of Receiving ----
    /** Looks at everything once; false when there was nothing to do. Not when `stopping`. */
    bool work();
    /** Whether there is something to do, also for a thread that is not asleep. */
    bool ready() const;
    /** From here on others ring; false, and they do not, when there is something to do. Then wait
     * for the descriptor, until `due`, and call `wake`. */
    bool fallAsleep();
    int descriptor() const { return events_.descriptor(); }
    long long due() const { return timers_.due(); }
    void wake() { awaitEvents(0); }
    /** Last of all, when `stopping`. */
    void end();

private:
    class ReceivingThread;
    /** Nanoseconds; a channel tries again sooner. */
    static constexpr long long kKeepFor = 300'000'000;

    void run();
    bool serveAllReturned();
    void forget(Channel& channel);
    bool startWith(OpenSocket listening, std::function<bool()> const& startThread);
    void turn(bool& served);
    void endBatch();
    void awaitEvents(int timeoutMilliseconds);
    bool serveRequests();
    bool serveInbox();
    void serveReturned(AddressedMessage message);
    void noteArrival(Channel& channel, AddressedMessage const& message) OSW_REQUIRES(callback_);
    void forgetLast();
    void deliverLocally(AddressedMessage const& message);
    bool serveChannels();
    bool leaveRings();
    void sleep();
    void serveEvents(int timeoutMilliseconds);
    void serveEvent(std::uint32_t token, Source source);
    void serveTimers();
    void serveTimers(Channel& channel, long long now, ReceiverTimers::IdleLook look);
    bool started();
    void setStarted(bool now);
    void takeRingsBack();
    void finish();
    void closeInbox();
    void shutDownChannels();

    TerminationId const id_;
    ReceiverOwner* const owner_;  // a callback begins only while stopping_ is not set
    bool const passesOn_;
    long long keptUntil_ = 0;  // see keepDescriptors; of the receiving thread
    std::atomic<bool> stopping_{false};
    static thread_local Receiver const* received_;  // for whom the thread reads
    UnsentCount unsent_;
    std::atomic<std::size_t> returning_{0};
    EventSet events_;
    WorkerSet workers_;
    Inbox inbox_;

    // A leaf: signalled when finished_ is set, and while stopping when a ring is handed over.
    OSWrap::ConditionVar change_;
    bool finished_ OSW_GUARDED_BY(change_) = false;
    bool started_ OSW_GUARDED_BY(change_) = false;

    // Written for each message that comes: not beside what each sender reads.
    /// One callback at a time. Under it the termination takes its own locks, and nobody waits.
    alignas(64) OSWrap::Mutex callback_;
    std::atomic<bool> takesNoMore_{false};  // set under callback_
    /// The owner has been called since the last batchEnded; set before, by whoever calls.
    std::atomic<bool> hasServed_{false};
    std::shared_ptr<Channel> last_ OSW_GUARDED_BY(callback_);  // on which something has come last
    std::uint32_t lastSent_ OSW_GUARDED_BY(callback_) = 0;     // by that, until then
    bool lastWasLarge_ OSW_GUARDED_BY(callback_) = false;
    std::atomic<std::uint32_t> lastFrom_{0};  // written under callback_
    Pace pace_;                               // noted under callback_

    // Receiving thread only.
    bool inboxFilled_ = false;  // inbox_ may hold something
    bool sendsAgain_ = false;   // the message that has just come back
    bool hasLeft_ = false;      // a ring to others, since it last looked for one to leave
    int turns_ = 0;             // in which something was served
    Acceptor acceptor_;
    std::unordered_map<std::uint32_t, std::shared_ptr<Channel>> channels_;
    std::vector<std::shared_ptr<Channel>> hot_;  // the thread has their rings; `asleep` is 0
    std::vector<std::shared_ptr<Channel>> serving_;
    ReceiverTimers timers_;
    OSWrap::AdaptiveWait waiting_;
};

}  // namespace Transport
