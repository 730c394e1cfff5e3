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

Action Session::action(Action::Kind kind, TerminationId from, TerminationId to) const {
    Action action{kind, figures_.ended};
    action.from = from;
    action.to = to;
    return action;
}

Action Session::givingBack(AddressedMessage const& message, unsigned long life) const {
    Action giving = action(Action::Kind::GiveBack, message.originator(), message.destination());
    giving.message = message;
    giving.life = life;
    return giving;
}

/** Of who is there; 0 when it is none of ours, or has gone. */
unsigned long Session::lifeOf(TerminationId id) const {
    auto const former = departing_.find(id);
    if (former != departing_.end())
        return former->second.back().successor;
    auto const found = ours_.find(id);
    return found == ours_.end() ? 0 : found->second;
}

void Session::act(Action::Kind kind, TerminationId from, std::string text) {
    actions_.push_back(action(kind, from));
    actions_.back().text = std::move(text);
}

void Session::giveBack(AddressedMessage const& message, unsigned long life) {
    actions_.push_back(givingBack(message, life));
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

/** What nobody has done by then, and is for who has gone, is nobody's: later it is not told from
 * what is for whoever has come under his id. */
void Session::end(char const* reason, long long now) {
    if (state_ != State::Open)
        return;
    leaveToSenders();
    actions_.remove_if([this](Action const& one) { return !isForPresent(one); });
    forgetAll();
    act(Action::Kind::Ended, {}, reason);
    ++figures_.ended;
    myToken_ = setup_.newToken();
    state_ = State::Greeting;
    helloAt_ = now;
}

/** What is in a ring is the sender's already. Each once, though memory may run out after some. */
void Session::leaveToSender(Pair& pair) {
    for (; !pair.messages.empty(); pair.messages.pop_front(), ++pair.first) {
        Unreleased const& one = pair.messages.front();
        if (one.whose == Whose::SendersInRing)
            ++figures_.givenBack;
        else if (one.whose == Whose::Ours && one.fate != Fate::Delivered)
            giveBack(one.message, one.life);
    }
}

void Session::leaveToSenders() {
    for (auto& [unused, pair] : pairs_)
        leaveToSender(pair);
    for (Outgoing const& one : queue_)
        if (one.head.kind == RecordKind::Returned)
            logDropped("what came back", one.head.from, one.head.to);
}

void Session::forgetAll() {
    sent_ = taken_ = confirmed_ = 0;
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
    channels_.clear();
    departing_.clear();
    departures_.clear();
    departAt_ = kNever;
    theirs_.clear();
    dropping_.clear();
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
    confirmed_ = taken;
    forgetDepartures();
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
    else if (!message.empty() && ours_.count(record.head.from) > 0 &&
             !mayBeForFormer(record.head.from))
        giveBack(message, lifeOf(record.head.from));
    else
        logDropped("a returned message", record.head.from, record.head.to);
    return true;
}

/** From one of the peer's to one of ours whom the peer was told of, and nobody else. */
void Session::takeMessage(RecordHead const& head, AddressedMessage message, long long now) {
    bool const known = theirs_.count(head.from) > 0;
    if (!known)
        logDropped("a message", head.from, head.to);
    if (!known || message.empty() || ours_.count(head.to) == 0 || mayBeForFormer(head.to)) {
        settle(RecordKind::Refused, head.from, head.to, head.serial);
        return tellBy(now);
    }
    ++figures_.messagesIn;
    figures_.bytesIn += message.size();
    act(Action::Kind::Deliver, head.from);
    actions_.back().to = head.to;
    actions_.back().serial = head.serial;
    actions_.back().life = lifeOf(head.to);
    actions_.back().message = std::move(message);
}

bool Session::isForPresent(Action const& action) const {
    TerminationId const id = action.kind == Action::Kind::Deliver ? action.to : action.from;
    return action.session != figures_.ended || action.life == 0 || action.life == lifeOf(id);
}

/** What was sent when the peer did not know of a departure is for who has gone, and its sender has
 * it back when he learns that: whoever has the id now must not get it, too. Nor what comes back to
 * who has gone. */
bool Session::mayBeForFormer(TerminationId id) const {
    return departing_.count(id) != 0 || departures_.count(id) != 0;
}

void Session::forgetDepartures() {
    for (auto at = departures_.begin(); at != departures_.end();) {
        bool const known = at->second.queued == 0 && at->second.number <= confirmed_;
        at = known ? departures_.erase(at) : std::next(at);
    }
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
        leaveToSender(at->second);
        unsettledBytes_ -= at->second.bytes;
        at = pairs_.erase(at);
    }
    removeFromQueue(id);
    letAllGoOn();
    dropping_.insert(id);
    act(Action::Kind::Drop, id);
}

