#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/Lock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"

// A channel's connection: how it is made, what is said over its socket, how it ends. All of it runs
// on the receiving thread.

namespace Transport {
namespace {

constexpr char const* kSource = "Channel";
constexpr int kPacketsAtOnce = 64;  // far more than a peer of our kind ever has on the way
constexpr long long kBacklogFullRetry = 20'000'000;  // nanoseconds
/** After Crossed the other side's Hello is on its way; should it be lost, we say ours again. */
constexpr long long kCrossedRetry = 200'000'000;
constexpr long long kNoMemoryRetry = 100'000'000;
/** Who waits for an answer that does not come may hold on to a channel that is of no use. */
constexpr long long kAwaitedPause = 1'000'000'000;
/** So often we try to connect to somebody who is there, before what waits for it comes back. */
constexpr int kMostAttempts = 10;
/** A peer that does not answer our Bye keeps its descriptors for so many looks while others wait
 * for them: a second or so. */
constexpr int kMostLooksForAnswer = 10;
/** So long a channel with traffic keeps its descriptors while others wait for them. */
constexpr long long kTurn = 300'000'000;  // nanoseconds
constexpr unsigned kFirstLines = 10;

}  // namespace

Channel::State Channel::state() {
    OSWrap::Lock<> lock(mutex_);
    return state_;
}

int Channel::socket() {
    OSWrap::Lock<> lock(mutex_);
    return link_.has_value() ? link_->socket.get() : -1;
}

// ---- Connecting ---------------------------------------------------------------------------------

void Channel::service() {
    requested_.store(false);
    tellPlaces();
    retryAt_ = 0;
    if (!giveBackUntaken())
        return;
    if (connected() && connection_->broken) {
        giveBackAll();
        if (connected())
            return;
    }
    if (connected() && std::exchange(connection_->starved, false))
        goOnWithDescriptors();
    bool broken = false;
    State state = State::Idle;
    {
        OSWrap::Lock<> lock(mutex_);
        state = state_;
        broken = link_.has_value() && link_->writer.has_value() && link_->writer->broken();
    }
    if (state == State::Gone)
        clearUpGone();
    else if (broken)
        closeBecause("it has taken more than we have sent");
    else if (state == State::Wanted)
        connect();
    else if (stands())
        receiver_->makeHot(*this);  // it may have been held back
    else
        retireIfUnused();
}

void Channel::retryLater(long long nanoseconds) {
    receiver_->enrol(*this);
    retryAt_ = OSWrap::Clock::nowNanoseconds() + nanoseconds;
    receiver_->wakeAt(retryAt_);
}

/** Whether the peer's process has not too many connections already; else there is one more. */
bool Channel::mayConnect() {
    return descriptors_.bytes() != 0 || descriptors_.grow(1);
}

void Channel::connect() {
    if (!mayConnect()) {
        tryAgain(kTooManyChannels);
        return;
    }
    OpenSocket socket(Rendezvous::instance().connectTo(peer_));
    if (!socket.valid()) {
        if (errno == EAGAIN)
            retryLater(kBacklogFullRetry);
        else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)
            tryAgainWithRoom();
        else if (errno == ENOTSOCK)
            tryAgain("something else is in its place in the rendezvous folder");
        else
            giveUp(6, "nobody listens there");
        return;
    }
    if (!peerIsGenuine(socket.get())) {
        giveUp(4, "who listens there is not its owner");
        return;
    }
    if (!sayHello(std::move(socket)))
        tryAgain("the connection could not be made");
}

/** Channels that say nothing, or have had their turn, give way; and those who connect leave what
 * becomes free to us. */
void Channel::tryAgainWithRoom() {
    receiver_->wantDescriptors();
    receiver_->keepDescriptors();
    tryAgain("no descriptor or no memory is left");
}

/** Of an attempt that has failed, for a reason that may pass. */
void Channel::tryAgain(char const* reason) {
    dropAttempt();
    if (++attempts_ < kMostAttempts)
        retryLater(kNoMemoryRetry);
    else
        giveUp(3, reason);
}

bool Channel::sayHello(OpenSocket socket) {
    OwnSide side = makeSide();
    receiver_->enrol(*this);
    if (!side.valid())
        return false;
    connection_.emplace(std::move(side));
    return introduce(std::move(socket), Packet::Hello);
}

