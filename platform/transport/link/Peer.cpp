#include "platform/transport/link/Peer.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Switchboard.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkPeer";
using Locked = OSWrap::Lock<OSWrap::ConditionVar>;
using Transport::MessageChain;
using Transport::Rendezvous;
using Transport::Switchboard;

/** Between two looks at the proxies that leave. */
constexpr unsigned long kLook = 2'000'000;
constexpr long long kWriterBusy = 2'000'000;
constexpr std::size_t kStack = 128 * 1024;
/** One of them can go on taking in while another one writes. */
constexpr std::size_t kReceivingThreads = 2;

long long now() {
    return OSWrap::Clock::nowNanoseconds();
}

bool mayWait(Action::Kind kind) {
    return kind == Action::Kind::Show || kind == Action::Kind::ShowSilent ||
           kind == Action::Kind::Drop || kind == Action::Kind::Ended;
}

/** Whether actions of these kinds are carried out together. */
bool together(Action::Kind a, Action::Kind b) {
    auto const shows = [](Action::Kind kind) {
        return kind == Action::Kind::Show || kind == Action::Kind::ShowSilent;
    };
    if (!mayWait(a) || !mayWait(b))
        return mayWait(a) == mayWait(b);
    return (shows(a) && shows(b)) || (a == b && a == Action::Kind::Drop);
}

/** To a local termination that has sent it to a proxy. */
void sendBack(AddressedMessage const& message) {
    static Logging::LineLimit limit;
    if (Switchboard::instance().sendBack(message) == 0 &&
        Rendezvous::instance().exists(message.originator()))
        REFLECTORB_LOG_LIMITED(limit, 3, kSource, "0x%08X does not get back what it sent to 0x%08X",
                               message.originator().value(), message.destination().value());
}

/** Takes nothing more from a local termination that has sent to this proxy, until `goOn`. */
void holdBack(TerminationId proxy, TerminationId sender) {
    if (auto const channel = Switchboard::instance().find(proxy, sender))
        channel->holdBack();
}

void goOn(TerminationId proxy, TerminationId sender) {
    if (auto const channel = Switchboard::instance().find(proxy, sender))
        channel->goOn();
}

/** What the peer has settled its sender need not keep any more; unless its ring has made way for
 * that of another one with its id. */
void release(Action const& action) {
    auto const channel = Switchboard::instance().find(action.to, action.from);
    if (channel != nullptr && channel->token() == action.channel)
        channel->release(action.place);
}

bool isInRing(AddressedMessage const& message) {
    return MessageChain::endInRing(message) != Transport::MessageBlock::kNotInRing;
}

}  // namespace

Peer::Peer(UnitInfo unit, Session::Setup setup, Directory const& directory,
           std::unique_ptr<BusWriter> writer, void (*tellEnded)())
    : unit_(std::move(unit)),
      groups_(setup.groups),
      directory_(directory),
      writer_(std::move(writer)),
      session_(std::move(setup)),
      receiving_(kReceivingThreads),
      tellEnded_(tellEnded),
      sender_(*this, &Peer::sending, "LnSend", OSWrap::Priority(0), OSWrap::SchedulingPolicy(0),
              kStack),
      shower_(*this, &Peer::showing, "LnShow", OSWrap::Priority(0), OSWrap::SchedulingPolicy(0),
              kStack) {}

Peer::~Peer() {
    stop();
}

bool Peer::start() {
    return sender_.start() && shower_.start();
}

/** In phases: (1) the session ends, (2) nothing is written any more, and LnSend ends, (3) what it
 * wants done is done, the end of all proxies included, and LnShow ends. */
void Peer::beginToStop() {
    lost();
    Locked lock(state_);
    stopping_ = true;
    state_.broadcast();
}

void Peer::stop() {
    beginToStop();
    sender_.join();
    shower_.join();
    writer_.reset();
}

// ---- Without memory ----------------------------------------------------------------------------

/** False when it could not be done whole, or something before it: the session is about to end. */
template <class Act>
bool Peer::attempt(Act const& act) {
    if (halfDone_)
        return false;
    if (OSWrap::withMemory(act))
        return true;
    noteHalfDone();
    return false;
}

void Peer::noteHalfDone() {
    halfDone_ = true;
    state_.broadcast();
}

