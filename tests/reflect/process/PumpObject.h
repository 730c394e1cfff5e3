// A class that reflect_actor has in several variants, and its tests have not.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "ReflectiveClasses.h"

namespace pump {

/** That of the variants 1 and 2; each further one has its own. */
constexpr unsigned int kClass = 0x52430100;

/** How a pump is started. */
struct Order {
    unsigned int rate = 0;
    std::vector<std::string> why;
    REFLECTORB_STRUCT(Order, rate, why)
};

}  // namespace pump

/** A pump, whose class is made with the first one of its variant. */
class PumpObject final : public TreflectServerObject {
public:
    PumpObject(std::string const& name, unsigned int variant)
        : TreflectServerObject(TipprmiOID(name, NSID_UNIT), nullptr, name),
          class_(classOf(variant)) {}

    unsigned int getServerClassId() const override { return class_.getClassId(); }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return class_.classIds();
    }
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        unsigned int const own = getServerClassId();
        switch (mc) {
            case 101:
                return serve(own, cc, mc, in, out, &PumpObject::getPressure);
            case 102:
                return serve(own, cc, mc, in, out, &PumpObject::setPressure);
            case 103:
                return serve(own, cc, mc, in, out, &PumpObject::getLamp);
            case 104:
                return serve(own, cc, mc, in, out, &PumpObject::start);
            case 105:
                return serve(own, cc, mc, in, out, &PumpObject::getUnit);
            default:
                return TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
        }
    }

private:
    static TreflectMetaClass const& classOf(unsigned int variant) {
        static std::map<unsigned int, TreflectMetaClass const*> classes;
        TreflectMetaClass const*& known = classes[variant];
        if (!known && variant == 2)
            known = new TreflectMetaClass("Pump", pump::kClass, {&deviceMeta},
                                          {{"getUnit", 105, {}, {"string"}}}, {"Unit"});
        else if (!known)
            known = new TreflectMetaClass(
                "Pump", pump::kClass + (variant == 1 ? 0 : variant), {&deviceMeta},
                {{"getPressure", 101, {}, {"double"}},
                 {"setPressure", 102, {"double bar"}, {}},
                 {"getLamp", 103, {}, {"object"}},
                 {"start", 104, {"Order order"}, {"string"}}},
                {"Pressure", {"Lamp", lampMeta}}, {treflectTypeName<pump::Order>()});
        return *known;
    }

    double getPressure() const { return pressure_; }
    void setPressure(double pressure) { pressure_ = pressure; }
    TreflectObject getLamp() const { return TreflectObject(TipprmiOID("actor.lamp", NSID_UNIT)); }
    std::string getUnit() const { return "bar"; }
    std::string start(pump::Order const& order) {
        std::string text = std::to_string(order.rate);
        for (std::string const& reason : order.why)
            text += reason;
        return text;
    }

    TreflectMetaClass const& class_;
    double pressure_ = 1.5;
};
