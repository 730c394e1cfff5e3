// The class that the remote call tests and their child program share.
#pragma once

#include <string>

#include "ipprmi.h"

namespace peer {

constexpr unsigned int kClass = 0xBEE4;
enum Method : unsigned int { kJoin = 1, kRefuse = 2, kCount = 3, kCounted = 4, kCallBack = 5 };

inline TipprmiOID id() {
    return TipprmiOID("peer.object", NSID_UNIT);
}
/** An object whose answer to "set the exception container" breaks off. */
inline TipprmiOID truncatingId() {
    return TipprmiOID("peer.truncating", NSID_UNIT);
}

class Server : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case kJoin:
                return serve(cc, mc, in, out, &Server::join);
            case kRefuse:
                return serve(cc, mc, in, out, &Server::refuse);
            case kCount:
                return serve(cc, mc, in, out, &Server::count);
            case kCounted:
                return serve(cc, mc, in, out, &Server::counted);
            case kCallBack:
                return serve(cc, mc, in, out, &Server::callBack);
            default:
                return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }

    std::string join(std::string const& text, unsigned int number) const {
        return text + std::to_string(number);
    }
    TipprmiResult<void> refuse(unsigned int code) { return TipprmiFailure(code); }
    void count() { ++counted_; }
    unsigned int counted() const { return counted_; }
    /** Has an object of the caller join. */
    TipprmiResult<std::string> callBack(TipprmiObjectClient const& object) {
        return tipprmiCall<std::string>(object, kClass, kJoin, "back", 1u);
    }

private:
    unsigned int counted_ = 0;
};

class TruncatingServer : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
    bool dispatch(bool, unsigned int, unsigned int, TipprmiStream&, TipprmiStream& out) override {
        out << true;
        return true;
    }
};

}  // namespace peer