void Peer::endHalfDone() {
    Locked lock(state_);
    noteHalfDone();
}

/** On LnSend. */
void Peer::endWithoutMemory() {
    bool const ended =
        OSWrap::withMemory([this]() OSW_NO_ANALYSIS { session_.memoryRanOut(now()); });
    if (ended)
        halfDone_ = false;
    state_.unlock();
    if (ended)
        carryOut(By::Anyone);
    else
        OSWrap::awaitMemory();
    state_.lock();
}

/** Of actions that memory has run out at: what the end of the session, which follows, does not make
 * good. */
void Peer::performRest(Actions& actions) {
    if (partFrom(actions))
        return;
    for (Action& action : actions)
        if (action.kind == Action::Kind::GiveBack && !action.message.empty()) {
            sendBack(action.message);
            action.message = {};
        } else if (action.kind == Action::Kind::Release) {
            release(action);
        }
}

// ---- Events ------------------------------------------------------------------------------------

void Peer::seen() {
    {
        Locked lock(state_);
        session_.peerSeen(now());
    }
    carryOut(By::Anyone);
}

void Peer::lost() {
    OSWrap::untilMemory([this] {
        Locked lock(state_);
        session_.peerLost(now());
        halfDone_ = false;
    });
    carryOut(By::Anyone);
}

void Peer::tellSettled() {
    Locked lock(state_);
    session_.tellNow(now());
    wantWriteLocked();
}

bool Peer::hasToldSettled() {
    Locked lock(state_);
    return !writing_ && !session_.hasSettlements();
}

void Peer::pieceArrived(PieceHead const& head, unsigned char const* records, std::size_t size) {
    OSWrap::Lock<> arriving(arriving_);
    {
        Locked lock(state_);
        attempt([&]() OSW_NO_ANALYSIS { session_.pieceArrived(head, records, size, now()); });
    }
    carryOut(By::Anyone);
}

void Peer::memberArrived(TerminationId id, std::string const& names) {
    if (!groups_.test(id.groupId()))
        return;
    Locked lock(state_);
    if (!Rendezvous::instance().exists(id))
        return;  // its departure, which another thread tells, may have been told already
    attempt([&]() OSW_NO_ANALYSIS { session_.announce(id, true, names); });
    wantWriteLocked();
}

void Peer::terminationLeft(TerminationId id) {
    Locked lock(state_);
    attempt([&]() OSW_NO_ANALYSIS { session_.withdraw(id, now()); });
    ++departures_;
    wantWriteLocked();
}

void Peer::logFigures() {
    Session::Figures figures;
    std::size_t unsettled = 0, terminations = 0;
    bool open = false;
    {
        Locked lock(state_);
        figures = session_.figures();
        unsettled = session_.unsettledBytes();
        terminations = session_.theirCount();
        open = session_.state() == Session::State::Open;
    }
    REFLECTORB_LOG(5, kSource,
                   "slot %u, machine %s: %s, %zu terminations, sent %lu messages with %lu bytes, "
                   "received %lu with %lu, %zu bytes wait, %lu messages given back, %lu sessions",
                   unsigned{unit_.slot}, unit_.machine.c_str(), open ? "open" : "not open",
                   terminations, figures.messagesOut, figures.bytesOut, figures.messagesIn,
                   figures.bytesIn, unsettled, figures.givenBack, figures.opened);
}

PeerStatus Peer::status() {
    Locked lock(state_);
    PeerStatus status;
    constexpr char const* kStates[] = {"away", "greeting", "linked"};
    status.state = kStates[static_cast<int>(session_.state())];
    if (status.linked())
        status.seconds = static_cast<double>(now() - session_.openedAt()) / 1e9;
    status.terminations = session_.theirCount();
    status.figures = session_.figures();
    status.queuedBytes = session_.queuedBytes();
    status.unsettledBytes = session_.unsettledBytes();
    return status;
}

long long Peer::oldestDebt() {
    long long const time = now();
    long long since = time;
    {
        Locked lock(state_);
        since = std::min({since, writingSince_, performingSince_, senderOwesSince_});
        if (!senderWorks_)
            senderOwesSince_ = std::min(senderOwesSince_, time);
        state_.broadcast();
    }
    Locked lock(work_);
    since = std::min(since, showerOwesSince_);
    if (!showerWorks_)
        showerOwesSince_ = std::min(showerOwesSince_, time);
    work_.broadcast();
    return time - since;
}

