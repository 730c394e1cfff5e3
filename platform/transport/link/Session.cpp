#include "platform/transport/link/Session.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "logging/LineLimit.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkSession";

/** What a message weighs against a credit, so that empty ones are not free. */
std::size_t weight(AddressedMessage const& message) {
    return message.size() + 64;
}

/** A part of a message that is shorter than this does not open a piece's last bytes. */
constexpr std::size_t kLeastPart = 4096;

void logDropped(char const* what, TerminationId from, TerminationId to) {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "dropped %s of 0x%08X for 0x%08X", what, from.value(),
                           to.value());
}

}  // namespace

Session::Session(Setup setup) : setup_(std::move(setup)), myToken_(setup_.newToken()) {}

void Session::act(Action::Kind kind, TerminationId from, std::string text) {
    Action action{kind, figures_.ended};
    action.from = from;
    action.text = std::move(text);
    actions_.push_back(std::move(action));
}

void Session::giveBack(AddressedMessage const& message) {
    act(Action::Kind::GiveBack, message.originator());
    actions_.back().to = message.destination();
    actions_.back().message = message;
    ++figures_.givenBack;
}

void Session::tellBy(long long time) {
    tellAt_ = std::min(tellAt_, time);
}

void Session::takeActions(Actions& actions) {
    actions.splice(actions.end(), actions_);
}

// ---- Beginning and end -------------------------------------------------------------------------

void Session::peerSeen(long long now) {
    if (state_ != State::Away)
        return;
    state_ = State::Greeting;
    helloAt_ = now;
}

void Session::peerLost(long long now) {
    end("the peer is out of sight", now);
    state_ = State::Away;
    peerToken_ = 0;
    helloAt_ = kNever;
}

void Session::pieceArrived(PieceHead const& head, unsigned char const* records, std::size_t size,
                           long long now) {
    if (state_ == State::Away || head.fromToken == 0 || !meet(head, now))
        return;
    if (head.number != taken_ + (size > 0 ? 1 : 0))
        return end("a piece is missing", now);
    if (!confirm(head.taken, now))
        return end("a piece is confirmed that was not sent", now);
    if (size == 0)
        return;
    ++taken_;
    untoldBytes_ += size;
    tellBy(now + kTellWithin);
    if (!takeRecords(records, size, now))
        return end("a piece holds nonsense", now);
    if (untoldBytes_ >= kTellAtOnce)
        tellBy(now);
}

/** Learns the peer's token; true when the piece is one of the session that is open now. The own
 * token is renewed only at the end of an open session: if every unknown token renewed it, two
 * links could run after each other for ever. */
bool Session::meet(PieceHead const& head, long long now) {
    if (head.fromToken != peerToken_) {
        end("the peer has begun anew", now);
        peerToken_ = head.fromToken;
    }
    if (head.toToken == myToken_) {
        if (state_ == State::Greeting)
            open(now);
        return true;
    }
    if (state_ == State::Greeting)  // an answer, soon, and not to each piece of a flood
        helloAt_ = std::min(helloAt_, std::max(now, progressAt_ + kAnswerInterval));
    return false;
}

void Session::open(long long now) {
    state_ = State::Open;
    openedAt_ = now;
    helloAt_ = kNever;
    tellBy(now);  // the peer is to open, too
    ++figures_.opened;
    act(Action::Kind::Opened);
}

void Session::end(char const* reason, long long now) {
    if (state_ != State::Open)
        return;
    giveBackAll();
    forgetAll();
    act(Action::Kind::Ended, {}, reason);
    ++figures_.ended;
    myToken_ = setup_.newToken();
    state_ = State::Greeting;
    helloAt_ = now;
}

/** Each once, though memory may run out after some. */
void Session::giveBackAll(Pair& pair) {
    for (Unsettled& one : pair.messages)
        if (!one.settled) {
            giveBack(one.message);
            one.settled = true;
        }
}

void Session::giveBackAll() {
    for (auto& [unused, pair] : pairs_)
        giveBackAll(pair);
    for (Outgoing const& one : queue_)
        if (one.head.kind == RecordKind::Returned)
            logDropped("what came back", one.head.from, one.head.to);
}

void Session::forgetAll() {
    sent_ = taken_ = 0;
    tellAt_ = kNever;
    untoldBytes_ = 0;
    probed_ = stalled_ = false;
    flights_.clear();
    flightBytes_ = 0;
    queue_.clear();
    queuedBytes_ = 0;
    pairs_.clear();
    unsettledBytes_ = 0;
    full_ = false;
    settlements_.clear();
    openRuns_.clear();
    reassembly_.drop();
    ours_.clear();
    theirs_.clear();
}

