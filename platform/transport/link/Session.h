#pragma once

#include <bitset>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/transport/MessageChain.h"
#include "platform/transport/link/Reassembly.h"
#include "platform/transport/link/Record.h"
#include "transport/AddressedMessage.h"
#include "transport/TerminationId.h"

namespace Link {

using Transport::AddressedMessage;
using Transport::TerminationId;

/** Something that a session wants done, by its owner, in order. */
struct Action {
    enum class Kind {
        Opened,  // have announced whom the peer is to know
        Ended,   // the messages to give back stand before; all proxies are to go; text: why
        Show,    // from: a termination of the peer; text: actor, NUL, name
        ShowSilent,
        Drop,      // from: one that was shown
        Deliver,   // message; then tell `settled` or `refused`
        GiveBack,  // message: to its originator, who is here
        Release,  // from, to: what has come out of the ring between them, up to `place`, is settled
        GoOn,     // from, to: the pair may send again
    };
    Kind kind;
    unsigned long session = 0;  // which one wants it, counted from 0
    TerminationId from{};
    TerminationId to{};
    std::uint32_t serial = 0;
    std::uint32_t place = 0;
    std::uint32_t channel = 0;  // whose ring the place is in
    unsigned long life = 0;     // of a Deliver or GiveBack: whose, of those who have had the id
    AddressedMessage message{};
    std::string text{};
};

/** In order. A list, so that to pass them on needs no memory. */
using Actions = std::list<Action>;

/** A message that is to be settled. */
struct Delivery {
    explicit Delivery(Action const& action)
        : session(action.session),
          from(action.from),
          to(action.to),
          serial(action.serial),
          bytes(action.message.size()) {}

    unsigned long session;
    TerminationId from;
    TerminationId to;
    std::uint32_t serial;
    std::size_t bytes;
};

/**
 * The talk of two links, as seen by one of them: a state machine without threads, locks, clock or
 * engine. Events go in (each says what time it is, in nanoseconds of a clock that never goes back),
 * pieces and actions come out. The owner guards it by one lock.
 *
 * | state | meaning | pieces that go out |
 * |---|---|---|
 * | Away | the engine does not see the peer | none |
 * | Greeting | it does; tokens are exchanged | one without records every 100 ms |
 * | Open | both know both tokens | records, confirmations |
 *
 * A session ends when the engine has lost sight of the peer, when the peer has begun anew, when a
 * piece is missing or makes no sense, and when nothing is confirmed for 4 seconds. The token
 * changes then, so that nothing of that session is taken for part of the next.
 *
 * A message is *settled* when it is in the ring of its destination, over there, or when its
 * destination has refused it, and it is on its way back. Until then, and until those that the same
 * sender has sent to the same destination before are, it is not released: it is still its sender's,
 * in the ring that it came out of, who has it back from there when the session ends, its
 * destination departs, or this process is killed. What has come out of no ring is given back then.
 *
 * Each pair of sender and destination has a credit; a pair beyond it is to be held back
 * until enough has been settled, so that who does not read fills neither link, nor stops others.
 * While all pairs together have used up theirs, that of each is small, but not nothing.
 */
class Session {
public:
    enum class State { Away, Greeting, Open };
    enum class Sending {
        Refused,  // it stays its sender's: the destination is not there
        Taken,
        TakenHoldBack,  // taken; and take no more from this sender for this destination
    };
    struct Setup {
        unsigned char ownSlot = 0;
        unsigned char peerSlot = 0;
        std::bitset<256> groups;                  // those that are shown to all
        std::function<std::uint64_t()> newToken;  // random, never 0
    };
    /** What has gone through since the beginning. */
    struct Figures {
        unsigned long messagesOut = 0, messagesIn = 0;
        unsigned long bytesOut = 0, bytesIn = 0;
        unsigned long givenBack = 0;  // to senders here, or left to them
        unsigned long opened = 0, ended = 0;
    };

    static constexpr long long kHelloInterval = 100'000'000;
    static constexpr long long kAnswerInterval = 20'000'000;
    static constexpr long long kTellWithin = 5'000'000;  // confirmations without company
    static constexpr long long kProbeAfter = 1'000'000'000;
    static constexpr long long kEndAfter = 4'000'000'000;
    static constexpr long long kClearedWithin = 3'000'000'000;
    static constexpr std::size_t kWindow = std::size_t{4} << 20;           // pieces under way
    static constexpr std::size_t kCredit = std::size_t{1} << 20;           // of a pair
    static constexpr std::size_t kCreditOfAll = std::size_t{64} << 20;     // of all pairs together
    static constexpr std::size_t kCreditWhenFull = std::size_t{64} << 10;  // of a pair, then
    static constexpr std::size_t kTellAtOnce = std::size_t{128} << 10;     // settled or taken bytes
    static constexpr std::size_t kMostTerminations = 65'536;               // of a peer

    explicit Session(Setup setup);