// ---- At the proxies ----------------------------------------------------------------------------

/** A sender that the peer does not know is made known to it, unless it has gone: a message of one
 * who has is of use to nobody, and whoever was told of him would wait for his departure. */
void Peer::forward(AddressedMessage const& message, std::uint32_t channel, unsigned long session) {
    TerminationId const from = message.originator();
    Session::Sending sending = Session::Sending::Refused;
    bool full = false;
    {
        Locked lock(state_);
        attempt([&]() OSW_NO_ANALYSIS {
            if (session != session_.figures().ended)
                return;
            if (!session_.announced(from) && Rendezvous::instance().exists(from))
                session_.announce(from, groups_.test(from.groupId()), Directory::namesOf(from));
            sending = session_.send(message, channel);
        });
        if (sending == Session::Sending::TakenHoldBack)
            holdBack(message.destination(), from);
        full = session_.queuedBytes() >= kMostPieceBytes;
    }
    if (sending == Session::Sending::Refused) {
        // The proxy is about to go: what its sender has in its ring comes back by itself then.
        holdBack(message.destination(), from);
        if (!isInRing(message))
            sendBack(message);
    } else if (full) {
        write();
    }
}

std::optional<std::uint32_t> Peer::connectionEnded(TerminationId from, TerminationId to,
                                                   std::uint32_t channel, unsigned long session,
                                                   bool takenBack) {
    Locked lock(state_);
    return session_.ringEnded(from, to, channel, session, takenBack);
}

void Peer::forwarded() {
    bool queued = false;
    {
        Locked lock(state_);
        queued = session_.queued() && !writing_;
    }
    if (queued)
        write();
}

void Peer::delivered(TerminationId from, TerminationId to, std::uint64_t place) {
    std::vector<Delivery> settled;
    bool const taken = OSWrap::withMemory([&] { settled = takePlaced(from, to, place); });
    taken ? settle(settled, {}) : endHalfDone();
}

/** What has got as far as that; all of it or, without memory, nothing. */
std::vector<Delivery> Peer::takePlaced(TerminationId from, TerminationId to, std::uint64_t place) {
    std::vector<Delivery> taken;
    OSWrap::Lock<> lock(places_);
    auto const found = placed_.find(key(from, to));
    if (found == placed_.end())
        return taken;
    std::deque<Placed>& waiting = found->second;
    auto const end = std::find_if(waiting.begin(), waiting.end(),
                                  [place](Placed const& placed) { return placed.place > place; });
    for (auto placed = waiting.begin(); placed != end; ++placed)
        taken.push_back(placed->delivery);
    waiting.erase(waiting.begin(), end);
    if (waiting.empty())
        placed_.erase(found);
    return taken;
}

void Peer::channelBegan(TerminationId peer, std::uint32_t channel, unsigned long session) {
    Locked lock(state_);
    attempt([&]() OSW_NO_ANALYSIS { session_.channelBegan(peer, channel, session); });
}

void Peer::channelCleared(TerminationId peer, std::uint32_t channel, unsigned long session) {
    Locked lock(state_);
    attempt([&]() OSW_NO_ANALYSIS { session_.channelCleared(peer, channel, session); });
    wantWriteLocked();
}

/** What waited is refused, in the order in which it was issued; its sender has it still. */
void Peer::cameBack(AddressedMessage const& message, Transport::Reached reached,
                    unsigned long session, bool leaves) {
    if (reached == Transport::Reached::Ring) {
        Locked lock(state_);
        if (!attempt([&]() OSW_NO_ANALYSIS { session_.returned(message, session, leaves); })) {
            static Logging::LineLimit limit;
            REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                                   "no memory for a message of 0x%08X that 0x%08X has not taken: "
                                   "lost",
                                   message.originator().value(), message.destination().value());
        }
        return wantWriteLocked();
    }
    std::vector<Delivery> refused;
    bool const taken = OSWrap::withMemory(
        [&] { refused = takeFirstPlaced(message.originator(), message.destination()); });
    taken ? settle({}, refused) : endHalfDone();
}

