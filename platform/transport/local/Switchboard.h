#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "oswrap/Mutex.h"
#include "platform/transport/MessageChain.h"
#include "platform/transport/local/Rendezvous.h"
#include "transport/AddressedMessage.h"
#include "transport/TerminationId.h"

namespace Transport {

class Channel;
class PeerShare;
class Receiver;

/** Finds the way of a message: the started terminations of this process and their channels. One per
 * process, never destroyed. Any thread. */
class Switchboard {
public:
    static Switchboard& instance();

    /** Sends `message` in the name of its originator; 1 when taken, else 0. */
    int issue(AddressedMessage const& message, TerminationId destination, Room room = Room::Usual) {
        return issue(message, destination, room, nullptr, nullptr);
    }
    /** The same; `place` becomes 0 when the message has gone where its receiver takes it from, else
     * its place among those that wait for this receiver: they grow. See ReceiverOwner::leftQueue,
     * which may be called before this returns. */
    int issue(AddressedMessage const& message, TerminationId destination, Room room,
              std::uint64_t& place) {
        place = 0;
        return issue(message, destination, room, &place, nullptr);
    }
    /** The same; somebody will wait for an answer: he is counted in the channel that is put there,
     * if there is one. */
    int issue(AddressedMessage const& message, TerminationId destination,
              std::shared_ptr<Channel>& waiter) {
        return issue(message, destination, Room::Usual, nullptr, &waiter);
    }
    /** Has a termination of this process get a copy of `message` through receiveError; 1 when
     * taken, else 0. */
    int giveBack(AddressedMessage const& message, TerminationId to);

    /** Has the termination message.originator() get a copy of a message through receiveError, for
     * good, which it has sent to one of this process, message.destination(): in order with what
     * that one sends, or, within a process, before it. 1 when taken, else 0: it has gone, too much
     * waits for it, or the termination here sends no more. */
    int sendBack(AddressedMessage const& message);

    void add(std::shared_ptr<Receiver> receiver);
    /** Of a started termination of this process; null when there is none. */
    std::shared_ptr<Receiver> receiver(TerminationId id);
    /** Forgets a termination of this process; answers the channels that it had. */
    std::vector<std::shared_ptr<Channel>> remove(TerminationId id);
    /** The channel of `receiver` to `peer`, made when there is none; null when the termination
     * sends no more, or when the peer is one of this process. */
    std::shared_ptr<Channel> channel(std::shared_ptr<Receiver> const& receiver, TerminationId peer);
    /** Whether they have a channel, or the peer's process may have one more: nothing is kept of
     * those for whom there is no room. */
    bool mayConnect(TerminationId own, TerminationId peer);
    /** The channel of a termination of this process to `peer`; null when there is none. */
    std::shared_ptr<Channel> find(TerminationId own, TerminationId peer);
    /** Forgets one channel. */
    void remove(Channel& channel, TerminationId own);

private:
    Switchboard();

    static void onGone(TerminationId id, Rendezvous::Whose whose);
    std::shared_ptr<Channel> takeChannelTo(TerminationId peer);
    int issue(AddressedMessage const& message, TerminationId destination, Room room,
              std::uint64_t* place, std::shared_ptr<Channel>* waiter);
    std::shared_ptr<Channel> makeChannel(AddressedMessage const& message, TerminationId destination,
                                         Room room, int& delivered);
    std::shared_ptr<PeerShare> shareOf(int process) OSW_REQUIRES(mutex_);
    using Channels = std::unordered_map<std::uint64_t, std::shared_ptr<Channel>>;
    std::shared_ptr<Channel> take(Channels::iterator entry) OSW_REQUIRES(mutex_);

    OSWrap::Mutex mutex_;  // nothing of the transport is locked under it
    std::unordered_map<std::uint32_t, std::shared_ptr<Receiver>> receivers_ OSW_GUARDED_BY(mutex_);
    // By pairs of own id (high half) and peer's id.
    Channels channels_ OSW_GUARDED_BY(mutex_);
    // The same pairs the other way round, so that a departure finds its own among many.
    std::set<std::uint64_t> byPeer_ OSW_GUARDED_BY(mutex_);
    // By process id, as long as there are channels to it.
    std::unordered_map<int, std::weak_ptr<PeerShare>> shares_ OSW_GUARDED_BY(mutex_);
    std::size_t manyShares_ OSW_GUARDED_BY(mutex_) = 64;  // so many, before unused ones go
};

}  // namespace Transport
