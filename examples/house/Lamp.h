// The class Lamp: what all programs must agree on that have to do with it, the skeleton class that
// a server object fills in, and the client class that callers use. docs/guide.md explains it.
#pragma once

#include <ipprmi.h>
#include <reflect.h>

#include <string>

namespace lamp {
constexpr unsigned int kClass = 0x4C414D50;
enum Method : unsigned int {
    kGetLevel = 1,
    kSetLevel = 2,
    kGetSteps = 3,
    kSetSteps = 4,
    kNextStep = 5,
    kBlink = 6
};
constexpr unsigned int kTooBright = 1;  // the code of a refusal
}  // namespace lamp

using Steps = TipprmiSequence<unsigned int>;

// The attribute Level is the operation getLevel and, since it can be changed, setLevel.
inline TreflectMetaClass const lampMeta("Lamp", lamp::kClass, {},
                                        {{"getLevel", lamp::kGetLevel, {}, {"unsigned"}},
                                         {"setLevel", lamp::kSetLevel, {"unsigned"}, {}},
                                         {"getSteps", lamp::kGetSteps, {}, {"sequence<unsigned>"}},
                                         {"setSteps", lamp::kSetSteps, {"sequence<unsigned>"}, {}},
                                         {"nextStep", lamp::kNextStep, {}, {"unsigned"}},
                                         {"blink", lamp::kBlink, {"unsigned", "string"}, {"bool"}}},
                                        {"Level",
                                         {"Steps", TreflectMetaClass::Attribute::kSequence, 16}});

class LampSkeleton : public TreflectSkeleton<lampMeta> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual unsigned int getLevel() = 0;
    virtual TipprmiResult<void> setLevel(unsigned int level) = 0;
    virtual Steps getSteps() = 0;
    virtual void setSteps(Steps const& steps) = 0;
    virtual unsigned int nextStep() = 0;
    virtual bool blink(unsigned int times, std::string const& why) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case lamp::kGetLevel:
                return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::getLevel);
            case lamp::kSetLevel:
                return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::setLevel);
            case lamp::kGetSteps:
                return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::getSteps);
            case lamp::kSetSteps:
                return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::setSteps);
            case lamp::kNextStep:
                return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::nextStep);
            case lamp::kBlink:
                return serve(lamp::kClass, cc, mc, in, out, &LampSkeleton::blink);
            default:
                return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

class LampClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    TipprmiResult<unsigned int> getLevel() const {
        return treflectCall(*this, lamp::kClass, lamp::kGetLevel, &LampSkeleton::getLevel);
    }
    /** Refused with kTooBright above 100. */
    TipprmiResult<void> setLevel(unsigned int level) const {
        return treflectCall(*this, lamp::kClass, lamp::kSetLevel, &LampSkeleton::setLevel, level);
    }
    TipprmiResult<unsigned int> nextStep() const {
        return treflectCall(*this, lamp::kClass, lamp::kNextStep, &LampSkeleton::nextStep);
    }
    TipprmiResult<bool> blink(unsigned int times, std::string const& why) const {
        return treflectCall(*this, lamp::kClass, lamp::kBlink, &LampSkeleton::blink, times, why);
    }
};
