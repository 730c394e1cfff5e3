#include "platform/transport/local/Switchboard.h"

#include "oswrap/Lock.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Rendezvous.h"

namespace Transport {
namespace {

std::uint64_t pairOf(TerminationId own, TerminationId peer) {
    return static_cast<std::uint64_t>(own.value()) << 32 | peer.value();
}

/** Of a channel that may have to know whether its peer exists. */
int sendThrough(Channel& channel, AddressedMessage const& message, Room room) {
    Channel::Sent sent = channel.send(message, false, room);
    if (sent == Channel::Sent::AskPresence && Rendezvous::instance().exists(channel.peer()))
        sent = channel.send(message, true, room);
    return sent == Channel::Sent::Taken ? 1 : 0;
}

}  // namespace

Switchboard& Switchboard::instance() {
    static Switchboard& switchboard = *new Switchboard;
    return switchboard;
}

Switchboard::Switchboard() {
    Rendezvous::instance().goneHook(&Switchboard::onGone);
}

int Switchboard::issue(AddressedMessage const& message, TerminationId destination, Room room) {
    if (message.empty() || inForkedChild())
        return 0;
    std::shared_ptr<Channel> const channel = find(message.originator(), destination);
    return channel != nullptr ? sendThrough(*channel, message, room)
                              : issueSlowly(message, destination, room);
}

int Switchboard::issueSlowly(AddressedMessage const& message, TerminationId destination,
                             Room room) {
    std::shared_ptr<Receiver> const from = receiver(message.originator());
    if (from == nullptr || !from->sending())
        return 0;
    if (std::shared_ptr<Receiver> const to = receiver(destination))
        return to->deliverCopy(message, room);
    if (!Rendezvous::instance().exists(destination))
        return 0;
    std::shared_ptr<Channel> const made = channel(from, destination);
    return made != nullptr ? sendThrough(*made, message, room) : 0;
}

int Switchboard::giveBack(AddressedMessage const& message, TerminationId to) {
    if (message.empty() || inForkedChild())
        return 0;
    std::shared_ptr<Receiver> const originator = receiver(to);
    if (originator == nullptr)
        return 0;
    AddressedMessage copy = copyOf(message);
    return copy.empty() ? 0 : originator->giveBack(std::move(copy));
}

void Switchboard::add(std::shared_ptr<Receiver> receiver) {
    OSWrap::Lock<> lock(mutex_);
    receivers_[receiver->id().value()] = std::move(receiver);
}

std::vector<std::shared_ptr<Channel>> Switchboard::remove(TerminationId id) {
    std::vector<std::shared_ptr<Channel>> channels;
    std::shared_ptr<Receiver> receiver;  // freed after unlocking
    OSWrap::Lock<> lock(mutex_);
    channels.reserve(channels_.size());
    auto const found = receivers_.find(id.value());
    if (found != receivers_.end()) {
        receiver = std::move(found->second);
        receivers_.erase(found);
    }
    for (auto it = channels_.begin(); it != channels_.end();) {
        if (it->first >> 32 != id.value()) {
            ++it;
            continue;
        }
        channels.push_back(std::move(it->second));
        it = channels_.erase(it);
    }
    return channels;
}

std::shared_ptr<Channel> Switchboard::channel(std::shared_ptr<Receiver> const& receiver,
                                              TerminationId peer) {
    OSWrap::Lock<> lock(mutex_);
    if (receivers_.count(peer.value()) != 0 || receivers_.count(receiver->id().value()) == 0 ||
        !receiver->sending())
        return nullptr;
    std::uint64_t const pair = pairOf(receiver->id(), peer);
    if (auto const found = channels_.find(pair); found != channels_.end())
        return found->second;
    return channels_.emplace(pair, std::make_shared<Channel>(receiver, peer)).first->second;
}

std::shared_ptr<Channel> Switchboard::find(TerminationId own, TerminationId peer) {
    OSWrap::Lock<> lock(mutex_);
    auto const found = channels_.find(pairOf(own, peer));
    return found != channels_.end() ? found->second : nullptr;
}

void Switchboard::remove(Channel& channel, TerminationId own) {
    std::shared_ptr<Channel> removed;  // freed after unlocking
    OSWrap::Lock<> lock(mutex_);
    auto const found = channels_.find(pairOf(own, channel.peer()));
    if (found != channels_.end() && found->second.get() == &channel) {
        removed = std::move(found->second);
        channels_.erase(found);
    }
}

std::shared_ptr<Receiver> Switchboard::receiver(TerminationId id) {
    OSWrap::Lock<> lock(mutex_);
    auto const found = receivers_.find(id.value());
    return found != receivers_.end() ? found->second : nullptr;
}

void Switchboard::onGone(TerminationId id) {
    Switchboard& self = instance();
    if (std::shared_ptr<Receiver> const own = self.receiver(id))
        own->refuseReceiving();
    while (std::shared_ptr<Channel> const channel = self.takeChannelTo(id))
        channel->peerGone();
}

/** One after the other, since a list of them could run out of memory. */
std::shared_ptr<Channel> Switchboard::takeChannelTo(TerminationId peer) {
    OSWrap::Lock<> lock(mutex_);
    for (auto it = channels_.begin(); it != channels_.end(); ++it) {
        if (static_cast<std::uint32_t>(it->first) != peer.value())
            continue;
        std::shared_ptr<Channel> channel = std::move(it->second);
        channels_.erase(it);
        return channel;
    }
    return nullptr;
}

}  // namespace Transport
