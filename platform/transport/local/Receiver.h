#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "oswrap/AdaptiveWait.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Mutex.h"
#include "platform/transport/MessageQueue.h"
#include "platform/transport/local/Acceptor.h"
#include "platform/transport/local/Descriptor.h"
#include "transport/TerminationId.h"

namespace Transport {

class Channel;
class TerminationImpl;

/**
 * The receiving thread of one started termination with all that it serves: those who connect, the
 * sockets and bells of its channels, messages from terminations of the same process, and messages
 * that come back. Shared by that thread, the channels and the switchboard, so that it
 * outlives a termination that is deleted in its own callback.
 *
 * The thread ends when `stop` has been called, and clears up by itself.
 */
class Receiver : public std::enable_shared_from_this<Receiver> {
public:
    /** Which descriptor of a channel or of the receiver an event is about. */
    enum class Source : std::uint32_t { WakeUp = 0, Listening = 1, Socket = 2, Bell = 3 };

    Receiver(TerminationId id, TerminationImpl& owner);
    ~Receiver();
    Receiver(Receiver const&) = delete;
    Receiver& operator=(Receiver const&) = delete;

    /** Makes what the thread waits on; false, with a log line, on failure. */
    bool prepare();
    /** Takes the listening descriptor and starts the thread; false, with a log line, on failure. */
    bool start(OpenSocket listening);

    // ---- Any thread ----
    TerminationId id() const { return id_; }
    /** Takes a copy of a message from a termination of this process; 1 when taken. */
    int deliverCopy(AddressedMessage const& message, Room room);
    /** From now on no message of this process is taken: the termination is out of sight. */
    void refuseReceiving();
    /** Takes messages, each without other owners, that are to go through receiveError. One at a
     * time they are bounded like what arrives; those of a channel are as many as it had taken. */
    int giveBack(AddressedMessage message);
    void giveBack(MessageQueue& messages);
    /** Has the message that `receiveError` is called with sent once more when that has returned;
     * false when it has been before, or its destination has gone. In `receiveError` only. */
    bool sendAgain(AddressedMessage const& message);
    /** Has the thread call the channel's `service`. */
    void request(Channel& channel);
    /** Whether the termination may still send. Ordered with the count of what waits: whoever takes
     * the last message out and whoever waits for that after `refuseSending` never miss each other.
     */
    bool sending() const { return sending_.load(); }
    void refuseSending() { sending_.store(false); }
    /** Counts messages that wait in a channel's queue. */
    void unsentMore() { unsent_.fetch_add(1); }
    void unsentLess(std::size_t count);
    /** Waits until nothing waits in a queue any more, or nothing has left the queues for `idle`
     * nanoseconds, but at most for `most`; not on the receiving thread itself. */
    void waitUntilSent(long long idle, long long most);
    /** Ends the thread. Returns when it makes no callback any more, unless called from inside one.
     */
    void stop();
    bool onReceivingThread() const;
    static std::uint32_t newToken();

    /** For tests: time between two looks for idle channels, in nanoseconds. */
    static void idleLookInterval(long long nanoseconds);

    // ---- Receiving thread ----
    bool stopping() const { return stopping_.load(); }
    /** Hands the message to the termination. The thread has seen just before that it is not
     * `stopping`; a `stop` that begins meanwhile on another thread waits for this. */
    void deliver(AddressedMessage const& message);
    void enrol(Channel& channel);
    void dismiss(Channel& channel);
    bool watch(int fd, std::uint32_t token, Source source);
    void unwatch(int fd);
    /** Looks at the channel's ring from now on without waiting for its bell. */
    void makeHot(Channel& channel);
    void makeCold(Channel& channel);
    /** Calls `service` of a channel with a retry time when that has come. */
    void wakeAt(long long time);

private:
    class ReceivingThread;
    void run();
    void turn(int& turns);
    bool serveRequests();
    std::shared_ptr<Channel> takeRequests();
    bool serveInbox();
    void serveReturned(AddressedMessage message);
    bool serveChannels();
    bool ready() const;
    void sleep();
    void wake();
    void serveEvents(int timeoutMilliseconds);
    void serveEvent(std::uint64_t data);
    void serveTimers();
    void serveTimers(Channel& channel, long long now, bool idleLook);
    int timeout() const;
    void finish();
    void closeInbox();
    void shutDownChannels();

    TerminationId const id_;
    TerminationImpl* const owner_;  // a callback begins only while stopping_ is not set
    std::atomic<bool> sending_{true};
    std::atomic<bool> stopping_{false};
    std::atomic<unsigned long> threadId_{0};
    std::atomic<std::size_t> unsent_{0};

    std::atomic<bool> attention_{false};  // inbox_, errors_ or the requests are not empty
    std::atomic<bool> asleep_{false};     // ring wakeBell_ to be heard
    Descriptor epoll_;
    Descriptor wakeBell_;

    OSWrap::Mutex inboxMutex_;  // a leaf: nothing is locked under it
    MessageQueue inbox_ OSW_GUARDED_BY(inboxMutex_);
    MessageQueue errors_ OSW_GUARDED_BY(inboxMutex_);
    // The first and the last of those linked by Channel::nextRequested
    std::shared_ptr<Channel> firstRequest_ OSW_GUARDED_BY(inboxMutex_);
    Channel* lastRequest_ OSW_GUARDED_BY(inboxMutex_) = nullptr;
    bool refusing_ OSW_GUARDED_BY(inboxMutex_) = false;  // messages, but not those that come back
    bool closed_ OSW_GUARDED_BY(inboxMutex_) = false;

    OSWrap::ConditionVar change_;  // a leaf: told when finished_ is set or unsent_ falls to 0
    bool finished_ OSW_GUARDED_BY(change_) = false;
    bool started_ OSW_GUARDED_BY(change_) = false;

    // Receiving thread only.
    bool inboxFilled_ = false;  // inbox_ or errors_ may hold something
    bool sendsAgain_ = false;   // the message that has just come back
    Acceptor acceptor_;
    std::unordered_map<std::uint32_t, std::shared_ptr<Channel>> channels_;
    std::vector<std::shared_ptr<Channel>> hot_;  // their `asleep` words are 0
    std::vector<std::shared_ptr<Channel>> serving_;
    long long nextTimer_;     // when serveTimers has something to do
    long long nextIdleLook_;  // never, while no channel is connected
    OSWrap::AdaptiveWait waiting_;
};

}  // namespace Transport
