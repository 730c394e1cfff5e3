// The class Disk: a mounted file system.
#pragma once

#include <ipprmi.h>

#include "Alarm.h"
#include "ByteCount.h"

namespace disk {
constexpr unsigned int kClass = 0x44534B01;
enum Method : unsigned int { kSize = 1, kFree = 2, kAlarm = 3, kSetAlarmLimit = 4 };
}  // namespace disk

class DiskClient : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;

    TipprmiResult<ByteCount> size() const {
        return tipprmiCall<ByteCount>(*this, disk::kClass, disk::kSize);
    }
    TipprmiResult<ByteCount> free() const {
        return tipprmiCall<ByteCount>(*this, disk::kClass, disk::kFree);
    }
    TipprmiResult<AlarmState> alarm() const {
        return tipprmiCall<AlarmState>(*this, disk::kClass, disk::kAlarm);
    }
    /** Percent in use; refused with kBadLimit above 100. */
    TipprmiResult<void> setAlarmLimit(unsigned int percent) const {
        return tipprmiCall<void>(*this, disk::kClass, disk::kSetAlarmLimit, percent);
    }
};

class DiskSkeleton : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;

    virtual ByteCount size() = 0;
    virtual ByteCount free() = 0;
    virtual AlarmState alarm() = 0;
    virtual TipprmiResult<void> setAlarmLimit(unsigned int percent) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (cc == disk::kClass) {
            switch (mc) {
                case disk::kSize:
                    return serve(cc, mc, in, out, &DiskSkeleton::size);
                case disk::kFree:
                    return serve(cc, mc, in, out, &DiskSkeleton::free);
                case disk::kAlarm:
                    return serve(cc, mc, in, out, &DiskSkeleton::alarm);
                case disk::kSetAlarmLimit:
                    return serve(cc, mc, in, out, &DiskSkeleton::setAlarmLimit);
            }
        }
        return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
};
