// The class Inventory: tells which parts this machine has. The identifier of each part is made of
// its kind and its name, so whoever knows the inventory finds everything else.
#pragma once

#include <ipprmi.h>

#include <string>

using Names = TipprmiSequence<std::string>;

namespace inventory {
constexpr unsigned int kClass = 0x494E5601;
enum Method : unsigned int { kHost = 1, kParts = 2 };

// Kinds of parts.
constexpr char kCpu[] = "cpu";
constexpr char kMemory[] = "memory";
constexpr char kNetwork[] = "network";
constexpr char kDisk[] = "disk";

inline TipprmiOID id() {
    return TipprmiOID("machine.inventory", NSID_UNIT);
}
inline TipprmiOID partId(std::string const& kind, std::string const& name) {
    return TipprmiOID("machine." + kind + "." + name, NSID_UNIT);
}
}  // namespace inventory

class InventoryClient : public TipprmiObjectClient {
public:
    using TipprmiObjectClient::TipprmiObjectClient;

    TipprmiResult<std::string> host() const {
        return tipprmiCall<std::string>(*this, inventory::kClass, inventory::kHost);
    }
    /** Names of the parts of a kind; none of a kind that it does not know. */
    TipprmiResult<Names> parts(std::string const& kind) const {
        return tipprmiCall<Names>(*this, inventory::kClass, inventory::kParts, kind);
    }
};

class InventorySkeleton : public TipprmiObjectSkeleton {
public:
    using TipprmiObjectSkeleton::TipprmiObjectSkeleton;

    virtual std::string host() = 0;
    virtual Names parts(std::string const& kind) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (cc == inventory::kClass) {
            switch (mc) {
                case inventory::kHost:
                    return serve(cc, mc, in, out, &InventorySkeleton::host);
                case inventory::kParts:
                    return serve(cc, mc, in, out, &InventorySkeleton::parts);
            }
        }
        return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }
};