/** Where there are no descriptors for it, channels that say nothing give way. */
OwnSide Channel::makeSide() {
    OwnSide side = OwnSide::make();
    if (!side.valid())
        receiver_->wantDescriptors();
    return side;
}

/** The socket becomes that of the connection, and the peer gets our side over it. */
bool Channel::introduce(OpenSocket socket, Packet::Kind kind) {
    int const fd = socket.get();
    {
        OSWrap::Lock<> lock(mutex_);
        if (kind == Packet::Hello && state_ != State::Gone)
            state_ = State::Connecting;
        link_.emplace(std::move(socket), share_);
    }
    OwnSide& own = connection_->own;
    bool const sent = watchBell() && receiver_->watch(fd, token_, Receiver::Source::Socket) &&
                      sendPacket(fd, packet(kind, own.ring.capacity), own.file.get(),
                                 own.bell.get()) == Transfer::Done;
    own.file.reset();
    return sent;
}

/** Before the bell is the peer's, too: of those who wait for it, ours come first, callers before
 * workers. A link's proxies have neither. */
bool Channel::watchBell() {
    if (!receiver_->passesOn())
        reading_.watch(connection_->own.bell.get());
    receiver_->workers().watch(connection_->own.bell.get(), *this);
    return receiver_->watch(connection_->own.bell.get(), token_, Receiver::Source::Bell);
}

bool Channel::peerIsGenuine(int socket) {
    PeerIdentity identity{};
    return peerIdentity(socket, identity) && identity.user == ::geteuid() &&
           Rendezvous::instance().claim(peer_, identity.process) == Rendezvous::Claim::True;
}

void Channel::giveUp(int level, char const* reason) {
    static Logging::LineLimit limit(kFirstLines);
    REFLECTORB_LOG_LIMITED(limit, level, kSource, "no connection from 0x%08X to 0x%08X: %s",
                           ownId_.value(), peer_.value(), reason);
    attempts_ = 0;
    close(Unread::GiveBack);
    if (Rendezvous::instance().exists(peer_)) {
        Rendezvous::instance().suspect(peer_);
        return;
    }
    Switchboard::instance().remove(*this, ownId_);
    peerGone();
}

/** The attempt of the lower id wins, and a standing channel is not replaced. */
bool Channel::mayAnswer(int socket) {
    switch (state()) {
        case State::Gone:
        case State::Retired:
            return false;
        case State::Connecting:
            if (peer_ < ownId_) {
                dropAttempt();
                return true;
            }
            break;
        case State::Idle:
        case State::Wanted:
            return true;
        case State::Open:
        case State::Leaving:
            break;
    }
    sendPacket(socket, packet(Packet::Crossed));
    return false;
}

/** Closes our own unanswered connection; what is queued stays. */
void Channel::dropAttempt() {
    OpenSocket socket;
    {
        OSWrap::Lock<> lock(mutex_);
        socket = unlinkLocked();
        if (state_ == State::Connecting)
            state_ = State::Wanted;
    }
    receiver_->unwatch(socket.get());
    dropConnection();
}

void Channel::answerHello(OpenSocket socket, ReceivedPacket hello) {
    if (receiver_->stopping())
        return;
    receiver_->enrol(*this);
    greeting_ = Greeting{std::move(socket), std::move(hello)};
    onSocket();  // the peer may have closed the former connection just before
    if (!connected() || !ending())
        answerGreeting();  // unless the end of the former one has
    else if (greeting_.has_value() && descriptors_.bytes() <= 1 && !descriptors_.grow(1)) {
        // It has descriptors of its own, which count until the former ones are counted out.
        tellRefused(peer_, ownId_, kTooManyChannels);
        greeting_.reset();
    }
}

