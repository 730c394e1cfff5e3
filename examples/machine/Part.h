// The class Part, from which all others are derived.
#pragma once

#include <ipprmi.h>

#include <string>

#include "MachineClasses.h"

class PartSkeleton : public TreflectSkeleton<partMeta> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual std::string getDescription() = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case part::kGetDescription:
                return serve(part::kClass, cc, mc, in, out, &PartSkeleton::getDescription);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class PartClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    TipprmiResult<std::string> getDescription() const {
        return treflectCall(*this, part::kClass, part::kGetDescription,
                            &PartSkeleton::getDescription);
    }
};
