// The class Cpu: the skeleton class that a server object fills in, and the client class that
// callers use. What both must agree on, the codes and the meta information, stands in
// MachineClasses.h.
//
// Read this file first, with MachineClasses.h beside it; Part.h, WatchedPart.h, Memory.h,
// NetworkInterface.h, Disk.h and Machine.h are made alike. A class is derived from its bases on
// both sides, and in its meta information.
#pragma once

#include "WatchedPart.h"

/** A processor, seen by its server object: the calls arrive at the pure functions. */
class CpuSkeleton : public TreflectSkeleton<cpuMeta, WatchedPartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual unsigned int getLoad() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case cpu::kGetLoad:
                return serve(cpu::kClass, cc, mc, in, out, &CpuSkeleton::getLoad);
            default:
                // The methods of the bases, those that every object has, and the answer to those
                // that none has.
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

/** A processor, seen by a caller. Made of an identifier: CpuClient(TipprmiOID("...", NSID_UNIT)).
 */
class CpuClient : public WatchedPartClient {
public:
    using WatchedPartClient::WatchedPartClient;

    /** Percent of the time since the last look in which it was busy. */
    TipprmiResult<unsigned int> getLoad() const {
        return treflectCall(*this, cpu::kClass, cpu::kGetLoad, &CpuSkeleton::getLoad);
    }
};
