// The class Memory: the machine's main memory.
#pragma once

#include "ByteCount.h"
#include "WatchedPart.h"

class MemorySkeleton : public WatchedPartSkeleton {
public:
    using WatchedPartSkeleton::WatchedPartSkeleton;

    virtual ByteCount getTotal() = 0;
    virtual ByteCount getFree() = 0;

    unsigned int getServerClassId() const override { return memory::kClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return memoryMeta.classIds();
    }

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case memory::kGetTotal:
                return serve(memory::kClass, cc, mc, in, out, &MemorySkeleton::getTotal);
            case memory::kGetFree:
                return serve(memory::kClass, cc, mc, in, out, &MemorySkeleton::getFree);
            default:
                return WatchedPartSkeleton::dispatch(withResponse, cc, mc, in, out);
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