void Channel::answerGreeting() {
    std::optional<Greeting> greeting = std::exchange(greeting_, std::nullopt);
    if (!greeting.has_value() || receiver_->stopping() || !giveBackUntaken() ||
        !mayAnswer(greeting->socket.get()))
        return;
    if (!mayConnect()) {
        refuseHello(kTooManyChannels);
        return;
    }
    PeerSide peerSide = PeerSide::of(greeting->hello);
    OwnSide side = makeSide();
    if (!peerSide.valid() || !side.valid()) {
        refuseHello(side.valid() ? "its shared memory makes no sense" : "no shared memory");
        return;
    }
    connection_.emplace(std::move(side));
    if (introduce(std::move(greeting->socket), Packet::Welcome)) {
        open(std::move(peerSide));
    } else {
        dropAttempt();
        retryLater(kBacklogFullRetry);
    }
}

void Channel::tellRefused(TerminationId peer, TerminationId own, char const* reason) {
    static Logging::LineLimit limit(kFirstLines);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "connection of 0x%08X to 0x%08X refused: %s",
                           peer.value(), own.value(), reason);
}

void Channel::refuseHello(char const* reason) {
    tellRefused(peer_, ownId_, reason);
    descriptors_.shrinkTo(0);
    if (state() == State::Idle)
        retireIfUnused();
    else
        retryLater(kNoMemoryRetry);
}

void Channel::open(PeerSide peerSide) {
    Connection& made = *connection_;
    made.peer = std::move(peerSide);
    reading_.open(made.own.page(), made.peer.page(), std::move(made.peer.ring), share_,
                  made.peer.bell.get(),
                  receiver_->passesOn() ? std::optional(nextPlace_) : std::nullopt);
    retryAt_ = 0;
    attempts_ = 0;
    bool const toLink = leadsToLink();
    if (toLink) {
        made.showing = showing();
        if (hasHungUp(socket()))
            made.showing.reset();  // it may be of who has come since
    }
    {
        OSWrap::Lock<> lock(mutex_);
        link_->toLink = toLink;
        link_->writer.emplace(made.own.page(), made.peer.page(), std::move(made.own.ring));
        link_->peerBell = made.peer.bell.get();
        if (state_ != State::Gone) {
            state_ = State::Open;
            drainLocked();
        }
    }
    receiver_->makeHot(*this);
}

// ---- The socket ---------------------------------------------------------------------------------

void Channel::onSocket() {
    if (!connected())
        return;
    readPackets();
    react();
}

/** Takes the packets that are there; what needs the ring to be read first is only noted. A bounded
 * number, for a peer that sends them without end; the socket stays readable for the rest. */
void Channel::readPackets() {
    ReceivedPacket received;
    int left = kPacketsAtOnce;
    // A packet may close the socket, and the connection with it.
    for (int fd = socket(); fd >= 0 && left > 0 && !connection_->garbageSeen; fd = socket()) {
        --left;
        Transfer const transfer = receivePacket(fd, received);
        if (transfer == Transfer::Later)
            return;
        if (transfer == Transfer::Exhausted) {
            receiver_->wantDescriptors();
            leaveInSocket(fd, "no descriptor is left");
            return;
        }
        if (transfer == Transfer::Behind) {
            leaveInSocket(fd, "closing others hangs");
            return;
        }
        if (transfer == Transfer::Closed) {
            connection_->endFor(Ending::SocketClosed);
            return;
        }
        if (transfer == Transfer::Garbage || !takePacket(received))
            connection_->garbageSeen = true;
    }
}

/** The packet stays in the socket, which would be reported as readable all the time. */
void Channel::leaveInSocket(int fd, char const* reason) {
    static Logging::LineLimit limit(kFirstLines);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "the channel of 0x%08X with 0x%08X waits: %s",
                           ownId_.value(), peer_.value(), reason);
    connection_->starved = true;
    receiver_->unwatch(fd);
    retryLater(kNoMemoryRetry);
}

void Channel::goOnWithDescriptors() {
    if (!receiver_->watch(socket(), token_, Receiver::Source::Socket)) {
        connection_->starved = true;
        retryLater(kNoMemoryRetry);
        return;
    }
    if (stands())
        receiver_->makeHot(*this);
    onSocket();
}