void Session::dropped(TerminationId id, unsigned long session) {
    auto const found = dropping_.find(id);
    if (session == figures_.ended && found != dropping_.end())
        dropping_.erase(found);
}

/** Of a message that has begun to go the peer has a beginning, which it drops at the next one's. */
void Session::removeFromQueue(TerminationId gone) {
    auto const isFor = [gone](Outgoing const& one) {
        return (one.head.kind == RecordKind::Message && one.head.to == gone) ||
               (one.head.kind == RecordKind::Returned && one.head.from == gone);
    };
    for (Outgoing const& one : queue_) {
        if (!isFor(one))
            continue;
        queuedBytes_ -= one.head.total - one.head.offset;
        if (one.head.kind == RecordKind::Returned)
            logDropped("what came back", one.head.from, one.head.to);
    }
    queue_.erase(std::remove_if(queue_.begin(), queue_.end(), isFor), queue_.end());
    for (auto& [unused, leaving] : departing_)
        for (Departing& one : leaving)
            one.next.remove_if(isFor);
}

/** What is settled of a former pair of these is on its way for a while when the next one begins,
 * and is passed over. */
bool Session::takeSettlement(RecordHead const& head, long long now) {
    Key const pairKey = key(head.from, head.to);
    auto const found = pairs_.find(pairKey);
    if (found == pairs_.end())
        return true;  // one of them has gone
    Pair& pair = found->second;
    auto const begin = static_cast<std::int32_t>(head.serial - pair.first);
    std::int64_t const end = std::int64_t{begin} + head.total;
    if (end > static_cast<std::int64_t>(pair.messages.size()))
        return false;
    Fate const fate = head.kind == RecordKind::Settled ? Fate::Delivered : Fate::Refused;
    for (std::int64_t i = std::max(begin, 0); i < end; ++i)
        settleOne(pair, pair.messages[static_cast<std::size_t>(i)], fate);
    release(head.from, head.to, pair);
    letGoOn(head.from, head.to, pair);
    letAllGoOn();
    if (pair.messages.empty() && ours_.count(head.from) == 0)
        pairs_.erase(found);
    progressAt_ = now;
    return true;
}

void Session::settleOne(Pair& pair, Unreleased& one, Fate fate) {
    if (one.fate != Fate::Open)
        return;
    one.fate = fate;
    if (fate == Fate::Refused)
        return;  // it is kept
    pair.bytes -= weight(one.message);
    unsettledBytes_ -= weight(one.message);
    one.message = {};
}

/** All of those before which nothing is open, those that were refused among them: were these given
 * back any earlier, they would come back once more if the session ended then. Each of them is
 * released at once, lest it does should this process be killed. Done whole or, without memory, not
 * at all. */
void Session::release(TerminationId from, TerminationId to, Pair& pair) {
    auto const isOpen = [](Unreleased const& one) { return one.fate == Fate::Open; };
    auto const end = std::find_if(pair.messages.begin(), pair.messages.end(), isOpen);
    Actions wanted;
    std::size_t back = 0;
    std::size_t bytes = 0;
    for (auto one = pair.messages.begin(); one != end; ++one) {
        bool const givesBack = one->fate == Fate::Refused && one->whose != Whose::Senders;
        if (givesBack) {
            wanted.push_back(givingBack(one->message, one->life));
            ++back;
        }
        if (one->fate == Fate::Refused)
            bytes += weight(one->message);
        auto const next = std::next(one);
        if (one->whose == Whose::SendersInRing &&
            (givesBack || next == end || next->channel != one->channel)) {
            wanted.push_back(action(Action::Kind::Release, from, to));
            wanted.back().place = one->place;
            wanted.back().channel = one->channel;
        }
    }
    pair.bytes -= bytes;
    unsettledBytes_ -= bytes;
    actions_.splice(actions_.end(), wanted);
    figures_.givenBack += back;
    pair.first += static_cast<std::uint32_t>(end - pair.messages.begin());
    pair.messages.erase(pair.messages.begin(), end);
}

