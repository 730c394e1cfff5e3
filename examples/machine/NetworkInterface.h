// The class NetworkInterface.
#pragma once

#include <ipprmi.h>

#include "ByteCount.h"

namespace network {
constexpr unsigned int kClass = 0x4E455401;
enum Method : unsigned int { kReceivedBytes = 1, kSentBytes = 2 };
}  // namespace network

class NetworkInterfaceClient : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;

    /** Since the interface came up. */
    TipprmiResult<ByteCount> receivedBytes() const {
        return tipprmiCall<ByteCount>(*this, network::kClass, network::kReceivedBytes);
    }
    TipprmiResult<ByteCount> sentBytes() const {
        return tipprmiCall<ByteCount>(*this, network::kClass, network::kSentBytes);
    }
};

class NetworkInterfaceSkeleton : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;

    virtual ByteCount receivedBytes() = 0;
    virtual ByteCount sentBytes() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (cc == network::kClass) {
            switch (mc) {
                case network::kReceivedBytes:
                    return serve(cc, mc, in, out, &NetworkInterfaceSkeleton::receivedBytes);
                case network::kSentBytes:
                    return serve(cc, mc, in, out, &NetworkInterfaceSkeleton::sentBytes);
            }
        }
        return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
};
