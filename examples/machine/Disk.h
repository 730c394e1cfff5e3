// The class Disk: a mounted file system.
#pragma once

#include "ByteCount.h"
#include "WatchedPart.h"

class DiskSkeleton : public TreflectSkeleton<diskMeta, WatchedPartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual ByteCount getTotal() = 0;
    virtual ByteCount getFree() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case disk::kGetTotal:
                return serve(disk::kClass, cc, mc, in, out, &DiskSkeleton::getTotal);
            case disk::kGetFree:
                return serve(disk::kClass, cc, mc, in, out, &DiskSkeleton::getFree);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class DiskClient : public WatchedPartClient {
public:
    using WatchedPartClient::WatchedPartClient;

    TipprmiResult<ByteCount> getTotal() const {
        return treflectCall(*this, disk::kClass, disk::kGetTotal, &DiskSkeleton::getTotal);
    }
    TipprmiResult<ByteCount> getFree() const {
        return treflectCall(*this, disk::kClass, disk::kGetFree, &DiskSkeleton::getFree);
    }
};
