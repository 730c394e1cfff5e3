#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "oswrap/Mutex.h"
#include "platform/transport/MessageQueue.h"
#include "platform/transport/local/ChannelSides.h"
#include "platform/transport/local/Packet.h"
#include "platform/transport/local/Ring.h"
#include "transport/TerminationId.h"

namespace Transport {

class Receiver;

/**
 * One termination's side of its traffic with one termination of another process. Lives from the
 * first message until the peer is gone or the own termination stops, and has a connection while
 * there is something to say.
 *
 * | state | meaning | a message |
 * |---|---|---|
 * | Idle | no connection | is queued, if the peer exists; state Wanted |
 * | Wanted | the receiving thread is to connect | is queued |
 * | Connecting | we have said Hello | is queued |
 * | Open | rings in both directions | goes into the ring, or is queued when that is full |
 * | Leaving | we have said Bye, or are answering one | is queued |
 * | Gone | the peer has gone or we stop | is refused |
 *
 * When both sides say Hello at once, the Hello of the lower id is answered by Welcome and the other
 * one by Crossed. Nothing goes into a ring before Welcome.
 *
 * Sending runs on any thread, under the channel's mutex; everything else on the receiving thread of
 * the own termination. Channel.cpp has the way of messages, ChannelConnection.cpp the connection.
 */
class Channel : public std::enable_shared_from_this<Channel> {
public:
    enum class Sent { Refused, Taken, AskPresence };

    Channel(std::shared_ptr<Receiver> receiver, TerminationId peer);
    ~Channel();
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;

    // ---- Any thread ----
    TerminationId peer() const { return peer_; }
    std::uint32_t token() const { return token_; }
    /** Takes a copy of the bytes. AskPresence: there is no connection, and `peerExists` is false,
     * so find out and ask again. */
    Sent send(AddressedMessage const& message, bool peerExists, Room room);
    /** Sends a message without other owners that has come back once more, and takes it over: needs
     * no memory. False when the peer has gone, or too much waits for it. Receiving thread. */
    bool sendAgain(AddressedMessage message);
    /** Refuses everything from now on and has the receiving thread clear up. */
    void peerGone();
    /** Takes no more than one further message out of the ring at a time, and that only before a
     * close, until `goOn`; see TerminationImpl::holdBack. Receiving thread. */
    void holdBack() { heldBack_.store(true); }
    void goOn();
    /** True for the first caller until `service` runs. */
    bool markRequested() { return !requested_.exchange(true); }
    /** Whom the receiver serves after this one, while it is among the requests: a list without
     * memory of its own, since a request cannot fail. Guarded by the receiver's inbox mutex. */
    std::shared_ptr<Channel>& nextRequested() { return nextRequested_; }

    // ---- Receiving thread ----
    /** Does what another thread has asked for. */
    void service();
    /** Someone who is proved to be the peer has said Hello on `socket`. */
    void answerHello(OpenSocket socket, ReceivedPacket hello);
    void onSocket();
    void onBell();
    /** A bounded number of messages; false when there was nothing. */
    bool receiveBatch();
    bool hasData() const { return reader_.has_value() && !awaitsRing_ && reader_->hasData(); }
    void fallAsleep();
    void wakeUp();
    /** When to call `service` again by itself; 0: not at all. */
    long long retryAt() const { return retryAt_; }
    /** Called now and then: gives the connection back after two calls without traffic between. */
    void giveBackIfIdle();
    /** Closes the connection, for which memory did not suffice. */
    void closeForShortage();
    bool connected() const { return own_.control.valid(); }
    /** The own termination ends: sends on what fits, closes, and answers how many messages are
     * lost. */
    std::size_t shutDown();

private:
    enum class State { Idle, Wanted, Connecting, Open, Leaving, Gone };
    /** What becomes of messages in our ring that the peer has not taken when we close. */
    enum class Unread { GiveBack, LeaveToPeer };
    enum class Batch { Empty, More, Garbage, NoMemory };
    /** A Hello and the socket that it came on. */
    struct Greeting {
        OpenSocket socket;
        ReceivedPacket hello;
    };