/** False when the packet makes no sense now. */
bool Channel::takePacket(ReceivedPacket& received) {
    Packet const& packet = received.packet;
    if (packet.from != peer_.value() || packet.to != ownId_.value())
        return false;
    bool const stood = stands();
    switch (packet.kind) {
        case Packet::Welcome:
            return !stood && takeWelcome(received);
        case Packet::Crossed:
            if (stood)
                return false;
            dropAttempt();
            retryLater(kCrossedRetry);
            return true;
        case Packet::NextRing:
            return stood && takeNextRing(received);
        case Packet::Bye:
            connection_->byeSeen = true;
            return stood;
        case Packet::Stay:
            resumeSending();
            return stood;
        case Packet::Left:
            connection_->endFor(Ending::PeerLeft);
            return stood;
        default:
            return false;
    }
}

bool Channel::takeWelcome(ReceivedPacket& received) {
    PeerSide peerSide = PeerSide::of(received);
    if (!peerSide.valid())
        return false;
    open(std::move(peerSide));
    return true;
}

bool Channel::takeNextRing(ReceivedPacket& received) {
    RingArea area;
    area.capacity = received.packet.ringCapacity;
    if (!isRingCapacity(area.capacity) || !received.file.valid() ||
        !isSealedFile(received.file.get(), area.capacity) ||
        connection_->nextRings.size() >= SentMessages::kMostFormer)
        return false;
    Descriptor const file(received.file.release());
    area.mapping = Mapping::of(file.get(), 0, area.capacity, Mapping::Access::ReadOnly);
    if (!area.mapping.valid())
        return false;
    connection_->nextRings.push_back(std::move(area));
    return true;
}

/** Acts on what the packets told, after the messages that came before it: is called again after
 * each batch of these. */
void Channel::react() {
    if (!connected())
        return;
    if (connection_->garbageSeen) {
        if (!connection_->broken)
            closeBecause("it has sent nonsense over the socket");
        return;
    }
    if (std::exchange(connection_->byeSeen, false) && !ending())
        answerBye();
    if (ending() && hasReadAll())
        end();
}

/** What the peer has not read keeps it: should it end before it knew, that would be lost. */
void Channel::answerBye() {
    OSWrap::Lock<> lock(mutex_);
    bool const bothLeave = state_ == State::Leaving;
    if (!bothLeave && (!queue_.empty() || !link_->writer->allTaken())) {
        sendPacket(link_->socket.get(), packet(Packet::Stay));
        return;
    }
    if (state_ == State::Open)
        state_ = State::Leaving;
    connection_->endFor(bothLeave ? Ending::BothLeave : Ending::WeLeave);
}

/** What the peer has sent has been taken in, and the connection is of no more use. */
void Channel::end() {
    switch (connection_->reason) {
        case Ending::PeerGone:
            closeGone();
            break;
        case Ending::PeerLeft:
            close(Unread::LeaveToPeer);
            break;
        case Ending::SocketClosed:
            endWithSocket();
            break;
        case Ending::WeLeave:
            sendPacket(socket(), packet(Packet::Left));
            close(Unread::LeaveToPeer);
            break;
        case Ending::BothLeave:
            close(Unread::LeaveToPeer);
            break;
        case Ending::None:
            break;
    }
}

void Channel::endWithSocket() {
    if (stands()) {
        close(Unread::GiveBack);
        Rendezvous::instance().suspect(peer_);
    } else {
        Rendezvous::instance().suspect(peer_);
        tryAgain("the peer has closed it");
    }
}

void Channel::resumeSending() {
    OSWrap::Lock<> lock(mutex_);
    if (state_ != State::Leaving || ending())
        return;
    state_ = State::Open;
    connection_->idleLooks = 0;
    connection_->turnFrom = OSWrap::Clock::nowNanoseconds();
    drainLocked();
}

void Channel::giveBackIfIdle(bool wanted) {
    if (!stands())
        return;
    bool unheard = false;
    {
        OSWrap::Lock<> lock(mutex_);
        if (state_ == State::Leaving)
            unheard = wanted && isUnansweredLocked();
        else
            sayByeIfIdleLocked(wanted);
    }
    if (!unheard)
        return;
    static Logging::LineLimit limit(kFirstLines);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "closing the channel of 0x%08X with 0x%08X: others wait for its "
                           "descriptors, and it does not answer",
                           ownId_.value(), peer_.value());
    connection_->endFor(Ending::BothLeave);
    react();
}

/** Whether a peer has been told Bye too long ago, whatever it goes on sending. */
bool Channel::isUnansweredLocked() {
    connection_->idleLooks = connection_->starved ? 0 : connection_->idleLooks + 1;
    return connection_->idleLooks > kMostLooksForAnswer;
}