    // ---- What the engine tells ----
    void peerSeen(long long now);
    void peerLost(long long now);
    void pieceArrived(PieceHead const& head, unsigned char const* records, std::size_t size,
                      long long now);
    /** A piece could not be written. */
    void writingFailed(long long now) { end("a piece could not be written", now); }
    /** Memory has run out in one of these operations, whichever, or in this one: the session ends.
     * What `send` has thrown at is its caller's. */
    void memoryRanOut(long long now) { end("no memory is left", now); }
    /** Call when `dueAt` has come. */
    void timePassed(long long now);

    // ---- What this machine tells ----
    /** A message from one that was announced to a termination of the peer. It has come over this
     * channel, or 0: over none. */
    Sending send(AddressedMessage const& message, std::uint32_t channel);
    /** What a Drop of that session wants is done: nothing is sent any more to who was shown under
     * the id, but to who is next. */
    void dropped(TerminationId id, unsigned long session);
    /** Someone is here; once. `shown`: to all over there. Nothing while the session is not open. */
    void announce(TerminationId id, bool shown, std::string const& names);
    /** Whether it has been, or will be when who had the id before is out of the way. */
    bool announced(TerminationId id) const { return lifeOf(id) != 0; }
    /** Someone has gone. The peer is told when each of his channels with one of the peer's has been
     * cleared, so that nothing comes or comes back after that; or without, after kClearedWithin. */
    void withdraw(TerminationId id, long long now);
    /** One of ours has a channel with one of the peer's, whom that session has shown. */
    void channelBegan(TerminationId id, std::uint32_t channel, unsigned long session);
    /** All that has come over it, and comes back, has been told here. */
    void channelCleared(TerminationId id, std::uint32_t channel, unsigned long session);
    /** The message of a Deliver is in the ring of its destination; no effect in a later session. */
    void settled(Delivery const& delivery, long long now);
    /** It was not delivered. */
    void refused(Delivery const& delivery, long long now);
    /** Whether a Deliver or GiveBack is still for who has the id now, and not a former one, as far
     * as `withdraw` has told. Such a Deliver is to be refused: its sender has it back, too. What an
     * earlier session has brought is for whoever is there. */
    bool isForPresent(Action const& action) const;
    /** A settled message of that session has come back, since its destination has gone without
     * reading it. `leaves`: so has its sender's proxy been told to. False when there is no telling
     * the sender any more. */
    bool returned(AddressedMessage const& message, unsigned long session, bool leaves);

    /** The ring of that channel, which messages of that session from one to the other have come
     * out of, is no more. What is not released its sender has taken back, or it is ours alone from
     * now on, up to the place that is answered; none: nothing of it is. */
    std::optional<std::uint32_t> ringEnded(TerminationId from, TerminationId to,
                                           std::uint32_t channel, unsigned long session,
                                           bool takenBack);

    // ---- What is to be done ----
    /** What has been settled, and not yet told, is due now. */
    void tellNow(long long now);
    /** Fills the next piece to be written; false when there is none now. */
    bool nextPiece(Piece& piece, long long now);
    /** When `timePassed` is to be called, or pieces are to be written, without further events;
     * kNever: not at all. */
    long long dueAt() const;
    static constexpr long long kNever = 0x7FFF'FFFF'FFFF'FFFF;
    /** Bytes of messages that no piece has been asked for yet. */
    std::size_t queuedBytes() const { return queuedBytes_; }
    /** Whether there are records that no piece has been asked for yet. */
    bool queued() const { return !queue_.empty(); }
    /** Whether something has been settled that no piece has been asked for yet. */
    bool hasSettlements() const { return !settlements_.empty(); }
    /** Moves the actions that have gathered behind those of `actions`. */
    void takeActions(Actions& actions);

    State state() const { return state_; }
    Figures const& figures() const { return figures_; }
    /** Bytes that wait to be settled. */
    std::size_t unsettledBytes() const { return unsettledBytes_; }
    /** When the session that is open began to be. */
    long long openedAt() const { return openedAt_; }
    /** Terminations of the peer. */
    std::size_t theirCount() const { return theirs_.size(); }

private:
    using Key = std::uint64_t;
    enum class Fate { Open, Delivered, Refused };
    enum class Whose { SendersInRing, Ours, Senders };
    struct Unreleased {
        AddressedMessage message;   // while it may have to be given back
        std::uint32_t place = 0;    // in its sender's ring, while it is there
        std::uint32_t channel = 0;  // whose ring that is
        unsigned long life = 0;     // its sender's, whom alone it may be given back to
        Whose whose = Whose::Ours;
        Fate fate = Fate::Open;
    };
    /** What one sender has on its way to one destination. */
    struct Pair {
        std::deque<Unreleased> messages;  // from the first whose fate is open
        std::uint32_t first = 0;          // its serial: none that a former pair of these has had
        std::size_t bytes = 0;            // of those that are open, or kept to be given back
        bool heldBack = false;
    };
    struct Outgoing {
        RecordHead head;  // offset: how much of a message has gone
        AddressedMessage message{};
        std::string bytes{};
    };
    /** One of ours that has gone, which the peer is not told yet. */
    struct Departing {
        std::set<std::uint32_t> channels{};  // that are not cleared
        long long latest = 0;                // that it is told
        unsigned long successor = 0;         // life of who has come next under the id; 0: nobody
        std::list<Outgoing> next{};          // what is told of that one, its arrival first
    };
    /** Who of those that have had an id it is. */
    struct Sender {
        unsigned long life;  // 0: none of them
        Departing* former;   // behind whom it is told of; null: it, or its departure, is next
    };
    /** Of those that have had one id, one after the other. */
    struct Departures {
        std::size_t queued = 0;
        std::uint64_t number = 0;  // of the piece with the last of the others
    };
    struct Flight {
        std::uint64_t number;
        std::size_t bytes;
    };

