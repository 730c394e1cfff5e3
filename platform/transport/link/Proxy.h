#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/transport/local/Receiver.h"
#include "platform/transport/local/ReceiverOwner.h"
#include "platform/transport/local/ReceiverPool.h"
#include "platform/transport/local/Visibility.h"
#include "transport/AddressedMessage.h"
#include "transport/TerminationId.h"

namespace Link {

/** What happens at a proxy, on its receiving thread and with no lock of the transport held. */
class ProxyListener {
public:
    /** A local termination has sent something to the one that the proxy stands for; over the
     * channel of this token, or 0: within the process. */
    virtual void forward(Transport::AddressedMessage const& message, std::uint32_t channel,
                         unsigned long session) = 0;
    /** See ReceiverOwner::connectionEnded: of the ring from `from` to the proxy, `to`. */
    virtual std::optional<std::uint32_t> connectionEnded(Transport::TerminationId from,
                                                         Transport::TerminationId to,
                                                         std::uint32_t channel,
                                                         unsigned long session, bool takenBack) = 0;
    /** There is nothing more just now. */
    virtual void forwarded() = 0;
    /** What was issued in the proxy's name has got into the ring of `to`, up to this place. */
    virtual void delivered(Transport::TerminationId from, Transport::TerminationId to,
                           std::uint64_t place) = 0;
    /** See ReceiverOwner::channelBegan and channelCleared: of one with `peer`, a local termination.
     */
    virtual void channelBegan(Transport::TerminationId peer, std::uint32_t channel,
                              unsigned long session) = 0;
    virtual void channelCleared(Transport::TerminationId peer, std::uint32_t channel,
                                unsigned long session) = 0;
    /** It has come back; `leaves`: to a proxy that has been told to take no more. */
    virtual void cameBack(Transport::AddressedMessage const& message, Transport::Reached reached,
                          unsigned long session, bool leaves) = 0;

protected:
    ~ProxyListener() = default;
};

/**
 * Stands in the local folder for a termination of another machine, with its address. A resource of
 * the thread that carries out what its session wants; shown from `listen` to `leave`.
 */
class Proxy final : public Transport::ReceiverOwner {
public:
    Proxy(Transport::TerminationId id, unsigned long session, ProxyListener& listener)
        : id_(id), session_(session), listener_(listener) {}
    ~Proxy();
    Proxy(Proxy const&) = delete;
    Proxy& operator=(Proxy const&) = delete;

    Transport::TerminationId id() const { return id_; }
    /** Takes the address; false, with a log line, on failure. Then publish it and `listen`. */
    bool take(std::string const& names, Transport::Visibility visibility);
    /** With what publishing has answered, on a thread of the pool; false, with a log line, on
     * failure. */
    bool listen(Transport::OpenSocket listening, Transport::ReceiverPool& pool);
    /** What local terminations send from now on stays with them, and is theirs again at the end. */
    void takeNoMore();
    /** From then on: whether all that waited has been let out, or has waited for too long. What
     * goes back to its senders may wait for longest. */
    bool mayLeave() const;
    /** Out of view already: serves nobody any more. What begins that may be called before. */
    void beginToLeave();
    void leave();

    void received(Transport::AddressedMessage const& message) override {
        listener_.forward(message, 0, session_);
    }
    void receivedOver(std::uint32_t channel, Transport::AddressedMessage const& message) override {
        listener_.forward(message, channel, session_);
    }
    std::optional<std::uint32_t> connectionEnded(Transport::TerminationId peer,
                                                 std::uint32_t channel, bool takenBack) override {
        return listener_.connectionEnded(peer, id_, channel, session_, takenBack);
    }
    void cameBack(Transport::AddressedMessage const& message, Transport::Reached reached) override {
        listener_.cameBack(message, reached, session_, receiver_->takesNoMore());
    }
    void batchEnded() override { listener_.forwarded(); }
    void leftQueue(Transport::TerminationId peer, std::uint64_t place) override {
        listener_.delivered(id_, peer, place);
    }
    void channelBegan(Transport::TerminationId peer, std::uint32_t channel) override {
        listener_.channelBegan(peer, channel, session_);
    }
    void channelCleared(Transport::TerminationId peer, std::uint32_t channel) override {
        listener_.channelCleared(peer, channel, session_);
    }
    bool passesOn() const final { return true; }

private:
    Transport::TerminationId const id_;
    unsigned long const session_;  // that it was shown in
    ProxyListener& listener_;
    bool taken_ = false;
    long long endsSince_ = 0;  // when it was told to take no more
    std::shared_ptr<Transport::Receiver> receiver_;
};

}  // namespace Link
