// The class NetworkInterface: a network interface.
#pragma once

#include "ByteCount.h"
#include "Part.h"

class NetworkInterfaceSkeleton : public TreflectSkeleton<networkInterfaceMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual ByteCount getReceivedBytes() = 0;
    virtual ByteCount getSentBytes() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case network::kGetReceivedBytes:
                return serve(network::kClass, cc, mc, in, out,
                             &NetworkInterfaceSkeleton::getReceivedBytes);
            case network::kGetSentBytes:
                return serve(network::kClass, cc, mc, in, out,
                             &NetworkInterfaceSkeleton::getSentBytes);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class NetworkInterfaceClient : public PartClient {
public:
    using PartClient::PartClient;

    /** Since the interface came up. */
    TipprmiResult<ByteCount> getReceivedBytes() const {
        return treflectCall(*this, network::kClass, network::kGetReceivedBytes,
                            &NetworkInterfaceSkeleton::getReceivedBytes);
    }
    TipprmiResult<ByteCount> getSentBytes() const {
        return treflectCall(*this, network::kClass, network::kGetSentBytes,
                            &NetworkInterfaceSkeleton::getSentBytes);
    }
};