// ---- Pieces that have arrived ------------------------------------------------------------------

bool Session::confirm(std::uint64_t taken, long long now) {
    if (taken > sent_)
        return false;
    while (!flights_.empty() && flights_.front().number <= taken) {
        flightBytes_ -= flights_.front().bytes;
        flights_.pop_front();
        progressAt_ = now;
        probed_ = false;
    }
    if (windowOpen() && std::exchange(stalled_, false))
        tellBy(now);
    return true;
}

bool Session::takeRecords(unsigned char const* records, std::size_t size, long long now) {
    RecordReader reader(records, size);
    Record record;
    for (;;) {
        switch (reader.next(record)) {
            case RecordReader::Result::End:
                return true;
            case RecordReader::Result::Garbage:
                return false;
            case RecordReader::Result::Record:
                if (!takeRecord(record, now))
                    return false;
        }
    }
}

bool Session::takeRecord(Record const& record, long long now) {
    switch (record.head.kind) {
        case RecordKind::Message:
        case RecordKind::Returned:
            return takePart(record, now);
        case RecordKind::Arrived:
        case RecordKind::Reachable:
            return takeArrival(record);
        case RecordKind::Departed:
            takeDeparture(record.head.from);
            return true;
        case RecordKind::Settled:
        case RecordKind::Refused:
            return takeSettlement(record.head, now);
        case RecordKind::Probe:
            return true;
    }
    return false;
}

bool Session::takePart(Record const& record, long long now) {
    AddressedMessage message;
    switch (reassembly_.take(record, message)) {
        case Reassembly::Outcome::Incomplete:
            return true;
        case Reassembly::Outcome::Garbage:
            return false;
        case Reassembly::Outcome::PassedOver:
        case Reassembly::Outcome::Complete:
            break;
    }
    if (record.head.kind == RecordKind::Message)
        takeMessage(record.head, std::move(message), now);
    else if (!message.empty() && ours_.count(record.head.from) > 0)
        giveBack(message);
    else
        logDropped("a returned message", record.head.from, record.head.to);
    return true;
}

/** From one of the peer's to one of ours whom the peer was told of, and nobody else. */
void Session::takeMessage(RecordHead const& head, AddressedMessage message, long long now) {
    bool const known = theirs_.count(head.from) > 0;
    if (!known)
        logDropped("a message", head.from, head.to);
    if (!known || message.empty() || ours_.count(head.to) == 0) {
        settle(RecordKind::Refused, head.from, head.to, head.serial);
        return tellBy(now);
    }
    ++figures_.messagesIn;
    figures_.bytesIn += message.size();
    act(Action::Kind::Deliver, head.from);
    actions_.back().to = head.to;
    actions_.back().serial = head.serial;
    actions_.back().message = std::move(message);
}

bool Session::takeArrival(Record const& record) {
    TerminationId const id = record.head.from;
    if (id.slotId() != setup_.peerSlot || id.nameId() == 0 ||
        id.groupId() == Transport::GRPID_UNDEF) {
        logDropped("an arrival", id, {});
        return true;
    }
    if (theirs_.size() >= kMostTerminations || !theirs_.insert(id).second)
        return false;
    bool const shown = record.head.kind == RecordKind::Arrived && setup_.groups.test(id.groupId());
    act(shown ? Action::Kind::Show : Action::Kind::ShowSilent, id,
        std::string(reinterpret_cast<char const*>(record.bytes), record.head.length));
    return true;
}

/** What has not been settled by those who have gone will not be any more. */
void Session::takeDeparture(TerminationId id) {
    if (theirs_.erase(id) == 0)
        return;
    for (auto at = pairs_.begin(); at != pairs_.end();) {
        if (TerminationId(static_cast<std::uint32_t>(at->first)) != id) {
            ++at;
            continue;
        }
        giveBackAll(at->second);
        unsettledBytes_ -= at->second.bytes;
        at = pairs_.erase(at);
    }
    removeFromQueue(id);
    letAllGoOn();
    act(Action::Kind::Drop, id);
}

/** Of a message that has begun to go the peer has a beginning, which it drops at the next one's. */
void Session::removeFromQueue(TerminationId to) {
    auto const isFor = [to](Outgoing const& one) {
        return one.head.kind == RecordKind::Message && one.head.to == to;
    };
    for (Outgoing const& one : queue_)
        if (isFor(one))
            queuedBytes_ -= one.head.total - one.head.offset;
    queue_.erase(std::remove_if(queue_.begin(), queue_.end(), isFor), queue_.end());
}

