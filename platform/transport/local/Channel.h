#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <utility>

#include "oswrap/Clock.h"
#include "oswrap/Mutex.h"
#include "platform/transport/MessageChain.h"
#include "platform/transport/local/ChannelSides.h"
#include "platform/transport/local/Packet.h"
#include "platform/transport/local/PeerShare.h"
#include "platform/transport/local/ReadingEnd.h"
#include "platform/transport/local/Ring.h"
#include "platform/transport/local/Showing.h"
#include "transport/AnswerWait.h"
#include "transport/TerminationId.h"

namespace Transport {

class Receiver;

/**
 * One termination's side of its traffic with one termination of another process. Lives while there
 * is something to say, for which it has a connection, or something left of what was said; until the
 * peer is gone or the own termination stops at the latest. Those of a link's proxies, which count
 * the messages, live that long in any case.
 *
 * | state | meaning | a message |
 * |---|---|---|
 * | Idle | no connection | is queued, if the peer exists; state Wanted |
 * | Wanted | the receiving thread is to connect | is queued |
 * | Connecting | we have said Hello | is queued |
 * | Open | rings in both directions | goes into the ring, or is queued when that is full |
 * | Leaving | we have said Bye, or are answering one | is queued |
 * | Gone | the peer has gone or we stop | is refused |
 * | Retired | nothing was left to say | goes to a new channel |
 *
 * When both sides say Hello at once, the Hello of the lower id is answered by Welcome and the other
 * one by Crossed. Nothing goes into a ring before Welcome.
 *
 * Sending runs on any thread, under the channel's mutex. Messages are taken in by whoever has the
 * role of the ReadingEnd: the receiving thread of the own termination, or a thread that waits for
 * one of them. Everything else is that receiving thread's. Channel.cpp has the way of messages,
 * ChannelConnection.cpp the connection.
 */
class Channel : public std::enable_shared_from_this<Channel> {
public:
    enum class Sent { Refused, Taken, AskPresence, Retired };

    /** `share`: of the peer's process. */
    Channel(std::shared_ptr<Receiver> receiver, TerminationId peer,
            std::shared_ptr<PeerShare> share);
    ~Channel();
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;

    // ---- Any thread ----
    static constexpr char const* kTooManyChannels = "its process has too many channels";
    /** That `peer` has wanted a channel with the termination `own` of this process in vain. */
    static void tellRefused(TerminationId peer, TerminationId own, char const* reason);

    TerminationId peer() const { return peer_; }
    std::uint32_t token() const { return token_; }
    /** Takes a copy of the bytes. AskPresence: there is no connection, and `peerExists` is false,
     * so find out and ask again. Retired: it takes nothing any more, another one may. `place`, if
     * asked for, becomes that in the queue when the message has to wait there, else it stays as it
     * is; see ReceiverOwner::leftQueue. */
    Sent send(AddressedMessage const& message, bool peerExists, Room room,
              std::uint64_t* place = nullptr);
    /** Sends a message without other owners that has come back once more, and takes it over: needs
     * no memory. False when the peer has gone, or too much waits for it. Receiving thread. */
    bool sendAgain(AddressedMessage message);
    /** Sends a copy of a message of the peer's, which could not be delivered where it was passed on
     * to, back to it. Refused as above, or without memory. Any thread that knows that the peer
     * exists. */
    Sent sendBack(AddressedMessage const& message);
    /** It has not taken what it may have been made for. Any thread. */
    void mayBeUnused();
    /** Refuses everything from now on and has the receiving thread clear up. */
    void peerGone();
    /** How many messages it has been given for the peer. Any thread. */
    std::uint32_t sent() const { return sent_.load(std::memory_order_relaxed); }
    /** Takes no more than one further message out of the ring at a time, and that only before a
     * close, until `goOn`; see TerminationImpl::holdBack. Receiving thread. */
    void holdBack() { heldBack_.store(true); }
    void goOn();
    /** For an owner who passes messages on: those that came from the peer, up to the one of this
     * place, are in his hands no more, or need not be. Until then they are the peer's, who has them
     * back when the connection ends with this termination, or with the process. A place of an
     * earlier connection has no effect. */
    void release(std::uint32_t place);
    /** True for the first caller until `service` runs. */
    bool markRequested() { return !requested_.exchange(true); }
    /** Whom the receiver serves after this one, while it is among the requests: a list without
     * memory of its own, since a request cannot fail. Guarded by the receiver's inbox mutex. */
    std::shared_ptr<Channel>& nextRequested() { return nextRequested_; }