/** Since the last look. */
bool Channel::hasReceivedNothing() {
    std::uint32_t const received = reading_.reader().shownPosition();
    return !reading_.reader().hasMoreThanShown() &&
           received == std::exchange(connection_->lastReceived, received);
}

/** Who waits for answers, or did since the last look, keeps it where it is only wanted for others.
 */
void Channel::sayByeIfIdleLocked(bool wanted) {
    std::uint32_t const sent = link_->writer->position();
    bool const allTaken = link_->writer->allTaken();
    bool const awaited = wasAwaited_.exchange(false) || isAwaited();
    settleLocked();
    bool const silent = hasReceivedNothing() && sent == std::exchange(connection_->lastSent, sent);
    bool const overdue = wanted && OSWrap::Clock::nowNanoseconds() - connection_->turnFrom > kTurn;
    bool const free = state_ == State::Open && queue_.empty() && allTaken && !(wanted && awaited);
    connection_->idleLooks = free && silent ? connection_->idleLooks + 1 : 0;
    if (!free || (connection_->idleLooks < 2 && !overdue) ||
        sendPacket(link_->socket.get(), packet(Packet::Bye)) != Transfer::Done)
        return;
    connection_->idleLooks = 0;
    state_ = State::Leaving;
}

// ---- Closing ------------------------------------------------------------------------------------

void Channel::closeBecause(char const* reason) {
    static Logging::LineLimit limit(kFirstLines);
    REFLECTORB_LOG_LIMITED(limit, 3, kSource, "closing the channel of 0x%08X with 0x%08X: %s",
                           ownId_.value(), peer_.value(), reason);
    giveBackAll();
}

void Channel::closeForShortage() {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 2, kSource,
                           "closing the channel of 0x%08X with 0x%08X: no memory", ownId_.value(),
                           peer_.value());
    giveBackAll();
}

/** Once nobody reads: who does gives the ring to the receiving thread, which comes back here. */
void Channel::giveBackAll() {
    if (stands() && !reading_.demand()) {
        connection_->broken = true;
        return;
    }
    if (connected() && connection_->reason == Ending::PeerGone)
        closeGone();
    else
        close(Unread::GiveBack);
}

/** Closes the connection, if there is one. With GiveBack, what has not reached the peer goes back
 * to its originator; with LeaveToPeer, what is queued is sent over a new connection. */
void Channel::close(Unread unread) {
    receiver_->makeCold(*this);
    MessageChain back;
    OpenSocket socket;
    bool again = false;
    std::size_t foreign = 0;
    std::uint64_t left = 0;
    std::uint64_t last = 0;
    endReleasing();
    bool const passedOn = mayHavePassedOn();
    {
        OSWrap::Lock<> lock(mutex_);
        left = leftPlace_;
        if (unread == Unread::GiveBack) {
            if (link_.has_value() && link_->writer.has_value()) {
                untaken_.emplace(link_->writer->giveUp());
                passedOn_ = passedOn;
            }
            foreign = takeOwnLocked(back);
        }
        socket = unlinkLocked();
        settleLocked();
        if (state_ != State::Gone) {
            again = !queue_.empty();
            state_ = again ? State::Wanted : State::Idle;
        }
        last = leftPlace_;
    }
    receiver_->unwatch(socket.get());
    dropConnection();
    tellPlaces(left);
    toldPlace_ = last;  // those between come back
    giveBackUntaken();
    receiver_->giveBack(back);
    if (foreign > 0)
        logKept(foreign);
    if (again)
        receiver_->request(*this);
    if (greeting_.has_value())
        answerGreeting();
    else
        retireIfUnused();
}

/** Others may have very many terminations, with each of which something was said once. Who has
 * found this channel and wants to send looks for another one then. */
void Channel::retireIfUnused() {
    if (connected() || untaken_.has_value() || retryAt_ != 0 || receiver_->passesOn() ||
        heldBack_.load())
        return;
    bool const awaited = isAwaited();
    {
        OSWrap::Lock<> lock(mutex_);
        if (state_ != State::Idle)
            return;
        if (!awaited)
            state_ = State::Retired;
    }
    if (awaited) {
        retryLater(kAwaitedPause);
        return;
    }
    Switchboard::instance().remove(*this, ownId_);
    receiver_->dismiss(*this);
}

