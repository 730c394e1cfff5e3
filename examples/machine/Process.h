// The class Process: a process that the machine watches.
#pragma once

#include "ByteCount.h"
#include "Part.h"

class ProcessSkeleton : public TreflectSkeleton<processMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual unsigned int getPid() = 0;
    virtual ByteCount getResident() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case process::kGetPid:
                return serve(process::kClass, cc, mc, in, out, &ProcessSkeleton::getPid);
            case process::kGetResident:
                return serve(process::kClass, cc, mc, in, out, &ProcessSkeleton::getResident);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class ProcessClient : public PartClient {
public:
    using PartClient::PartClient;

    TipprmiResult<unsigned int> getPid() const {
        return treflectCall(*this, process::kClass, process::kGetPid, &ProcessSkeleton::getPid);
    }
    /** Memory that it has at present. */
    TipprmiResult<ByteCount> getResident() const {
        return treflectCall(*this, process::kClass, process::kGetResident,
                            &ProcessSkeleton::getResident);
    }
};