std::vector<Delivery> Peer::takeFirstPlaced(TerminationId from, TerminationId to) {
    std::vector<Delivery> taken;
    OSWrap::Lock<> lock(places_);
    auto const found = placed_.find(key(from, to));
    if (found == placed_.end())
        return taken;
    taken.push_back(found->second.front().delivery);
    found->second.pop_front();
    if (found->second.empty())
        placed_.erase(found);
    return taken;
}

void Peer::settle(std::vector<Delivery> const& settled, std::vector<Delivery> const& refused) {
    if (settled.empty() && refused.empty())
        return;
    Locked lock(state_);
    long long const time = now();
    attempt([&]() OSW_NO_ANALYSIS {
        for (Delivery const& delivery : settled)
            session_.settled(delivery, time);
        for (Delivery const& delivery : refused)
            session_.refused(delivery, time);
    });
    wakeSenderLocked();
}

// ---- Writing -----------------------------------------------------------------------------------

/** Writes all that there is, unless another thread is about it: that one goes on with ours. */
void Peer::write() {
    bool failed = false;
    state_.lock();
    if (!writing_) {
        writing_ = true;
        bool more = false;
        while (attempt([&]() OSW_NO_ANALYSIS { more = session_.nextPiece(piece_, now()); }) &&
               more) {
            writingSince_ = now();
            state_.unlock();
            bool const done = writer_->write(piece_);
            state_.lock();
            if (!done) {
                failed = true;
                attempt([&]() OSW_NO_ANALYSIS { session_.writingFailed(now()); });
                break;
            }
        }
        writing_ = false;
        writingSince_ = Session::kNever;
    }
    state_.unlock();
    if (failed)
        carryOut(By::Anyone);
}

void Peer::wantWriteLocked() {
    writeWanted_ = true;
    wakeSenderLocked();
}

long long Peer::wakeAt() {
    if (writeWanted_)
        return 0;
    return session_.dueAt();
}

void Peer::wakeSenderLocked() {
    if (wakeAt() < sleepsUntil_)
        state_.broadcast();
}

/** Body of LnSend; `beginToStop` ends it. */
void Peer::sending() {
    state_.lock();
    while (!stopping_) {
        long long const time = now();
        senderOwesSince_ = Session::kNever;
        if (halfDone_) {
            endWithoutMemory();
            continue;
        }
        bool due = std::exchange(writeWanted_, false);
        bool const done = attempt([&]() OSW_NO_ANALYSIS {
            due = due || session_.dueAt() <= time;
            session_.timePassed(time);
        });
        if (!done)
            continue;
        if (due && !writing_) {
            senderWorks_ = true;
            state_.unlock();
            write();
            carryOut(By::Anyone);
            state_.lock();
            senderWorks_ = false;
            continue;
        }
        sleepsUntil_ = due ? time + kWriterBusy : wakeAt();
        writeWanted_ = due;
        state_.wait(sleepsUntil_ == Session::kNever
                        ? OSWrap::TimeSpec::INFINITETIME
                        : OSWrap::TimeSpec(0, std::max(sleepsUntil_ - time, 1LL)));
        sleepsUntil_ = 0;
    }
    senderOwesSince_ = Session::kNever;
    senderWorks_ = true;  // no more
    state_.unlock();
    Locked lock(work_);
    workEnds_ = true;
    work_.broadcast();
}

// ---- What the session wants --------------------------------------------------------------------

/** Body of LnShow; LnSend, when it has ended, ends it, once nothing is to be done any more. */
void Peer::showing() {
    for (bool ends = false; !ends;) {
        ends = awaitWork();
        carryOut(By::Shower);
        ends = ends && leaving_.empty();
    }
    ended_.store(true);
    tellEnded_();
}

/** Until there is something to do, as there is again and again while proxies leave; true when
 * nothing new will come. */
bool Peer::awaitWork() {
    bool const looks = !leaving_.empty();
    Locked lock(work_);
    showerWorks_ = false;
    bool inTime = true;
    while (inTime && !workWaits_ && (looks || !workEnds_)) {
        showerOwesSince_ = Session::kNever;
        inTime = work_.wait(looks ? OSWrap::TimeSpec(0, kLook) : OSWrap::TimeSpec::INFINITETIME);
    }
    showerOwesSince_ = Session::kNever;
    showerWorks_ = true;
    workWaits_ = false;
    return workEnds_;
}

