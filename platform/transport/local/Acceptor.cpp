#include "platform/transport/local/Acceptor.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <vector>

#include "logging/Log.h"
#include "oswrap/Clock.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Rendezvous.h"
#include "platform/transport/local/Switchboard.h"

namespace Transport {
namespace {

constexpr char const* kSource = "Acceptor";
constexpr int kAcceptsAtOnce = 16;
constexpr std::size_t kMostStrangers = 64;
constexpr long long kAcceptPause = 100'000'000;  // nanoseconds

std::atomic<long long> introductionLimitNow{10'000'000'000};

}  // namespace

void Acceptor::introductionLimit(long long nanoseconds) {
    introductionLimitNow.store(nanoseconds);
}

bool Acceptor::listen(Descriptor listening) {
    listening_ = std::move(listening);
    return receiver_.watch(listening_.get(), 0, Receiver::Source::Listening);
}

void Acceptor::accept() {
    for (int count = 0; count < kAcceptsAtOnce; ++count) {
        Descriptor socket(
            ::accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket.valid()) {
            receive(std::move(socket));
            continue;
        }
        bool const exhausted = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
        if (exhausted && !raiseDescriptorLimit())
            pause();
        if (!exhausted && errno != ECONNABORTED && errno != EINTR)
            return;
    }
}

/** There is no descriptor to be had now: those who connect wait a little. */
void Acceptor::pause() {
    if (!accepting_)
        return;
    REFLECTORB_LOG(3, kSource, "termination 0x%08X has no descriptor left to accept a connection",
                   receiver_.id().value());
    receiver_.unwatch(listening_.get());
    accepting_ = false;
    receiver_.wakeAt(OSWrap::Clock::nowNanoseconds() + kAcceptPause);
}

void Acceptor::receive(Descriptor socket) {
    PeerIdentity identity{};
    if (!peerIdentity(socket.get(), identity) || identity.user != ::geteuid()) {
        REFLECTORB_LOG(3, kSource, "termination 0x%08X refused process %d of user %u",
                       receiver_.id().value(), static_cast<int>(identity.process),
                       static_cast<unsigned>(identity.user));
        return;
    }
    if (strangers_.size() >= kMostStrangers)
        drop(strangers_.begin()->first);
    std::uint32_t const token = Receiver::newToken();
    if (!receiver_.watch(socket.get(), token, Receiver::Source::Socket))
        return;
    long long const deadline = OSWrap::Clock::nowNanoseconds() + introductionLimitNow.load();
    strangers_.emplace(token, Stranger{std::move(socket), identity, deadline});
    receiver_.wakeAt(deadline);
    hear(token);
}

void Acceptor::drop(std::uint32_t token) {
    auto const found = strangers_.find(token);
    REFLECTORB_LOG(4, kSource, "termination 0x%08X dropped process %d: it never said Hello",
                   receiver_.id().value(), static_cast<int>(found->second.identity.process));
    receiver_.unwatch(found->second.socket.get());
    strangers_.erase(found);
}

void Acceptor::hear(std::uint32_t token) {
    auto const found = strangers_.find(token);
    ReceivedPacket received{};
    Transfer const transfer = receivePacket(found->second.socket.get(), received);
    if (transfer == Transfer::Later)
        return;
    Stranger stranger = std::move(found->second);
    strangers_.erase(found);
    receiver_.unwatch(stranger.socket.get());
    if (transfer == Transfer::Done && received.packet.kind == Packet::Hello &&
        received.packet.to == receiver_.id().value()) {
        introduce(std::move(stranger), std::move(received));
        return;
    }
    if (transfer != Transfer::Closed)
        REFLECTORB_LOG(3, kSource, "termination 0x%08X dropped process %d: it sent nonsense",
                       receiver_.id().value(), static_cast<int>(stranger.identity.process));
}

/** A process may speak only for the terminations that are its own. */
void Acceptor::introduce(Stranger stranger, ReceivedPacket hello) {
    TerminationId const peer(hello.packet.from);
    if (!Rendezvous::instance().ownedBy(peer, stranger.identity.process)) {
        REFLECTORB_LOG(3, kSource, "termination 0x%08X refused process %d: it is not 0x%08X",
                       receiver_.id().value(), static_cast<int>(stranger.identity.process),
                       peer.value());
        return;
    }
    std::shared_ptr<Channel> const channel =
        Switchboard::instance().channel(receiver_.shared_from_this(), peer);
    if (channel != nullptr)
        channel->answerHello(std::move(stranger.socket), std::move(hello));
}

void Acceptor::serveTimers(long long now) {
    if (!accepting_ && receiver_.watch(listening_.get(), 0, Receiver::Source::Listening))
        accepting_ = true;
    std::vector<std::uint32_t> late;
    for (auto const& [token, stranger] : strangers_) {
        if (stranger.deadline <= now)
            late.push_back(token);
        else
            receiver_.wakeAt(stranger.deadline);
    }
    for (std::uint32_t token : late)
        drop(token);
}

void Acceptor::close() {
    strangers_.clear();
    listening_.reset();
}

}  // namespace Transport