    // ---- Threads that wait for something that comes from the peer ----
    /** Counts the thread among those who wait for an answer of the peer. */
    void joinWaiters();
    void leaveWaiters() { waiters_.fetch_sub(1, std::memory_order_relaxed); }
    /** Whether those who wait usually do so alone, as this one does: of many, each would soon leave
     * the ring to the next. */
    bool mayBeReadByCaller() const {
        return isReadByCallers() && waiters_.load(std::memory_order_relaxed) == 1;
    }
    /** Takes the role of reading, in such a case, if nobody has it. */
    bool beginReading();
    /** Ends that. */
    void endReading();
    // With that role:
    /** Takes in a bounded number of messages, none behind the awaited one. False when the role has
     * gone to the receiving thread, to which all is left that is not a message. */
    bool takeIn(AnswerWait::Awaited const& awaited);
    Receiver& receiver() const { return *receiver_; }
    /** Leaves the rest to the receiving thread. */
    void handOver();
    /** Whether there is something to do for the reader. */
    bool needsReader() const { return reading_.reader().hasData() || reading_.wanted(); }
    ReadingEnd& reading() { return reading_; }
    /** Sends on what waits for room: to be called by whoever has heard the bell, which tells of
     * room as well as of messages. Whether something still waits. */
    bool goOnSending();

    // ---- The worker that reads ----
    /** Whether a worker should take in what comes next: nobody waits for an answer, who would do
     * so. */
    bool mayBeReadByWorker() const;
    /** Takes the role of reading, in such a case, if nobody has it. */
    bool beginWork() { return mayBeReadByWorker() && reading_.tryTake(); }
    /** It has heard the bell: whether it has the role now, to take in what there is. */
    bool heardByWorker();
    /** With the role: whether there is something to do, or somebody else should have it. */
    bool needsWorker() const {
        return needsReader() || waiters_.load(std::memory_order_relaxed) != 0;
    }
    /** Ends that. Where more comes than one at a time the receiving thread goes on. */
    void endWork();

    // ---- Receiving thread ----
    /** Does what another thread has asked for. */
    void service();
    /** Someone who is proved to be the peer has said Hello on `socket`. */
    void answerHello(OpenSocket socket, ReceivedPacket hello);
    void onSocket();
    void onBell();
    /** A bounded number of messages; false when there was nothing. */
    bool receiveBatch();
    bool hasData() const { return stands() && !reading_.awaitsRing && reading_.reader().hasData(); }
    /** Takes the role of reading and looks at the ring from now on; false when another thread does,
     * or there is none. */
    bool claimRing();
    void fallAsleep();
    void wakeUp();
    /** After `fallAsleep` and a look: the bell wakes whoever is to read next. */
    void leaveRing();
    /** The message that has been taken out is its sender's no more. */
    void keepMessage() { reading_.reader().keep(); }
    /** Leaves the ring to the one who waits for an answer, or to a worker, before the message that
     * has been taken out is delivered, if it was the last. */
    bool leaveEmptyRing();
    /** Whether those who wait for answers read them by themselves when they can. */
    bool isReadByCallers() const { return lonely_.load(std::memory_order_relaxed) >= kLonely; }
    /** Whether this thread need not poll for others, who read by themselves. It does while more is
     * sent than the peer takes, and nobody waits: to hear each bell that tells of room would cost
     * both more. */
    bool leavesRing() const;
    /** Whether somebody waits for an answer of the peer. Any thread. */
    bool isAwaited() const { return waiters_.load(std::memory_order_relaxed) != 0; }
    /** Asks for the ring, before the end; true when no other thread reads. */
    bool takeRingBack() { return reading_.demand(); }
    bool hasRing() const { return reading_.isReceivers(); }
    /** When to call `service` again by itself; 0: not at all. */
    long long retryAt() const { return retryAt_; }
    /** Called now and then: gives the connection back after two calls without traffic between. With
     * `wanted`, others wait for its descriptors: then also one with traffic that has had its turn,
     * unless callers use it; and a peer that does not answer for long is not asked any more. */
    void giveBackIfIdle(bool wanted);
    /** Closes the connection, for which memory did not suffice. */
    void closeForShortage();
    bool connected() const { return connection_.has_value(); }
    /** The own termination ends: sends on what fits, closes, and answers how many messages are
     * lost. */
    std::size_t shutDown();

private:
    enum class State { Idle, Wanted, Connecting, Open, Leaving, Gone, Retired };
    /** What becomes of messages in our ring that the peer has not taken when we close. */
    enum class Unread { GiveBack, LeaveToPeer };
    enum class Batch { Empty, More, Left, Waits, Garbage, NoMemory, NoRoom };
    /** Who has the role of reading: the receiving thread, or one that waits. */
    enum class Reader { Receiver, Other };
    /** Why a connection is of no more use, once what the peer has sent has been taken in. When
     * several reasons come together, the last of them in this list decides. */
    enum class Ending {
        None,
        BothLeave,     // its Bye has crossed ours
        WeLeave,       // we answer its Bye
        SocketClosed,  // end of file
        PeerLeft,      // it has answered our Bye
        PeerGone,      // the termination itself
    };
    /** What all threads need for sending. Lives as long as the Connection. */
    struct Link {
        Link(OpenSocket with, std::shared_ptr<PeerShare> share)
            : socket(std::move(with)), rings(PeerShare::Kind::Rings, std::move(share)) {}
        OpenSocket socket;
        std::optional<RingWriter> writer;  // once the connection stands
        std::uint32_t frontDone = 0;       // bytes of the queue's front one already sent
        int peerBell = -1;                 // Connection::peer's
        bool spaceAsked = false;           // and the peer's bell not yet handled
        bool growthFailed = false;         // do not try again before the next bell
        bool toLink = false;               // the peer's process passes on what it takes
        PeerShare::Reservation rings;      // those that were grown to
    };
    /** What the receiving thread needs, and what it has seen: all of that is over with the
     * connection. */
    struct Connection {
        explicit Connection(OwnSide side) : own(std::move(side)) {}
        bool ending() const { return reason != Ending::None; }
        void endFor(Ending another) { reason = std::max(reason, another); }

