// A termination that speaks the brokers' wire format by hand, so that tests see and send every
// byte: it plays the process of an object, or of a caller.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Waiting.h"
#include "WireText.h"
#include "ipprmi.h"
#include "reflect.h"
#include "transport.h"

class RawPeer : public Transport::TerminationImpl {
public:
    /** What the peer does with a message on its receiving thread. Who gets its answer finds the
     * message among those that came. */
    using Reaction = std::function<void(RawPeer&, TreflectMessage&)>;

    explicit RawPeer(Transport::GroupId group, Reaction reaction = {})
        : TerminationImpl(group, "raw"), reaction_(std::move(reaction)) {
        start();
    }
    ~RawPeer() override { stop(); }

    bool receive(Transport::AddressedMessage const& addressed) override {
        TreflectMessage message(addressed);
        keep(message);
        if (reaction_)
            reaction_(*this, message);
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

    /** What has come so far is not kept any longer. */
    void forget() {
        std::lock_guard<std::mutex> const lock(mutex_);
        received_.clear();
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
    /** A whole message, header included, as digits. */
    int send(Transport::TerminationId to, std::string const& digits) {
        auto const raw = wire::bytes(digits);
        Transport::AddressedMessage message = allocateMessage(raw.size(), 5);
        std::copy(raw.begin(), raw.end(), message.buf());
        return Transport::Termination(to).issue(message);
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
                  unsigned int cc, int mc, std::string const& arguments = "") {
        TipprmiStream request(make(id, TreflectMessage::tPayload, TreflectMessage::kRequest), true);
        request << ioid << transaction << cc << mc;
        wire::write(request, arguments);
        send(to, request.msg());
    }

private:
    void keep(TreflectMessage const& message) {
        std::lock_guard<std::mutex> const lock(mutex_);
        received_.push_back(message);
        arrived_.notify_all();
    }

    Reaction const reaction_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<TreflectMessage> received_;  // guarded by mutex_
};

namespace wire {

/** The head of a call. */
struct Call {
    unsigned int ioid = 0;
    bool transaction = false;
    unsigned int cc = 0;
    unsigned int mc = 0;
};

inline Call callOf(TreflectMessage const& message) {
    Call call;
    if (message.type() != TreflectMessage::tPayload || message.kind() != TreflectMessage::kRequest)
        return {0, false, 0, 0xFFFFFFFF};
    TipprmiStream stream(message, false);
    stream >> call.ioid >> call.transaction >> call.cc >> call.mc;
    return call;
}

/** The first message that fits; an empty one when it does not come. */
template <class Fits>
TreflectMessage awaitWhere(RawPeer& peer, Fits const& fits) {
    for (std::size_t i = 0;; ++i) {
        TreflectMessage const message = peer.await(i);
        if (message.empty() || fits(message))
            return message;
    }
}
inline TreflectMessage awaitCall(RawPeer& peer, unsigned int mc) {
    return awaitWhere(peer, [mc](TreflectMessage const& m) { return callOf(m).mc == mc; });
}
inline TreflectMessage awaitSearch(RawPeer& peer) {
    return awaitWhere(
        peer, [](TreflectMessage const& m) { return m.type() == TreflectMessage::tResolve; });
}
inline TreflectMessage awaitResponse(RawPeer& peer, unsigned int id) {
    return awaitWhere(peer, [id](TreflectMessage const& m) {
        return m.kind() == TreflectMessage::kResponse && m.transactionId() == id;
    });
}

/** Data with its length in front: what follows the header of a message. */
inline std::string stream(std::string const& digits) {
    return number(static_cast<unsigned int>(bytes(digits).size())) + digits;
}
/** A whole message, header and data; what is behind the data is of no account. */
inline std::string whole(TreflectMessage& message) {
    Transport::AddressedMessage const& raw = message.addressed();
    std::size_t const used =
        raw.size() < 16 ? raw.size() : 16 + std::stoul(hex(raw.buf() + 12, 4), nullptr, 16);
    return message.empty()     ? "nothing came"
           : used > raw.size() ? "claims more than came"
                               : spaced(hex(raw.buf(), used));
}

constexpr char kEmptyContainer[] = "0000000000000000";
constexpr char kNotServed[] = "000000010000000400000000";

inline void answer(RawPeer& peer, TreflectMessage const& request, std::string const& digits) {
    peer.answer(request, [&](TipprmiStream& s) { write(s, digits); });
}
/** Answers calls with an empty container, but for those of `held`. */
inline RawPeer::Reaction answeringAllBut(std::vector<unsigned int> const& held) {
    return [held](RawPeer& self, TreflectMessage& message) {
        unsigned int const mc = callOf(message).mc;
        if (mc != 0xFFFFFFFF && std::find(held.begin(), held.end(), mc) == held.end())
            answer(self, message, kEmptyContainer);
    };
}

/** A handle as it comes out of its encoding. Under the run permission. */
template <class Handle = TreflectObject>
Handle handleFrom(std::string const& digits) {
    TipprmiStream stream(100);
    write(stream, digits);
    Handle result;
    stream >> result;
    return result;
}

}  // namespace wire
