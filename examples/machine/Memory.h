// The class Memory: the machine's main memory.
#pragma once

#include "ByteCount.h"
#include "WatchedPart.h"

class MemorySkeleton : public TreflectSkeleton<memoryMeta, WatchedPartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual ByteCount getTotal() = 0;
    virtual ByteCount getFree() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case memory::kGetTotal:
                return serve(memory::kClass, cc, mc, in, out, &MemorySkeleton::getTotal);
            case memory::kGetFree:
                return serve(memory::kClass, cc, mc, in, out, &MemorySkeleton::getFree);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class MemoryClient : public WatchedPartClient {
public:
    using WatchedPartClient::WatchedPartClient;

    TipprmiResult<ByteCount> getTotal() const {
        return treflectCall(*this, memory::kClass, memory::kGetTotal, &MemorySkeleton::getTotal);
    }
    /** What programs can still have, caches that would give way included. */
    TipprmiResult<ByteCount> getFree() const {
        return treflectCall(*this, memory::kClass, memory::kGetFree, &MemorySkeleton::getFree);
    }
};