std::optional<std::uint32_t> Session::ringEnded(TerminationId from, TerminationId to,
                                                std::uint32_t channel, unsigned long session,
                                                bool takenBack) {
    std::optional<std::uint32_t> kept;
    auto const found = pairs_.find(key(from, to));
    if (session != figures_.ended || found == pairs_.end())
        return kept;
    for (Unreleased& one : found->second.messages)
        if (one.whose == Whose::SendersInRing && one.channel == channel) {
            one.whose = takenBack ? Whose::Senders : Whose::Ours;
            kept = one.place;
        }
    return takenBack ? std::nullopt : kept;
}

// ---- Credit ------------------------------------------------------------------------------------

void Session::letGoOn(TerminationId from, TerminationId to, Pair& pair) {
    if (!pair.heldBack || pair.bytes > creditOfPair() / 2)
        return;
    pair.heldBack = false;
    actions_.push_back(action(Action::Kind::GoOn, from, to));
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

Session::Pair& Session::pairOf(TerminationId from, TerminationId to) {
    auto const [found, isNew] = pairs_.try_emplace(key(from, to));
    if (isNew)
        found->second.first = static_cast<std::uint32_t>(figures_.messagesOut);
    return found->second;
}

/** Who has gone and has that channel still; otherwise it is of who is there. */
Session::Sender Session::senderOver(TerminationId from, std::uint32_t channel) {
    auto const known = ours_.find(from);
    Sender sender{known == ours_.end() ? 0 : known->second, nullptr};
    auto const leaving = departing_.find(from);
    if (leaving == departing_.end())
        return sender;
    for (Departing& one : leaving->second) {
        if (one.channels.count(channel) != 0)
            break;
        sender = {one.successor, &one};
    }
    return sender;
}

Session::Sending Session::send(AddressedMessage const& message, std::uint32_t channel) {
    TerminationId const from = message.originator();
    TerminationId const to = message.destination();
    Sender const sender = senderOver(from, channel);
    if (state_ != State::Open || theirs_.count(to) == 0 || sender.life == 0 ||
        dropping_.count(to) != 0)
        return Sending::Refused;
    Pair& pair = pairOf(from, to);
    Outgoing outgoing;
    outgoing.head.kind = RecordKind::Message;
    outgoing.head.from = from;
    outgoing.head.to = to;
    outgoing.head.serial = pair.first + static_cast<std::uint32_t>(pair.messages.size());
    outgoing.head.total = static_cast<std::uint32_t>(message.size());
    outgoing.message = message;
    if (sender.former != nullptr)
        sender.former->next.push_back(std::move(outgoing));
    else
        queue(std::move(outgoing));
    std::uint32_t const place = Transport::MessageChain::endInRing(message);
    bool const inRing = place != Transport::MessageBlock::kNotInRing;
    // The last that may fail: from here on it is known here.
    pair.messages.push_back(
        {message, place, channel, sender.life, inRing ? Whose::SendersInRing : Whose::Ours});
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
    if (state_ != State::Open || announced(id))
        return;
    Outgoing outgoing;
    outgoing.head.kind = shown ? RecordKind::Arrived : RecordKind::Reachable;
    outgoing.head.from = id;
    outgoing.bytes = names.substr(0, kMostNameBytes);
    if (auto const former = departing_.find(id); former != departing_.end()) {
        former->second.back().next.push_back(std::move(outgoing));
        former->second.back().successor = ++lives_;
        return;
    }
    ours_[id] = ++lives_;
    queue(std::move(outgoing));
}

void Session::channelBegan(TerminationId id, std::uint32_t channel, unsigned long session) {
    if (state_ == State::Open && session == figures_.ended)
        channels_[id].insert(channel);
}

void Session::channelCleared(TerminationId id, std::uint32_t channel, unsigned long session) {
    if (session != figures_.ended)
        return;
    auto const found = channels_.find(id);
    if (found != channels_.end() && found->second.erase(channel) != 0 && found->second.empty())
        channels_.erase(found);
    auto const leaving = departing_.find(id);
    if (leaving == departing_.end())
        return;
    for (Departing& one : leaving->second)
        one.channels.erase(channel);
    departCleared(id);
}

void Session::withdraw(TerminationId id, long long now) {
    if (!announced(id) || forgetUnknown(id))
        return;
    std::list<Departing> leaver(1);
    leaver.front().latest = now + kClearedWithin;
    if (auto const open = channels_.find(id); open != channels_.end()) {
        leaver.front().channels = std::move(open->second);
        channels_.erase(open);
    }
    std::list<Departing>& leaving = departing_[id];
    leaving.splice(leaving.end(), leaver);
    departAt_ = std::min(departAt_, now + kClearedWithin);
    departCleared(id);
}

/** Of who has come under the id of one who is still to be told of, has sent nothing and will not,
 * the peer need never know. */
bool Session::forgetUnknown(TerminationId id) {
    auto const former = departing_.find(id);
    if (former == departing_.end() || channels_.count(id) != 0)
        return false;
    Departing& last = former->second.back();
    if (last.next.size() > 1)
        return false;
    last.next.clear();
    last.successor = 0;
    return true;
}

/** Those of the id before whom all are cleared, too. */
void Session::departCleared(TerminationId id) {
    for (auto leaving = departing_.find(id);
         leaving != departing_.end() && leaving->second.front().channels.empty();
         leaving = departing_.find(id))
        depart(id);
}

/** Those of whom something may still come, or come back. */
void Session::departLate(long long now) {
    std::vector<TerminationId> late;
    departAt_ = kNever;
    for (auto& [id, leaving] : departing_) {
        Departing& first = leaving.front();
        if (first.latest > now) {
            departAt_ = std::min(departAt_, first.latest);
            continue;
        }
        static Logging::LineLimit limit;
        REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                               "0x%08X has gone, and not all that it has not read is back in time: "
                               "the rest may be lost",
                               id.value());
        first.channels.clear();
        late.push_back(id);
    }
    for (TerminationId const id : late)
        departCleared(id);
}