        OwnSide own;
        PeerSide peer;
        std::optional<Showing> showing;  // of the peer, to a link
        std::deque<RingArea> nextRings;  // announced by the peer, oldest first
        bool starved = false;            // a packet waits until there are descriptors for it
        bool byeSeen = false;            // and not yet reacted to, as with garbageSeen
        bool garbageSeen = false;
        bool broken = false;  // to be closed, and what is not taken given back
        Ending reason = Ending::None;
        std::optional<std::uint32_t> endingFrom;  // where the reader stood when the end was seen
        long long roomlessSince = 0;  // when a message was first left for want of room; 0: none is
        std::uint32_t lastSent = 0;
        std::uint32_t lastReceived = 0;
        int idleLooks = 0;
        long long turnFrom = OSWrap::Clock::nowNanoseconds();  // where others wait for descriptors
    };
    /** A Hello and the socket that it came on. */
    struct Greeting {
        OpenSocket socket;
        ReceivedPacket hello;
    };

    bool putLocked(AddressedMessage const& message) OSW_REQUIRES(mutex_);
    Sent enqueueLocked(AddressedMessage const& message, Room room, std::uint64_t* place)
        OSW_REQUIRES(mutex_);
    bool takesLocked(AddressedMessage const& message) OSW_REQUIRES(mutex_);
    void pushLocked(AddressedMessage message) OSW_REQUIRES(mutex_);
    std::size_t heldLocked() const OSW_REQUIRES(mutex_);
    bool reserveLocked(std::size_t messageSize, Room room) OSW_REQUIRES(mutex_);
    std::uint32_t boundFor(std::size_t messageSize) OSW_REQUIRES(mutex_);
    void settleLocked() OSW_REQUIRES(mutex_);
    void drainLocked() OSW_REQUIRES(mutex_);
    bool sendFrontLocked() OSW_REQUIRES(mutex_);
    bool growLocked(std::size_t messageSize, std::uint32_t bound) OSW_REQUIRES(mutex_);
    bool growForFrontLocked() OSW_REQUIRES(mutex_);
    bool goOnInRingOfLocked(std::uint32_t capacity) OSW_REQUIRES(mutex_);
    void ringIfAsleepLocked() OSW_REQUIRES(mutex_);
    AddressedMessage popFrontLocked() OSW_REQUIRES(mutex_);
    std::size_t takeOwnLocked(MessageChain& own) OSW_REQUIRES(mutex_);
    void tellPlaces();
    void tellPlaces(std::uint64_t left);

    State state();
    int socket();
    void connect();
    bool mayConnect();
    bool sayHello(OpenSocket socket);
    OwnSide makeSide();
    bool introduce(OpenSocket socket, Packet::Kind kind);
    void retryLater(long long nanoseconds);
    void tryAgainWithRoom();
    void tryAgain(char const* reason);
    void giveUp(int level, char const* reason);
    bool peerIsGenuine(int socket);
    bool mayAnswer(int socket);
    void dropAttempt();
    void answerGreeting();
    void refuseHello(char const* reason);
    void open(PeerSide peer);
    Packet packet(Packet::Kind kind, std::uint32_t ringCapacity = 0) const;

