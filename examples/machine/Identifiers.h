// What the objects of the machine are found by. The identifier of a part is made of its kind and
// its name, so whoever knows the machine, which tells the names, finds everything else.
#pragma once

#include "generated/machine.h"

namespace machine {

// Kinds of parts.
constexpr char kCpu[] = "cpu";
constexpr char kMemory[] = "memory";
constexpr char kNetwork[] = "network";
constexpr char kDisk[] = "disk";
constexpr char kProcess[] = "process";

inline TipprmiOID id() {
    return TipprmiOID(name, NSID_UNIT);
}
inline TipprmiOID partId(std::string const& kind, std::string const& partName) {
    return TipprmiOID(std::string(name) + "." + kind + "." + partName, NSID_UNIT);
}

}  // namespace machine