bool Session::takeSettlement(RecordHead const& head, long long now) {
    Key const pairKey = key(head.from, head.to);
    auto const found = pairs_.find(pairKey);
    if (found == pairs_.end())
        return true;  // one of them has gone
    Pair& pair = found->second;
    std::size_t const begin = head.serial - pair.first;
    std::size_t const known = pair.messages.size();
    if (begin > known || head.total > known - begin)
        return false;
    for (std::size_t i = begin; i < begin + head.total; ++i)
        settleOne(pair, pair.messages[i], head.kind == RecordKind::Settled);
    while (!pair.messages.empty() && pair.messages.front().settled) {
        pair.messages.pop_front();
        ++pair.first;
    }
    letGoOn(head.from, head.to, pair);
    letAllGoOn();
    if (pair.messages.empty() && ours_.count(head.from) == 0)
        pairs_.erase(found);
    progressAt_ = now;
    return true;
}

void Session::settleOne(Pair& pair, Unsettled& one, bool delivered) {
    if (one.settled)
        return;
    if (!delivered)
        giveBack(one.message);
    one.settled = true;
    pair.bytes -= weight(one.message);
    unsettledBytes_ -= weight(one.message);
    one.message = {};
}

// ---- Credit ------------------------------------------------------------------------------------

void Session::letGoOn(TerminationId from, TerminationId to, Pair& pair) {
    if (!pair.heldBack || pair.bytes > creditOfPair() / 2)
        return;
    pair.heldBack = false;
    act(Action::Kind::GoOn, from);
    actions_.back().to = to;
}

/** Those whom the credit of all has held back. */
void Session::letAllGoOn() {
    if (!full_ || unsettledBytes_ > kCreditOfAll / 2)
        return;
    full_ = false;
    for (auto& [pairKey, pair] : pairs_)
        letGoOn(TerminationId(static_cast<std::uint32_t>(pairKey >> 32)),
                TerminationId(static_cast<std::uint32_t>(pairKey)), pair);
}

Session::Sending Session::send(AddressedMessage const& message) {
    TerminationId const from = message.originator();
    TerminationId const to = message.destination();
    if (state_ != State::Open || theirs_.count(to) == 0 || ours_.count(from) == 0)
        return Sending::Refused;
    Pair& pair = pairs_[key(from, to)];
    Outgoing outgoing;
    outgoing.head.kind = RecordKind::Message;
    outgoing.head.from = from;
    outgoing.head.to = to;
    outgoing.head.serial = pair.first + static_cast<std::uint32_t>(pair.messages.size());
    outgoing.head.total = static_cast<std::uint32_t>(message.size());
    outgoing.message = message;
    queue(std::move(outgoing));
    pair.messages.push_back({message});  // the last that may fail: from here on it is ours
    pair.bytes += weight(message);
    unsettledBytes_ += weight(message);
    ++figures_.messagesOut;
    figures_.bytesOut += message.size();
    if (unsettledBytes_ >= kCreditOfAll)
        full_ = true;
    if (pair.bytes < creditOfPair())
        return Sending::Taken;
    pair.heldBack = true;
    return Sending::TakenHoldBack;
}

// ---- What this machine tells -------------------------------------------------------------------

void Session::announce(TerminationId id, bool shown, std::string const& names) {
    if (state_ != State::Open || !ours_.insert(id).second)
        return;
    Outgoing outgoing;
    outgoing.head.kind = shown ? RecordKind::Arrived : RecordKind::Reachable;
    outgoing.head.from = id;
    outgoing.bytes = names.substr(0, kMostNameBytes);
    queue(std::move(outgoing));
}

void Session::withdraw(TerminationId id) {
    if (ours_.erase(id) == 0)
        return;
    reassembly_.passOverFor(id);
    for (auto at = pairs_.begin(); at != pairs_.end();) {
        bool const over = TerminationId(static_cast<std::uint32_t>(at->first >> 32)) == id &&
                          at->second.messages.empty();
        at = over ? pairs_.erase(at) : std::next(at);
    }
    Outgoing outgoing;
    outgoing.head.kind = RecordKind::Departed;
    outgoing.head.from = id;
    queue(std::move(outgoing));
}

void Session::settled(Delivery const& delivery, long long now) {
    if (state_ != State::Open || delivery.session != figures_.ended)
        return;
    settle(RecordKind::Settled, delivery.from, delivery.to, delivery.serial);
    untoldBytes_ += delivery.bytes;
    tellBy(untoldBytes_ >= kTellAtOnce ? now : now + kTellWithin);
}

void Session::refused(Delivery const& delivery, long long now) {
    if (state_ != State::Open || delivery.session != figures_.ended)
        return;
    settle(RecordKind::Refused, delivery.from, delivery.to, delivery.serial);
    tellBy(now);
}

