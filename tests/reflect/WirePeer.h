// Helpers for tests in which a RawPeer plays the process of an object, or of a caller.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "../ipprmi/WireBytes.h"
#include "RawPeer.h"

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

/** The data of a message. */
inline std::string data(TreflectMessage const& message) {
    return message.empty() ? "nothing came" : hex(TipprmiStream(message, false));
}
inline void write(TipprmiStream& stream, std::string const& digits) {
    for (unsigned char const byte : bytes(digits))
        stream.marshall(&byte, 1);
}

constexpr char kEmptyContainer[] = "0000000000000000";
constexpr char kNotServed[] = "000000010000000400000000";

/** Answers calls with an empty container, but for those of `held`. */
inline RawPeer::Reaction answeringAllBut(std::vector<unsigned int> const& held) {
    return [held](RawPeer& self, TreflectMessage& message) {
        unsigned int const mc = callOf(message).mc;
        if (mc != 0xFFFFFFFF && std::find(held.begin(), held.end(), mc) == held.end())
            self.answer(message, [](TipprmiStream& s) { write(s, kEmptyContainer); });
    };
}
inline void answer(RawPeer& peer, TreflectMessage const& request, std::string const& digits) {
    peer.answer(request, [&](TipprmiStream& s) { write(s, digits); });
}
/** Calls a standard method, or any other. */
inline void call(RawPeer& peer, Transport::TerminationId broker, unsigned int id, unsigned int ioid,
                 unsigned int cc, unsigned int mc, std::string const& arguments = "") {
    TipprmiStream request(peer.make(id, TreflectMessage::tPayload, TreflectMessage::kRequest),
                          true);
    request << ioid << true << cc << mc;
    write(request, arguments);
    peer.send(broker, request.msg());
}

/** A handle on an object of another broker, as it is encoded. */
inline std::string handle(unsigned int ioid, TreflectOrbId orb) {
    return handle("", ioid, orb.value());
}
/** The same for one that has a name only. */
inline std::string handle(std::string const& name) {
    return handle(name, 0, 0);
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