    bool putLocked(AddressedMessage const& message) OSW_REQUIRES(mutex_);
    Sent enqueueLocked(AddressedMessage const& message, Room room) OSW_REQUIRES(mutex_);
    void pushLocked(AddressedMessage message) OSW_REQUIRES(mutex_);
    void drainLocked() OSW_REQUIRES(mutex_);
    bool sendFrontLocked() OSW_REQUIRES(mutex_);
    bool growLocked(std::size_t messageSize) OSW_REQUIRES(mutex_);
    void ringIfAsleepLocked() OSW_REQUIRES(mutex_);
    AddressedMessage popFrontLocked() OSW_REQUIRES(mutex_);

    State state();
    int socket();
    void connect();
    bool sayHello(OpenSocket socket);
    void retryLater(long long nanoseconds);
    void tryAgain(char const* reason);
    void giveUp(int level, char const* reason);
    bool peerIsGenuine(int socket);
    bool mayAnswer(int socket);
    void dropAttempt();
    void open(PeerSide peer);
    Packet packet(Packet::Kind kind, std::uint32_t ringCapacity = 0) const;

    void readPackets();
    void awaitDescriptors(int fd, char const* reason);
    void goOnWithDescriptors();
    bool takePacket(ReceivedPacket& received);
    bool takeWelcome(ReceivedPacket& received);
    bool takeNextRing(ReceivedPacket& received);
    void react();
    void answerBye();
    void resumeSending();

    Batch readBatch();
    bool take(AddressedMessage& message);
    Batch awaitMemory();
    bool switchRing();
    bool ending() const { return ended_ || leftSeen_ || leaving_ || goneSeen_; }
    bool hasReadAll();
    void end();
    void closeForGarbage(char const* what);
    void close(Unread unread);
    bool giveBackUntaken();
    void dismiss();
    void forgetPackets();
    void clearUpGone();

    std::shared_ptr<Receiver> const receiver_;
    TerminationId const ownId_;
    TerminationId const peer_;
    std::uint32_t const token_;               // of its descriptors' events
    std::atomic<bool> requested_{false};      // is among the receiver's requests
    std::shared_ptr<Channel> nextRequested_;  // see nextRequested
    std::atomic<bool> heldBack_{false};       // the peer waits until we go on taking

    // Taken with no other lock of the transport held but that of `issue`'s caller; under it the
    // receiver's own mutex may be taken.
    OSWrap::Mutex mutex_;
    State state_ OSW_GUARDED_BY(mutex_) = State::Idle;
    MessageQueue queue_ OSW_GUARDED_BY(mutex_);
    std::uint32_t frontDone_ OSW_GUARDED_BY(mutex_) = 0;  // bytes of the front one already sent
    std::optional<RingWriter> writer_ OSW_GUARDED_BY(mutex_);
    OpenSocket socket_ OSW_GUARDED_BY(mutex_);
    int peerBell_ OSW_GUARDED_BY(mutex_) = -1;          // peerSide_.bell
    bool spaceAsked_ OSW_GUARDED_BY(mutex_) = false;    // and the peer's bell not yet handled
    bool growthFailed_ OSW_GUARDED_BY(mutex_) = false;  // do not try again before the next bell

    // Receiving thread only.
    int shortages_ = 0;  // looks in a row at a message for which there is no memory
    OwnSide own_;
    PeerSide peerSide_;
    std::optional<RingReader> reader_;
    /** Of a connection that has ended; there is no other one before all this has gone back. */
    std::optional<SentMessages> untaken_;
    std::deque<RingArea> nextRings_;  // announced by the peer, oldest first
    bool awaitsRing_ = false;         // the ring goes on in one that has not been taken in yet
    bool starved_ = false;            // a packet waits until there are descriptors for it
    bool ended_ = false;              // end of file seen
    bool leftSeen_ = false;
    bool byeSeen_ = false;
    bool garbageSeen_ = false;
    bool leaving_ = false;   // a Bye has been answered, or crosses ours
    bool saysLeft_ = false;  // when that is done
    bool goneSeen_ = false;
    std::optional<Greeting> greeting_;         // answered when this connection has ended
    std::optional<std::uint32_t> endingFrom_;  // where the reader stood when the end was seen
    int attempts_ = 0;                         // to connect, without success
    long long retryAt_ = 0;
    std::uint32_t lastSent_ = 0;
    std::uint32_t lastReceived_ = 0;
    int idleLooks_ = 0;
};

}  // namespace Transport
