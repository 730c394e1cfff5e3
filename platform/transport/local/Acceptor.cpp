#include "platform/transport/local/Acceptor.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <vector>

#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Switchboard.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Acceptor";
constexpr int kAcceptsAtOnce = 16;
constexpr std::size_t kMostStrangers = 64;
/** A Hello brings two, and our side of the channel has two. */
constexpr int kDescriptorsOfChannel = 4;
constexpr long long kAcceptPause = 100'000'000;  // nanoseconds
/** Who says Hello before his entry has been seen here waits so long at most, and is looked at again
 * and again: the longer he has waited the less often. */
constexpr long long kMostUnseen = 5'000'000'000;
constexpr long long kUnseenPause = 2'000'000;

std::atomic<long long> introductionLimitNow{10'000'000'000};

/** To be accepted: without a descriptor left, accept does not tell whether nobody does. */
bool somebodyWaits(int listening) {
    pollfd one{listening, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0;
}

}  // namespace

void Acceptor::introductionLimit(long long nanoseconds) {
    introductionLimitNow.store(nanoseconds);
}

bool Acceptor::listen(OpenSocket listening) {
    listening_ = std::move(listening);
    return receiver_.watch(listening_.get(), 0, Receiver::Source::Listening);
}

void Acceptor::accept() {
    for (int count = 0; count < kAcceptsAtOnce; ++count) {
        if (closersBehind()) {
            tellBehind();
            pause(kAcceptPause);
            return;
        }
        if (keepsRoom()) {
            pauseForRoom();
            return;
        }
        OpenSocket socket(
            ::accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket.valid()) {
            receive(std::move(socket));
            continue;
        }
        bool const exhausted = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
        if (exhausted && !raiseDescriptorLimit()) {
            if (somebodyWaits(listening_.get())) {
                tellNoDescriptor();
                pauseForRoom();
            }
            return;
        }
        if (!exhausted && errno != ECONNABORTED && errno != EINTR)
            return;
    }
}

void Acceptor::tellNoDescriptor() const {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "termination 0x%08X has no descriptor left to accept a connection",
                           receiver_.id().value());
}

void Acceptor::tellBehind() const {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "termination 0x%08X accepts nobody: closing others hangs",
                           receiver_.id().value());
}

void Acceptor::tellHeldUp(Stranger const& stranger) const {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(
        limit, 3, kSource,
        "termination 0x%08X keeps process %d waiting: closing what it has passed hangs",
        receiver_.id().value(), static_cast<int>(stranger.identity.process));
}

/** Nobody can be taken in now: those who connect wait a little. */
void Acceptor::pause(long long nanoseconds) {
    receiver_.unwatch(listening_.get());
    acceptAgainAt_ = OSWrap::Clock::nowNanoseconds() + nanoseconds;
    receiver_.wakeAt(acceptAgainAt_);
}

void Acceptor::pauseForRoom() {
    pause(makeRoom(0) ? kUnseenPause : kAcceptPause);
}

/** Where descriptors have run out, those who have said nothing for longest, are held up, or are
 * not seen in the folder, give way to who has said Hello, and to who connects: with a few of them,
 * which are closed soon. Where there are none, `except` left out, channels without traffic do, in a
 * while: false. */
bool Acceptor::makeRoom(std::uint32_t except) {
    std::vector<std::uint32_t> leaving;
    long long const now = OSWrap::Clock::nowNanoseconds();
    for (auto const& [token, stranger] : strangers_) {
        if (stranger.givesWay(now) && token != except &&
            leaving.size() < std::size_t{kDescriptorsOfChannel})
            leaving.push_back(token);
    }
    for (std::uint32_t const token : leaving)
        drop(token);
    if (leaving.empty())
        receiver_.wantDescriptors();
    return !leaving.empty();
}

/** Whether what is left is for those whose Hello waits for it. */
bool Acceptor::keepsRoom() const {
    bool const starved = std::any_of(strangers_.begin(), strangers_.end(),
                                     [](auto const& each) { return each.second.starved; });
    return (starved || receiver_.keepsDescriptors()) && !hasRoom(listening_.get(), 1);
}