void Peer::carryOut(By by) {
    state_.lock();
    if (by == By::Shower)
        awaitOthers();
    session_.takeActions(todo_);
    if (!performing_) {
        performing_ = true;
        do
            carryOutAll(by);
        while (by == By::Shower && letLeave());
        performing_ = false;
        performingSince_ = Session::kNever;
        if (showerWaits_)
            state_.broadcast();
    }
    bool const left = !todo_.empty() && !performing_;
    wakeSenderLocked();
    state_.unlock();
    if (!left)
        return;
    Locked lock(work_);
    workWaits_ = true;
    work_.signal();
}

/** What they leave behind is for LnShow, also when it does so for the last time. */
void Peer::awaitOthers() {
    showerWaits_ = true;
    while (performing_)
        state_.wait(OSWrap::TimeSpec::INFINITETIME);
    showerWaits_ = false;
}

/** The next actions that go together; false when there are none, or not for this thread. */
bool Peer::takeNext(By by, Actions& next) {
    if (todo_.empty() || (by == By::Anyone && mayWait(todo_.front().kind)))
        return false;
    do {
        next.splice(next.end(), todo_, todo_.begin());
    } while (!todo_.empty() && together(next.back().kind, todo_.front().kind));
    return true;
}

void Peer::carryOutAll(By by) {
    for (Actions next; takeNext(by, next);) {
        performingSince_ = now();
        state_.unlock();
        setAside(next);
        bool const done = next.empty() || OSWrap::withMemory([&] { perform(next); });
        if (!done)
            OSWrap::untilMemory([&] { performRest(next); });
        next.clear();
        state_.lock();
        if (!done)
            noteHalfDone();
        session_.takeActions(todo_);
    }
}

/** What is done in the name of one whose address is not free yet. */
void Peer::setAside(Actions& actions) {
    if (leaving_.empty())
        return;
    for (auto at = actions.begin(); at != actions.end();) {
        auto const each = at++;
        if (leaving_.count(each->from) != 0)
            aside_.splice(aside_.end(), actions, each);
    }
}

/** Whether there is something to do then: what was set aside for those that have left. */
bool Peer::letLeave() {
    if (leaving_.empty())
        return false;
    performingSince_ = now();
    state_.unlock();
    OSWrap::untilMemory([this] { leave(); });
    Actions free;
    for (auto at = aside_.begin(); at != aside_.end();) {
        auto const each = at++;
        if (leaving_.count(each->from) == 0)
            free.splice(free.end(), aside_, each);
    }
    state_.lock();
    session_.takeActions(todo_);
    todo_.splice(todo_.begin(), free);
    return !todo_.empty();
}

/** All those together that may: they go out of view, then end. */
void Peer::leave() {
    std::vector<TerminationId> ids;
    for (auto const& [id, proxy] : leaving_)
        if (proxy->mayLeave())
            ids.push_back(id);
    if (ids.empty())
        return;
    Rendezvous::instance().withdraw(ids);
    for (TerminationId const id : ids)
        leaving_.at(id)->beginToLeave();
    forgetPlaces(ids);
    for (TerminationId const id : ids)
        leaving_.erase(id);
}

/** Whether the actions are of those that end what was shown; does them then. */
bool Peer::partFrom(Actions const& actions) {
    if (actions.front().kind == Action::Kind::Drop)
        drop(actions);
    else if (actions.front().kind == Action::Kind::Ended)
        ended(actions.front().text);
    else
        return false;
    return true;
}

void Peer::perform(Actions& actions) {
    if (partFrom(actions))
        return;
    if (actions.front().kind == Action::Kind::Show ||
        actions.front().kind == Action::Kind::ShowSilent)
        return show(actions);
    unsigned long departures = takeFromFormer(actions);
    std::vector<Delivery> settled, refused;
    for (Action& action : actions) {
        if (departures != departures_.load())
            departures = takeFromFormer(actions);
        switch (action.kind) {
            case Action::Kind::Opened:
                opened();
                break;
            case Action::Kind::Deliver:
                deliver(action, settled, refused);
                break;
            case Action::Kind::GiveBack:
                if (!action.message.empty())
                    sendBack(action.message);
                action.message = {};
                break;
            case Action::Kind::Release:
                release(action);
                break;
            case Action::Kind::GoOn:
                goOn(action.to, action.from);
                break;
            default:
                break;
        }
    }
    settle(settled, refused);
}

