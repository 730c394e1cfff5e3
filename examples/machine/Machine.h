// The class Machine: the root of the tree. It tells which parts there are. The identifier of each
// part is made of its kind and its name, so whoever knows the machine finds everything else.
#pragma once

#include "Part.h"

using Names = TipprmiSequence<std::string>;

namespace machine {
// Kinds of parts.
constexpr char kCpu[] = "cpu";
constexpr char kMemory[] = "memory";
constexpr char kNetwork[] = "network";
constexpr char kDisk[] = "disk";
constexpr char kProcess[] = "process";

/** Name and identifier of a root are the same: so a path such as /machine/cpu0 tells where to
 * begin. */
constexpr char kName[] = "machine";

inline TipprmiOID id() {
    return TipprmiOID(kName, NSID_UNIT);
}
inline TipprmiOID partId(std::string const& kind, std::string const& name) {
    return TipprmiOID(std::string(kName) + "." + kind + "." + name, NSID_UNIT);
}
}  // namespace machine

class MachineSkeleton : public TreflectSkeleton<machineMeta, PartSkeleton> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual std::string getHost() = 0;
    virtual Names parts(std::string const& kind) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case machine::kGetHost:
                return serve(machine::kClass, cc, mc, in, out, &MachineSkeleton::getHost);
            case machine::kParts:
                return serve(machine::kClass, cc, mc, in, out, &MachineSkeleton::parts);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class MachineClient : public PartClient {
public:
    using PartClient::PartClient;

    TipprmiResult<std::string> getHost() const {
        return treflectCall(*this, machine::kClass, machine::kGetHost, &MachineSkeleton::getHost);
    }
    /** Names of the parts of a kind; none of a kind that it does not know. */
    TipprmiResult<Names> parts(std::string const& kind) const {
        return treflectCall(*this, machine::kClass, machine::kParts, &MachineSkeleton::parts, kind);
    }
};