    static Key key(TerminationId from, TerminationId to) {
        return std::uint64_t{from.value()} << 32 | to.value();
    }
    Action action(Action::Kind kind, TerminationId from, TerminationId to = {}) const;
    Action givingBack(AddressedMessage const& message, unsigned long life) const;
    unsigned long lifeOf(TerminationId id) const;
    void act(Action::Kind kind, TerminationId from = {}, std::string text = {});
    void giveBack(AddressedMessage const& message, unsigned long life);
    void tellBy(long long time);

    bool meet(PieceHead const& head, long long now);
    void open(long long now);
    void end(char const* reason, long long now);
    void leaveToSender(Pair& pair);
    void leaveToSenders();
    void forgetAll();
    bool confirm(std::uint64_t taken, long long now);

    bool takeRecords(unsigned char const* records, std::size_t size, long long now);
    bool takeRecord(Record const& record, long long now);
    bool takePart(Record const& record, long long now);
    void takeMessage(RecordHead const& head, AddressedMessage message, long long now);
    bool takeArrival(Record const& record);
    void takeDeparture(TerminationId id);
    bool mayBeForFormer(TerminationId id) const;
    void forgetDepartures();
    bool takeSettlement(RecordHead const& head, long long now);
    void settleOne(Pair& pair, Unreleased& one, Fate fate);
    void release(TerminationId from, TerminationId to, Pair& pair);
    Pair& pairOf(TerminationId from, TerminationId to);
    Sender senderOver(TerminationId from, std::uint32_t channel);
    void removeFromQueue(TerminationId gone);
    void letGoOn(TerminationId from, TerminationId to, Pair& pair);
    void letAllGoOn();
    void settle(RecordKind kind, TerminationId from, TerminationId to, std::uint32_t serial);

    bool forgetUnknown(TerminationId id);
    void departCleared(TerminationId id);
    void departLate(long long now);
    void depart(TerminationId id);
    void tellDeparture(TerminationId id);
    void queue(Outgoing outgoing);
    void fill(Piece& piece, long long now);
    void fillSettlements(Piece& piece);
    bool fillFromQueue(Piece& piece);
    void noteDeparture(TerminationId id);
    std::size_t creditOfPair() const { return full_ ? kCreditWhenFull : kCredit; }
    bool windowOpen() const { return flightBytes_ < kWindow; }

    Setup const setup_;
    State state_ = State::Away;
    std::uint64_t myToken_;
    std::uint64_t peerToken_ = 0;
    std::uint64_t sent_ = 0;       // number of the last piece with records
    std::uint64_t taken_ = 0;      // likewise, of the peer's
    std::uint64_t confirmed_ = 0;  // the peer had taken when it wrote what has come last
    long long openedAt_ = 0;
    long long helloAt_ = kNever;
    long long tellAt_ = kNever;    // a confirmation, at the latest
    std::size_t untoldBytes_ = 0;  // taken or settled, and not yet told
    long long progressAt_ = 0;     // of the pieces under way; while greeting, of the last hello
    bool probed_ = false;
    std::deque<Flight> flights_;
    std::size_t flightBytes_ = 0;
    bool stalled_ = false;  // by the window, with something in the queue

    std::deque<Outgoing> queue_;
    std::size_t queuedBytes_ = 0;
    std::unordered_map<Key, Pair> pairs_;
    std::size_t unsettledBytes_ = 0;
    bool full_ = false;  // the credit of all is used up, and of it more than a half still is
    std::vector<RecordHead> settlements_;            // to be told
    std::unordered_map<Key, std::size_t> openRuns_;  // the last of each pair in there
    Reassembly reassembly_;
    std::unordered_map<TerminationId, unsigned long> ours_;  // and which life of the id it is
    unsigned long lives_ = 0;                                // so far
    std::unordered_map<TerminationId, std::set<std::uint32_t>>
        channels_;  // of ours, with the peer's
    // Of ours: of each id at least one, and one after the other. The first is in ours_, too.
    std::unordered_map<TerminationId, std::list<Departing>> departing_;
    long long departAt_ = kNever;                               // one of them, at the latest
    std::unordered_map<TerminationId, Departures> departures_;  // that the peer may not know yet
    std::unordered_set<TerminationId> theirs_;
    std::unordered_multiset<TerminationId> dropping_;  // each Drop that is wanted
    Actions actions_;
    Figures figures_;
};

}  // namespace Link
