#include "platform/transport/local/Switchboard.h"

#include <algorithm>
#include <iterator>

#include "oswrap/Lock.h"
#include "platform/transport/local/Channel.h"
#include "platform/transport/local/Fork.h"
#include "platform/transport/local/PeerShare.h"
#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/Rendezvous.h"

namespace Transport {
namespace {

std::uint64_t pairOf(TerminationId own, TerminationId peer) {
    return static_cast<std::uint64_t>(own.value()) << 32 | peer.value();
}

std::uint64_t turned(std::uint64_t pair) {
    return pair << 32 | pair >> 32;
}

/** Of a channel that may have to know whether its peer exists. */
Channel::Sent sendThrough(Channel& channel, AddressedMessage const& message, Room room,
                          std::uint64_t* place) {
    Channel::Sent sent = channel.send(message, false, room, place);
    if (sent == Channel::Sent::AskPresence && Rendezvous::instance().exists(channel.peer()))
        sent = channel.send(message, true, room, place);
    if (sent == Channel::Sent::AskPresence || sent == Channel::Sent::Refused)
        channel.mayBeUnused();
    return sent;
}

}  // namespace

Switchboard& Switchboard::instance() {
    static Switchboard& switchboard = *new Switchboard;
    return switchboard;
}

Switchboard::Switchboard() {
    Rendezvous::instance().goneHook(&Switchboard::onGone);
}

int Switchboard::issue(AddressedMessage const& message, TerminationId destination, Room room,
                       std::uint64_t* place, std::shared_ptr<Channel>* waiter) {
    if (message.empty() || inForkedChild())
        return 0;
    for (;;) {
        int delivered = 0;
        std::shared_ptr<Channel> channel = find(message.originator(), destination);
        if (channel == nullptr)
            channel = makeChannel(message, destination, room, delivered);
        if (channel == nullptr)
            return delivered;
        Channel& way = *channel;
        if (waiter != nullptr) {
            way.joinWaiters();
            *waiter = std::move(channel);
        }
        Channel::Sent const sent = sendThrough(way, message, room, place);
        if (sent != Channel::Sent::Retired)
            return sent == Channel::Sent::Taken ? 1 : 0;
        if (waiter != nullptr) {
            channel = std::move(*waiter);
            channel->leaveWaiters();
        }
        remove(way, message.originator());
    }
}

/** Null when the termination is one of this process, which has the message then if `delivered`, or
 * when there is none. */
std::shared_ptr<Channel> Switchboard::makeChannel(AddressedMessage const& message,
                                                  TerminationId destination, Room room,
                                                  int& delivered) {
    std::shared_ptr<Receiver> const from = receiver(message.originator());
    if (from == nullptr || !from->sending())
        return nullptr;
    if (std::shared_ptr<Receiver> const to = receiver(destination)) {
        delivered = to->deliverCopy(message, room);
        return nullptr;
    }
    return Rendezvous::instance().exists(destination) ? channel(from, destination) : nullptr;
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

int Switchboard::sendBack(AddressedMessage const& message) {
    if (message.empty() || inForkedChild() || !Rendezvous::instance().exists(message.originator()))
        return 0;
    std::shared_ptr<Receiver> const from = receiver(message.destination());
    if (from == nullptr || !from->sending())
        return 0;
    if (std::shared_ptr<Receiver> const originator = receiver(message.originator())) {
        AddressedMessage copy = copyOf(message);
        if (copy.empty())
            return 0;
        noteSentAgain(copy);  // as one that a channel brings back: for good
        MessageChain::mark(copy, MessageMark::ReachedRing);
        return originator->giveBack(std::move(copy));
    }
    for (;;) {
        std::shared_ptr<Channel> const way = channel(from, message.originator());
        if (way == nullptr)
            return 0;
        Channel::Sent const sent = way->sendBack(message);
        if (sent == Channel::Sent::Refused)
            way->mayBeUnused();
        if (sent != Channel::Sent::Retired)
            return sent == Channel::Sent::Taken ? 1 : 0;
        remove(*way, from->id());
    }
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
        auto const taken = it++;
        channels.push_back(take(taken));
    }
    return channels;
}

std::shared_ptr<Channel> Switchboard::take(Channels::iterator entry) {
    std::shared_ptr<Channel> channel = std::move(entry->second);
    byPeer_.erase(turned(entry->first));
    channels_.erase(entry);
    return channel;
}

std::shared_ptr<Channel> Switchboard::channel(std::shared_ptr<Receiver> const& receiver,
                                              TerminationId peer) {
    int const process = Rendezvous::instance().ownerOf(peer).process;
    OSWrap::Lock<> lock(mutex_);
    if (receivers_.count(peer.value()) != 0 || receivers_.count(receiver->id().value()) == 0 ||
        !receiver->sending())
        return nullptr;
    std::uint64_t const pair = pairOf(receiver->id(), peer);
    if (auto const found = channels_.find(pair); found != channels_.end())
        return found->second;
    auto made = std::make_shared<Channel>(receiver, peer, shareOf(process));
    auto const filed = byPeer_.insert(turned(pair)).first;
    try {
        return channels_.emplace(pair, std::move(made)).first->second;
    } catch (...) {
        byPeer_.erase(filed);
        throw;
    }
}

bool Switchboard::mayConnect(TerminationId own, TerminationId peer) {
    int const process = Rendezvous::instance().ownerOf(peer).process;
    OSWrap::Lock<> lock(mutex_);
    return channels_.count(pairOf(own, peer)) != 0 ||
           PeerShare::Reservation(PeerShare::Kind::Channels, shareOf(process)).grow(1);
}

/** Each process that stays costs one look for each that comes. */
std::shared_ptr<PeerShare> Switchboard::shareOf(int process) {
    if (auto const found = shares_.find(process); found != shares_.end())
        if (std::shared_ptr<PeerShare> share = found->second.lock())
            return share;
    if (shares_.size() >= manyShares_) {
        for (auto it = shares_.begin(); it != shares_.end();)
            it = it->second.expired() ? shares_.erase(it) : std::next(it);
        manyShares_ = std::max<std::size_t>(64, 2 * shares_.size());
    }
    auto made = std::make_shared<PeerShare>();
    shares_[process] = made;
    return made;
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
    if (found != channels_.end() && found->second.get() == &channel)
        removed = take(found);
}

std::shared_ptr<Receiver> Switchboard::receiver(TerminationId id) {
    OSWrap::Lock<> lock(mutex_);
    auto const found = receivers_.find(id.value());
    return found != receivers_.end() ? found->second : nullptr;
}

/** A receiver of ours that has the id of one of others takes its place. */
void Switchboard::onGone(TerminationId id, Rendezvous::Whose whose) {
    Switchboard& self = instance();
    if (whose == Rendezvous::Whose::Own)
        if (std::shared_ptr<Receiver> const own = self.receiver(id))
            own->refuseReceiving();
    while (std::shared_ptr<Channel> const channel = self.takeChannelTo(id))
        channel->peerGone();
}

/** One after the other, since a list of them could run out of memory. */
std::shared_ptr<Channel> Switchboard::takeChannelTo(TerminationId peer) {
    OSWrap::Lock<> lock(mutex_);
    auto const first = byPeer_.lower_bound(pairOf(peer, TerminationId()));
    if (first == byPeer_.end() || *first >> 32 != peer.value())
        return nullptr;
    return take(channels_.find(turned(*first)));
}

}  // namespace Transport
