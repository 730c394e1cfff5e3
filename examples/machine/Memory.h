// The class Memory: the machine's main memory.
#pragma once

#include <ipprmi.h>

#include "Alarm.h"
#include "ByteCount.h"

namespace memory {
constexpr unsigned int kClass = 0x4D454D01;
enum Method : unsigned int { kTotal = 1, kFree = 2, kAlarm = 3, kSetAlarmLimit = 4 };
}  // namespace memory

class MemoryClient : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;

    TipprmiResult<ByteCount> total() const {
        return tipprmiCall<ByteCount>(*this, memory::kClass, memory::kTotal);
    }
    /** What programs can still have, caches that would give way included. */
    TipprmiResult<ByteCount> free() const {
        return tipprmiCall<ByteCount>(*this, memory::kClass, memory::kFree);
    }
    TipprmiResult<AlarmState> alarm() const {
        return tipprmiCall<AlarmState>(*this, memory::kClass, memory::kAlarm);
    }
    /** Percent in use; refused with kBadLimit above 100. */
    TipprmiResult<void> setAlarmLimit(unsigned int percent) const {
        return tipprmiCall<void>(*this, memory::kClass, memory::kSetAlarmLimit, percent);
    }
};

class MemorySkeleton : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;

    virtual ByteCount total() = 0;
    virtual ByteCount free() = 0;
    virtual AlarmState alarm() = 0;
    virtual TipprmiResult<void> setAlarmLimit(unsigned int percent) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (cc == memory::kClass) {
            switch (mc) {
                case memory::kTotal:
                    return serve(cc, mc, in, out, &MemorySkeleton::total);
                case memory::kFree:
                    return serve(cc, mc, in, out, &MemorySkeleton::free);
                case memory::kAlarm:
                    return serve(cc, mc, in, out, &MemorySkeleton::alarm);
                case memory::kSetAlarmLimit:
                    return serve(cc, mc, in, out, &MemorySkeleton::setAlarmLimit);
            }
        }
        return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
};
