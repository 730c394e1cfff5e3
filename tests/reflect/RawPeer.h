// A termination that speaks the brokers' wire format by hand, so that tests see and send every
// byte.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "Waiting.h"
#include "ipprmi.h"
#include "reflect.h"
#include "transport.h"

class RawPeer : public Transport::TerminationImpl {
public:
    /** What the peer does with a message on its receiving thread. */
    using Reaction = std::function<void(RawPeer&, TreflectMessage&)>;

    explicit RawPeer(Transport::GroupId group, Reaction reaction = {})
        : TerminationImpl(group, "raw"), reaction_(std::move(reaction)) {
        start();
    }
    ~RawPeer() override { stop(); }

    bool receive(Transport::AddressedMessage const& addressed) override {
        TreflectMessage message(addressed);
        if (reaction_)
            reaction_(*this, message);
        std::lock_guard<std::mutex> const lock(mutex_);
        received_.push_back(message);
        arrived_.notify_all();
        return true;
    }
    bool receiveError(Transport::AddressedMessage const&) override { return true; }
    void appeared(Transport::Termination&) override {}
    void disappeare(Transport::Termination&) override {}

    /** The message number `index` of all that came; an empty one when it does not come. */
    TreflectMessage await(std::size_t index) {
        std::unique_lock<std::mutex> lock(mutex_);
        bool const came = arrived_.wait_for(lock, testsupport::kPatience,
                                            [&] { return received_.size() > index; });
        return came ? received_[index] : TreflectMessage(Transport::AddressedMessage());
    }
    std::size_t count() {
        std::lock_guard<std::mutex> const lock(mutex_);
        return received_.size();
    }

    TreflectMessage make(unsigned int id, TreflectMessage::type_t type,
                         TreflectMessage::kind_t kind, unsigned int payload = 104) {
        TreflectMessage message(allocateMessage(payload + TreflectMessage::kHeaderSize, 5));
        message.transactionId(id);
        message.type(type);
        message.kind(kind);
        return message;
    }
    int send(Transport::TerminationId to, TreflectMessage& message) {
        return Transport::Termination(to).issue(message.addressed());
    }
    /** Answers `request` with what `write` puts into the response. */
    void answer(TreflectMessage const& request, std::function<void(TipprmiStream&)> const& write) {
        TipprmiStream response(
            make(request.transactionId(), request.type(), TreflectMessage::kResponse), true);
        write(response);
        send(request.originator(), response.msg());
    }
    /** A request for a call of an object. */
    void sendCall(Transport::TerminationId to, unsigned int id, unsigned int ioid, bool transaction,
                  unsigned int cc, int mc) {
        TipprmiStream request(make(id, TreflectMessage::tPayload, TreflectMessage::kRequest), true);
        request << ioid << transaction << cc << mc;
        send(to, request.msg());
    }

private:
    Reaction const reaction_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<TreflectMessage> received_;  // guarded by mutex_
};
