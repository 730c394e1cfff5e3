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

/** Name of the root, and who can find it: this unit, or with a name of its own the whole node. */
struct Root {
    std::string name = machine::name;
    NamespaceId nameSpace = NSID_UNIT;
};
/** Set before the first object is made. */
inline Root& root() {
    static Root root;
    return root;
}

inline TipprmiOID id() {
    return TipprmiOID(root().name, root().nameSpace);
}
inline TipprmiOID partId(std::string const& kind, std::string const& partName) {
    return TipprmiOID(root().name + "." + kind + "." + partName, root().nameSpace);
}

}  // namespace machine