/** For a channel, others beside, and one that this termination wants to make itself. */
bool Acceptor::hasRoom(int fd, int others) const {
    int const own = receiver_.keepsDescriptors() ? kDescriptorsOfChannel : 0;
    return descriptorsLeft(fd, kDescriptorsOfChannel + others + own);
}

void Acceptor::receive(OpenSocket socket) {
    PeerIdentity identity{};
    if (!peerIdentity(socket.get(), identity) || identity.user != ::geteuid()) {
        static Logging::LineLimit limit;
        REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                               "termination 0x%08X refused process %d of user %u",
                               receiver_.id().value(), static_cast<int>(identity.process),
                               static_cast<unsigned>(identity.user));
        return;
    }
    if (strangers_.size() >= kMostStrangers)
        dropOldest();
    std::uint32_t const token = Receiver::newToken();
    if (!receiver_.watch(socket.get(), token, Receiver::Source::Socket))
        return;
    long long const deadline = OSWrap::Clock::nowNanoseconds() + introductionLimitNow.load();
    strangers_.emplace(token, Stranger{std::move(socket), identity, deadline});
    receiver_.wakeAt(deadline);
    hear(token);
}

/** Of those who give way, if there are any: who else has said Hello and waits
 * may be a good one. */
void Acceptor::dropOldest() {
    long long const now = OSWrap::Clock::nowNanoseconds();
    auto const found = std::find_if(strangers_.begin(), strangers_.end(),
                                    [now](auto const& each) { return each.second.givesWay(now); });
    drop((found == strangers_.end() ? strangers_.begin() : found)->first);
}

void Acceptor::drop(std::uint32_t token) {
    auto const found = strangers_.find(token);
    static Logging::LineLimit limit;
    if (found->second.hearAgainAt == 0)
        REFLECTORB_LOG_LIMITED(
            limit, 4, kSource, "termination 0x%08X dropped process %d: it never said Hello",
            receiver_.id().value(), static_cast<int>(found->second.identity.process));
    receiver_.unwatch(found->second.socket.get());
    strangers_.erase(found);
}

/** Nothing is taken out of his socket, above all no descriptors, before he is known. */
void Acceptor::hear(std::uint32_t token) {
    auto const found = strangers_.find(token);
    Packet hello{};
    Transfer const transfer = peekPacket(found->second.socket.get(), hello);
    if (transfer == Transfer::Later) {
        if (found->second.hearAgainAt != 0)
            keepWaiting(found->second, kUnseenPause);
        return;
    }
    Stranger& heard = found->second;
    Rendezvous::Claim const claim = judge(heard, transfer, hello);
    bool const known = claim == Rendezvous::Claim::True;
    if (claim == Rendezvous::Claim::Unseen) {
        long long const waited = OSWrap::Clock::nowNanoseconds() - heard.unseenSince;
        keepWaiting(heard, std::clamp(waited, kUnseenPause, kAcceptPause));
        return;
    }
    if (known && closersBehind(heard.identity.process)) {
        if (!std::exchange(heard.heldUp, true))
            tellHeldUp(heard);
        keepWaiting(heard, kAcceptPause);
        return;
    }
    heard.heldUp = false;
    if (known && !hasRoom(heard.socket.get(), 0)) {
        if (!std::exchange(heard.starved, true))
            tellNoDescriptor();
        keepWaiting(heard, makeRoom(token) ? kUnseenPause : kAcceptPause);
        return;
    }
    Stranger stranger = std::move(heard);
    strangers_.erase(found);
    receiver_.unwatch(stranger.socket.get());
    if (known && !introduce(stranger, TerminationId(hello.from)))
        keepWaiting(strangers_.emplace(token, std::move(stranger)).first->second, kAcceptPause);
}

