// The class House: the root of the tree of names. It makes lamps, its children, and destroys them.
#pragma once

#include <ipprmi.h>
#include <reflect.h>

#include <string>

namespace house {
constexpr unsigned int kClass = 0x484F5553;
enum Method : unsigned int { kAddLamp = 1, kRemoveLamp = 2 };
constexpr unsigned int kBadName = 1;  // refusals of addLamp
constexpr unsigned int kNoPlace = 2;  // there is such a lamp, or the house is being closed

/** Name and identifier of a root are the same, so that an absolute name tells where to begin. */
constexpr char kName[] = "house";
inline TipprmiOID id() {
    return TipprmiOID(kName, NSID_UNIT);
}
}  // namespace house

inline TreflectMetaClass const houseMeta(
    "House", house::kClass, {},
    {{"addLamp", house::kAddLamp, {"string"}, {"object"}},
     {"removeLamp", house::kRemoveLamp, {"string"}, {"bool"}}});

class HouseSkeleton : public TreflectSkeleton<houseMeta> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual TipprmiResult<TreflectObject> addLamp(std::string const& name) = 0;
    virtual bool removeLamp(std::string const& name) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case house::kAddLamp:
                return serve(house::kClass, cc, mc, in, out, &HouseSkeleton::addLamp);
            case house::kRemoveLamp:
                return serve(house::kClass, cc, mc, in, out, &HouseSkeleton::removeLamp);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class HouseClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    /** A handle on the new lamp. */
    TipprmiResult<TreflectObject> addLamp(std::string const& name) const {
        return treflectCall(*this, house::kClass, house::kAddLamp, &HouseSkeleton::addLamp, name);
    }
    /** Whether there was such a lamp. */
    TipprmiResult<bool> removeLamp(std::string const& name) const {
        return treflectCall(*this, house::kClass, house::kRemoveLamp, &HouseSkeleton::removeLamp,
                            name);
    }
};
