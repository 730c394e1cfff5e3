// The class Cpu: what both sides must agree on (class code, method codes), the client class that
// callers use, and the skeleton class that a server object fills in.
//
// Read this file first; Memory.h, NetworkInterface.h, Disk.h and Inventory.h are made alike.
#pragma once

#include <ipprmi.h>

#include "Alarm.h"

namespace cpu {
// Any number that is unique among the classes of a system.
constexpr unsigned int kClass = 0x43505501;
enum Method : unsigned int { kLoad = 1, kAlarm = 2, kSetAlarmLimit = 3 };
}  // namespace cpu

/** A processor, seen by a caller. Made of an identifier: CpuClient(TipprmiOID("...", NSID_UNIT)).
 */
class CpuClient : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;

    /** Percent of the time since the last look in which it was busy. */
    TipprmiResult<unsigned int> load() const {
        return tipprmiCall<unsigned int>(*this, cpu::kClass, cpu::kLoad);
    }
    TipprmiResult<AlarmState> alarm() const {
        return tipprmiCall<AlarmState>(*this, cpu::kClass, cpu::kAlarm);
    }
    /** Refused with kBadLimit above 100. */
    TipprmiResult<void> setAlarmLimit(unsigned int percent) const {
        return tipprmiCall<void>(*this, cpu::kClass, cpu::kSetAlarmLimit, percent);
    }
};

/** A processor, seen by its server object: the calls arrive at the three pure functions. */
class CpuSkeleton : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;

    virtual unsigned int load() = 0;
    virtual AlarmState alarm() = 0;
    virtual TipprmiResult<void> setAlarmLimit(unsigned int percent) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (cc == cpu::kClass) {
            switch (mc) {
                case cpu::kLoad:
                    return serve(cc, mc, in, out, &CpuSkeleton::load);
                case cpu::kAlarm:
                    return serve(cc, mc, in, out, &CpuSkeleton::alarm);
                case cpu::kSetAlarmLimit:
                    return serve(cc, mc, in, out, &CpuSkeleton::setAlarmLimit);
            }
        }
        // The methods that every object has, and the answer to those that none has.
        return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
};