/** Tells the peer that the first of the id has gone, and what the next one has done since. Whose
 * the id is holds also if memory runs out then. */
void Session::depart(TerminationId id) {
    auto const leaving = departing_.find(id);
    Departing first = std::move(leaving->second.front());
    leaving->second.pop_front();
    if (leaving->second.empty())
        departing_.erase(leaving);
    else
        departAt_ = std::min(departAt_, leaving->second.front().latest);
    if (departing_.empty())
        departAt_ = kNever;
    if (first.successor != 0)
        ours_.at(id) = first.successor;
    else
        ours_.erase(id);
    tellDeparture(id);
    for (Outgoing& one : first.next)
        queue(std::move(one));
}

void Session::tellDeparture(TerminationId id) {
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

bool Session::returned(AddressedMessage const& message, unsigned long session, bool leaves) {
    TerminationId const sender = message.originator();
    if (state_ != State::Open || session != figures_.ended || leaves ||
        ours_.count(message.destination()) == 0 || theirs_.count(sender) == 0 ||
        dropping_.count(sender) != 0) {
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
    if (outgoing.head.kind == RecordKind::Departed)
        ++departures_[outgoing.head.from].queued;
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

/** It is told by the piece that is being filled. */
void Session::noteDeparture(TerminationId id) {
    Departures& departures = departures_.at(id);
    --departures.queued;
    departures.number = sent_ + 1;
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
        if (first.head.kind == RecordKind::Departed)
            noteDeparture(first.head.from);
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
    if (state_ != State::Open)
        return;
    if (now >= departAt_)
        departLate(now);
    if (flights_.empty())
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
    long long const due = std::min(tellAt_, departAt_);
    if (flights_.empty())
        return due;
    return std::min(due, progressAt_ + (probed_ ? kEndAfter : kProbeAfter));
}

}  // namespace Link