/** Takes the messages out that are for who has gone since, and not for whoever has come under his
 * id: an empty one is refused. To be done again when more departures have been told than it
 * answers.
 */
unsigned long Peer::takeFromFormer(Actions& actions) {
    Locked lock(state_);
    for (Action& action : actions)
        if (!action.message.empty() && !session_.isForPresent(action))
            action.message = {};
    return departures_.load();
}

/** places_ is held so that nobody is told of the place before it is noted. */
void Peer::deliver(Action& action, std::vector<Delivery>& settled, std::vector<Delivery>& refused) {
    Delivery const delivery(action);
    std::uint64_t place = 0;
    OSWrap::Lock<> lock(places_);
    if (Switchboard::instance().issue(action.message, action.to, Transport::Room::ForAnswers,
                                      place) == 0)
        refused.push_back(delivery);
    else if (place == 0)
        settled.push_back(delivery);
    else
        placed_[key(action.from, action.to)].push_back({delivery, place});
}

/** With the state locked all the while, so that nobody is announced who has left before. */
void Peer::opened() {
    REFLECTORB_LOG(5, kSource, "linked with slot %u, machine %s", unsigned{unit_.slot},
                   unit_.machine.c_str());
    Locked lock(state_);
    for (TerminationId const id : directory_.members())
        if (groups_.test(id.groupId()) && Rendezvous::instance().exists(id))
            session_.announce(id, true, Directory::namesOf(id));
    wantWriteLocked();
}

void Peer::ended(std::string const& reason) {
    REFLECTORB_LOG(4, kSource, "no link with slot %u, machine %s: %s", unsigned{unit_.slot},
                   unit_.machine.c_str(), reason.c_str());
    for (auto const& [id, proxy] : proxies_)
        proxy->takeNoMore();
    leaving_.merge(proxies_);
    aside_.clear();  // its peer gives back what it has not been told of
}

void Peer::show(Actions const& actions) {
    std::vector<std::unique_ptr<Proxy>> taken;
    std::vector<TerminationId> ids;
    for (Action const& action : actions) {
        auto proxy = std::make_unique<Proxy>(action.from, action.session, *this);
        if (!proxy->take(action.text, action.kind == Action::Kind::Show
                                          ? Transport::Visibility::Member
                                          : Transport::Visibility::Silent))
            continue;
        ids.push_back(action.from);
        taken.push_back(std::move(proxy));
    }
    auto sockets = Rendezvous::instance().publish(ids);
    for (std::size_t i = 0; i < taken.size(); ++i)
        if (taken[i]->listen(std::move(sockets[i]), receiving_))
            proxies_[ids[i]] = std::move(taken[i]);
}

void Peer::drop(Actions const& actions) {
    for (Action const& action : actions) {
        auto const found = proxies_.find(action.from);
        if (found == proxies_.end())
            continue;
        found->second->takeNoMore();
        leaving_.insert(proxies_.extract(found));
    }
    Locked lock(state_);
    for (Action const& action : actions)
        session_.dropped(action.from, action.session);
}

/** What has not got into the rings of its destinations will not get there any more: the peer need
 * not keep it. */
void Peer::forgetPlaces(std::vector<TerminationId> const& gone) {
    std::vector<Delivery> refused;
    {
        OSWrap::Lock<> lock(places_);
        auto const isGone = [&gone](auto const& entry) {
            TerminationId const from(static_cast<std::uint32_t>(entry.first >> 32));
            return std::binary_search(gone.begin(), gone.end(), from);
        };
        for (auto const& entry : placed_)
            if (isGone(entry))
                for (Placed const& one : entry.second)
                    refused.push_back(one.delivery);
        for (auto at = placed_.begin(); at != placed_.end();)
            at = isGone(*at) ? placed_.erase(at) : std::next(at);
    }
    settle({}, refused);
}

}  // namespace Link