void Session::tellNow(long long now) {
    if (state_ == State::Open && !settlements_.empty())
        tellBy(now);
}

/** Goes on with the pair's last record when it can. */
void Session::settle(RecordKind kind, TerminationId from, TerminationId to, std::uint32_t serial) {
    auto const [run, isNew] = openRuns_.try_emplace(key(from, to), settlements_.size());
    if (!isNew) {
        RecordHead& last = settlements_[run->second];
        if (last.kind == kind && last.serial + last.total == serial) {
            ++last.total;
            return;
        }
        run->second = settlements_.size();
    }
    RecordHead head;
    head.kind = kind;
    head.from = from;
    head.to = to;
    head.serial = serial;
    head.total = 1;
    settlements_.push_back(head);
}

bool Session::returned(AddressedMessage const& message, unsigned long session) {
    if (state_ != State::Open || session != figures_.ended) {
        logDropped("what came back", message.originator(), message.destination());
        return false;
    }
    Outgoing outgoing;
    outgoing.head.kind = RecordKind::Returned;
    outgoing.head.from = message.originator();
    outgoing.head.to = message.destination();
    outgoing.head.total = static_cast<std::uint32_t>(message.size());
    outgoing.message = message;
    queue(std::move(outgoing));
    return true;
}

void Session::queue(Outgoing outgoing) {
    queuedBytes_ += outgoing.head.total;
    queue_.push_back(std::move(outgoing));
}

// ---- Pieces to be written ----------------------------------------------------------------------

bool Session::nextPiece(Piece& piece, long long now) {
    bool const told = now >= tellAt_;
    bool const greets = state_ == State::Greeting && now >= helloAt_;
    piece.clear();
    if (state_ == State::Open && (!queue_.empty() || (told && !settlements_.empty()))) {
        if (windowOpen())
            fill(piece, now);
        else
            stalled_ = true;
    }
    if (piece.empty() && !greets && !(state_ == State::Open && told))
        return false;
    if (greets) {
        helloAt_ = now + kHelloInterval;
        progressAt_ = now;
    }
    piece.head = {myToken_, peerToken_, sent_, taken_};
    tellAt_ = !stalled_ && !settlements_.empty() ? tellAt_ : kNever;
    untoldBytes_ = 0;
    return true;
}

void Session::fill(Piece& piece, long long now) {
    fillSettlements(piece);
    while (!queue_.empty() && fillFromQueue(piece))
        continue;
    if (flights_.empty())
        progressAt_ = now;
    flights_.push_back({++sent_, piece.size()});
    flightBytes_ += piece.size();
}

void Session::fillSettlements(Piece& piece) {
    std::size_t done = 0;
    for (; done < settlements_.size() && piece.room() >= 0; ++done)
        piece.append(settlements_[done], nullptr);
    settlements_.erase(settlements_.begin(), settlements_.begin() + static_cast<long>(done));
    openRuns_.clear();
}

/** Puts in the first of the queue, or a part of it; false when the piece is full. */
bool Session::fillFromQueue(Piece& piece) {
    Outgoing& first = queue_.front();
    bool const isMessage =
        first.head.kind == RecordKind::Message || first.head.kind == RecordKind::Returned;
    std::size_t const left = isMessage ? first.head.total - first.head.offset : first.bytes.size();
    long const room = piece.room();
    if (room < 0 || (left > static_cast<std::size_t>(room) &&
                     (!isMessage || static_cast<std::size_t>(room) < kLeastPart)))
        return false;
    first.head.length = static_cast<std::uint32_t>(std::min(left, static_cast<std::size_t>(room)));
    if (!isMessage) {
        piece.append(first.head, reinterpret_cast<unsigned char const*>(first.bytes.data()));
        queue_.pop_front();
        return true;
    }
    piece.append(first.head, first.message.buf() + first.head.offset);
    first.head.offset += first.head.length;
    queuedBytes_ -= first.head.length;
    if (first.head.offset == first.head.total)
        queue_.pop_front();
    return true;
}

// ---- Time --------------------------------------------------------------------------------------

void Session::timePassed(long long now) {
    if (state_ != State::Open || flights_.empty())
        return;
    if (now - progressAt_ >= kEndAfter)
        return end("nothing is confirmed", now);
    if (now - progressAt_ < kProbeAfter || std::exchange(probed_, true))
        return;
    Outgoing probe;
    queue(std::move(probe));
}

long long Session::dueAt() const {
    if (state_ != State::Open)
        return helloAt_;
    if (flights_.empty())
        return tellAt_;
    return std::min(tellAt_, progressAt_ + (probed_ ? kEndAfter : kProbeAfter));
}

}  // namespace Link