/** His Hello stays where it is for a while. */
void Acceptor::keepWaiting(Stranger& stranger, long long nanoseconds) {
    receiver_.unwatch(stranger.socket.get());
    stranger.hearAgainAt = OSWrap::Clock::nowNanoseconds() + nanoseconds;
    receiver_.wakeAt(stranger.hearAgainAt);
}

void Acceptor::tellNonsense(Stranger const& stranger) const {
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "termination 0x%08X dropped process %d: it sent nonsense",
                           receiver_.id().value(), static_cast<int>(stranger.identity.process));
}

Rendezvous::Claim Acceptor::judge(Stranger& stranger, Transfer transfer, Packet const& hello) {
    if (transfer == Transfer::Closed) {
        Rendezvous::instance().knocked();
        return Rendezvous::Claim::False;
    }
    if (transfer != Transfer::Done || hello.kind != Packet::Hello ||
        hello.to != receiver_.id().value()) {
        tellNonsense(stranger);
        return Rendezvous::Claim::False;
    }
    return judgeClaim(stranger, TerminationId(hello.from));
}

/** A process may speak only for the terminations that are its own. */
Rendezvous::Claim Acceptor::judgeClaim(Stranger& stranger, TerminationId claimed) {
    pid_t const process = stranger.identity.process;
    Rendezvous::Claim const claim = Rendezvous::instance().claim(claimed, process);
    long long const now = OSWrap::Clock::nowNanoseconds();
    if (claim != Rendezvous::Claim::Unseen)
        stranger.unseenSince = 0;
    else if (stranger.unseenSince == 0)
        stranger.unseenSince = now;
    if (claim == Rendezvous::Claim::True ||
        (claim == Rendezvous::Claim::Unseen && now - stranger.unseenSince < kMostUnseen))
        return claim;
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "termination 0x%08X refused process %d: it is not 0x%08X",
                           receiver_.id().value(), static_cast<int>(process), claimed.value());
    return Rendezvous::Claim::False;
}

/** False when his Hello cannot be taken in now, and stays where it is. */
bool Acceptor::introduce(Stranger& stranger, TerminationId peer) {
    ReceivedPacket hello;
    Transfer const transfer = receivePacket(stranger.socket.get(), hello);
    if (transfer == Transfer::Exhausted || transfer == Transfer::Behind)
        return false;
    if (transfer == Transfer::Garbage)
        tellNonsense(stranger);
    if (transfer != Transfer::Done)
        return true;
    if (!Switchboard::instance().mayConnect(receiver_.id(), peer)) {
        Channel::tellRefused(peer, receiver_.id(), Channel::kTooManyChannels);
        return true;
    }
    std::shared_ptr<Channel> const channel =
        Switchboard::instance().channel(receiver_.shared_from_this(), peer);
    if (channel == nullptr)
        return true;
    auto const answer = [&] { channel->answerHello(std::move(stranger.socket), std::move(hello)); };
    if (!OSWrap::withMemory(answer))
        channel->closeForShortage();
    return true;
}

void Acceptor::serveTimers(long long now) {
    if (acceptAgainAt_ != 0 && acceptAgainAt_ <= now)
        acceptAgainAt_ = receiver_.watch(listening_.get(), 0, Receiver::Source::Listening)
                             ? 0
                             : now + kAcceptPause;
    if (acceptAgainAt_ != 0)
        receiver_.wakeAt(acceptAgainAt_);
    std::vector<std::uint32_t> late;
    std::vector<std::uint32_t> waiting;
    for (auto const& [token, stranger] : strangers_) {
        if (stranger.deadline <= now) {
            late.push_back(token);
            continue;
        }
        receiver_.wakeAt(stranger.deadline);
        if (stranger.hearAgainAt == 0)
            continue;
        if (stranger.hearAgainAt <= now)
            waiting.push_back(token);
        else
            receiver_.wakeAt(stranger.hearAgainAt);
    }
    for (std::uint32_t token : late)
        drop(token);
    for (std::uint32_t token : waiting)
        if (knows(token))  // he may have given way to one before
            hear(token);
}

void Acceptor::close() {
    strangers_.clear();
    listening_.reset();
}

}  // namespace Transport