void Channel::logKept(std::size_t messages) {
    if (!Rendezvous::instance().exists(peer_))
        return;  // nobody waits for them
    static Logging::LineLimit limit(kFirstLines);
    REFLECTORB_LOG_LIMITED(
        limit, 3, kSource,
        "0x%08X has closed the channel with 0x%08X before it had %zu messages of "
        "its own back: lost",
        peer_.value(), ownId_.value(), messages);
}

/** Asked once for each connection, and only where the addresses leave it open. */
bool Channel::leadsToLink() {
    PeerIdentity identity{};
    return peer_.slotId() != ownId_.slotId() && !receiver_->passesOn() &&
           peerIdentity(socket(), identity) && Rendezvous::instance().isLink(identity.process);
}

/** As which the peer is shown now; nothing without memory. */
std::optional<Showing> Channel::showing() const {
    std::optional<Showing> found;
    OSWrap::withMemory([&] { found = Rendezvous::instance().showingOf(peer_); });
    return found;
}

/** A link has passed on what it has not released, unless it stays and has closed only this
 * connection: then it has released that before. Who has been taken out of view and shown anew has
 * let go of its sockets in between. */
bool Channel::mayHavePassedOn() {
    if (!stands())
        return false;
    {
        OSWrap::Lock<> lock(mutex_);
        if (!link_->toLink)
            return false;
    }
    PeerIdentity identity{};
    return connection_->reason != Ending::SocketClosed || !connection_->showing.has_value() ||
           !peerIdentity(socket(), identity) ||
           !Rendezvous::instance().hasLock(peer_, identity.process) ||
           !(showing() == connection_->showing);
}

/** Before the peer, which has ended the connection itself, or else hears that we do. */
void Channel::endReleasing() {
    if (!stands() || !receiver_->passesOn())
        return;
    auto const kept = receiver_->connectionEnded(*this, ending());
    if (kept.has_value())
        reading_.reader().release(*kept);
    nextPlace_ = reading_.reader().place();
}

/** False when memory does not suffice for all of it yet. What a link may have passed on is not sent
 * again, also when the link is soon back. */
bool Channel::giveBackUntaken() {
    if (!untaken_.has_value())
        return true;
    MessageChain back;
    bool const all = untaken_->recover(back, ownId_.value(), peer_.value());
    if (passedOn_)
        back.markAll(MessageMark::SentAgain);
    receiver_->giveBack(back);
    if (all)
        untaken_.reset();
    else
        retryLater(kNoMemoryRetry);
    return all;
}

/** Answers the socket, which is still watched. */
OpenSocket Channel::unlinkLocked() {
    OpenSocket socket;
    if (link_.has_value())
        socket = std::move(link_->socket);
    link_.reset();
    return socket;
}

void Channel::dropConnection() {
    reading_.close();
    if (connected()) {
        receiver_->unwatch(connection_->own.bell.get());
        receiver_->workers().unwatch(connection_->own.bell.get(), token_);
    }
    connection_.reset();
    descriptors_.shrinkTo(0);
}

/** The peer has gone: takes in its last messages, gives back what it will never take. */
void Channel::clearUpGone() {
    if (!connected()) {
        closeGone();
        return;
    }
    connection_->endFor(Ending::PeerGone);
    if (stands() && !connection_->starved)
        readPackets();
    react();
}

/** A peer that has gone is forgotten when nothing of ours is left to be given back. */
void Channel::closeGone() {
    close(Unread::GiveBack);
    if (!untaken_.has_value())
        receiver_->dismiss(*this);
}

std::size_t Channel::shutDown() {
    std::size_t lost = 0;
    {
        OSWrap::Lock<> lock(mutex_);
        if (state_ == State::Open && !queue_.empty())
            drainLocked();
        state_ = State::Gone;
        lost = queue_.count();
        receiver_->unsentLess(lost);
        queue_.clear();
    }
    untaken_.reset();  // nobody is there any more to whom it could come back
    close(Unread::LeaveToPeer);
    return lost;
}

}  // namespace Transport