    void readPackets();
    void leaveInSocket(int fd, char const* reason);
    void goOnWithDescriptors();
    bool takePacket(ReceivedPacket& received);
    bool takeWelcome(ReceivedPacket& received);
    bool takeNextRing(ReceivedPacket& received);
    bool watchBell();
    void react();
    void answerBye();
    void resumeSending();
    void sayByeIfIdleLocked(bool wanted) OSW_REQUIRES(mutex_);
    bool isUnansweredLocked() OSW_REQUIRES(mutex_);
    bool hasReceivedNothing();

    /** So many who waited for an answer were alone, in a row, when callers read by themselves. */
    static constexpr int kLonely = 4;
    /** So many batches in a row came while nobody waited, when they no longer do. */
    static constexpr int kMostUnawaited = 16;

    Batch readBatch();
    void noteBatch();
    RingReader::Result readOne(Reader reader);
    bool finishBatch(std::uint32_t start);
    bool isNeeded() const;
    bool take(AddressedMessage& message, Reader reader);
    void takeBack(AddressedMessage& message);
    Batch awaitMemory();
    Batch awaitRoom();
    bool switchRing();
    bool stands() const { return connected() && reading_.stands(); }
    bool ending() const { return connected() && connection_->ending(); }
    bool hasReadAll();
    void end();
    void closeBecause(char const* reason);
    void close(Unread unread);
    void logKept(std::size_t messages);
    bool giveBackUntaken();
    void endWithSocket();
    bool leadsToLink();
    std::optional<Showing> showing() const;
    bool mayHavePassedOn();
    void endReleasing();
    void dropConnection();
    OpenSocket unlinkLocked() OSW_REQUIRES(mutex_);
    void giveBackAll();
    void closeGone();
    void clearUpGone();
    void retireIfUnused();

    std::shared_ptr<Receiver> const receiver_;
    TerminationId const ownId_;
    TerminationId const peer_;
    std::uint32_t const token_;               // of its descriptors' events
    std::shared_ptr<PeerShare> const share_;  // of the peer's process
    std::atomic<bool> requested_{false};      // is among the receiver's requests
    std::shared_ptr<Channel> nextRequested_;  // see nextRequested
    std::atomic<bool> heldBack_{false};       // the peer waits until we go on taking
    // Who reads writes here for each message, and who sends does below: not in the same lines.
    alignas(64) ReadingEnd reading_;           // guarded by its role
    alignas(64) std::atomic<int> waiters_{0};  // for answers
    std::atomic<bool> wasAwaited_{false};      // since the last look for idle ones
    std::atomic<int> lonely_{0};               // statistics: who came alone, up to kLonely in a row
    std::atomic<std::uint32_t> sent_{0};       // written under mutex_

    // Taken with no other lock of the transport held but that of `issue`'s caller; under it the
    // receiver's own mutex may be taken.
    OSWrap::Mutex mutex_;
    State state_ OSW_GUARDED_BY(mutex_) = State::Idle;
    MessageChain queue_ OSW_GUARDED_BY(mutex_);
    std::uint64_t lastPlace_ OSW_GUARDED_BY(mutex_) = 0;  // given in the queue
    std::uint64_t leftPlace_ OSW_GUARDED_BY(mutex_) = 0;  // of the last that is there no more
    std::optional<Link> link_ OSW_GUARDED_BY(mutex_);
    /** For the queue and for what the link keeps. */
    PeerShare::Reservation unsent_ OSW_GUARDED_BY(mutex_);

    // Receiving thread only.
    std::optional<Connection> connection_;  // not in Idle and Wanted
    PeerShare::Reservation descriptors_;    // for it
    /** Of a connection that has ended; there is no other one before all this has gone back. */
    std::optional<SentMessages> untaken_;
    bool passedOn_ = false;             // that, perhaps: it is not to be sent again
    std::optional<Greeting> greeting_;  // answered when the connection has ended
    std::uint64_t toldPlace_ = 0;       // as having left the queue
    std::uint32_t nextPlace_ = 0;       // of what comes over the next connection, its bytes beside
    int attempts_ = 0;                  // to connect, without success
    bool left_ = false;                 // the ring, with the message that has just been taken
    int unawaited_ = 0;                 // statistics: batches while nobody waited for an answer
    bool floods_ = false;               // after the last bell, which told of room, more waited
    long long retryAt_ = 0;
};

}  // namespace Transport
