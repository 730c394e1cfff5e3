// Reflective classes for tests, and their server objects: a Device, a Lamp and a Heater, which are
// devices, and a Combi, which is both of them. Used by tests and by the program reflect_actor.
#pragma once

#include <array>
#include <atomic>
#include <map>

#include "Waiting.h"
#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

namespace device {
constexpr unsigned int kClass = 0x52430001;
enum Method : unsigned int { kGetName = 1, kPing = 2 };
}  // namespace device

namespace lamp {
constexpr unsigned int kClass = 0x52430002;
constexpr unsigned int kMaxLevel = 100;
constexpr unsigned int kTooBright = 7;  // the refusal of a higher level
constexpr int kRowLength = 3;
// Each set operation stands behind its get operation.
enum Method : unsigned int {
    kLevel = 10,
    kLit = 14,
    kLabel = 16,
    kExtra = 18,
    kCodes = 20,
    kColour = 22,
    kNext = 24,
    kSteps = 26,
    kSwitches = 28,
    kOthers = 30,
    kCrowd = 32,
    kSerial = 34,  // without a set operation
    kHeld = 36     // answers, or takes a value, when released only
};
}  // namespace lamp

namespace heater {
constexpr unsigned int kClass = 0x52430003;
enum Method : unsigned int { kPower = 60 };
}  // namespace heater

namespace combi {
constexpr unsigned int kClass = 0x52430004;
}  // namespace combi

struct Colour {
    unsigned int red = 0;
    unsigned int green = 0;
    bool glowing = false;
    REFLECTORB_STRUCT(Colour, red, green, glowing)

    bool operator==(Colour const& other) const {
        return tipprmiMembers() == other.tipprmiMembers();
    }
};

/** The value of an array attribute. */
template <class T>
using Row = std::array<T, lamp::kRowLength>;

// ---- Meta objects ------------------------------------------------------------------------------

inline TreflectMetaClass const deviceMeta("Device", device::kClass, {},
                                          {{"getName", device::kGetName, {}, {"string"}},
                                           {"ping", device::kPing}},
                                          {"Name"});

inline TreflectMetaClass const lampMeta(
    "Lamp", lamp::kClass, {&deviceMeta},
    {{"getLevel", lamp::kLevel, {}, {"unsigned"}},
     {"setLevel", lamp::kLevel + 1, {"unsigned"}, {}},
     {"getLit", lamp::kLit, {}, {"bool"}},
     {"setLit", lamp::kLit + 1, {"bool"}, {}},
     {"getLabel", lamp::kLabel, {}, {"string"}},
     {"setLabel", lamp::kLabel + 1, {"string"}, {}},
     {"getExtra", lamp::kExtra, {}, {"any"}},
     {"setExtra", lamp::kExtra + 1, {"any"}, {}},
     {"getCodes", lamp::kCodes, {}, {"sequence of unsigned"}},
     {"setCodes", lamp::kCodes + 1, {"sequence of unsigned"}, {}},
     {"getColour", lamp::kColour, {}, {"Colour"}},
     {"setColour", lamp::kColour + 1, {"Colour"}, {}},
     {"getNext", lamp::kNext, {}, {"Lamp"}},
     {"setNext", lamp::kNext + 1, {"Lamp"}, {}},
     {"getSteps", lamp::kSteps, {}, {"array of unsigned"}},
     {"setSteps", lamp::kSteps + 1, {"array of unsigned"}, {}},
     {"getSwitches", lamp::kSwitches, {}, {"array of bool"}},
     {"setSwitches", lamp::kSwitches + 1, {"array of bool"}, {}},
     {"getOthers", lamp::kOthers, {}, {"array of Lamp"}},
     {"setOthers", lamp::kOthers + 1, {"array of Lamp"}, {}},
     {"getCrowd", lamp::kCrowd, {}, {"sequence of Lamp"}},
     {"setCrowd", lamp::kCrowd + 1, {"sequence of Lamp"}, {}},
     {"getSerial", lamp::kSerial, {}, {"unsigned"}},
     {"getHeld", lamp::kHeld, {}, {"unsigned"}},
     {"setHeld", lamp::kHeld + 1, {"unsigned"}, {}}},
    {"Level",
     "Lit",
     "Label",
     "Extra",
     {"Codes", TreflectMetaClass::Attribute::kSequence, 8},
     "Colour",
     {"Next", lampMeta},
     {"Steps", TreflectMetaClass::Attribute::kArray, lamp::kRowLength},
     {"Switches", TreflectMetaClass::Attribute::kArray, lamp::kRowLength},
     {"Others", lampMeta, TreflectMetaClass::Attribute::kArray, lamp::kRowLength},
     {"Crowd", lampMeta, TreflectMetaClass::Attribute::kSequence, 8},
     "Serial",
     "Held"});

inline TreflectMetaClass const heaterMeta("Heater", heater::kClass, {&deviceMeta},
                                          {{"getPower", heater::kPower, {}, {"unsigned"}}},
                                          {"Power"});

inline TreflectMetaClass const combiMeta("Combi", combi::kClass, {&lampMeta, &heaterMeta}, {});

// ---- Server objects ----------------------------------------------------------------------------

/** Build and destroy it holding the run permission. */
class LampObject : public TreflectSkeleton<lampMeta> {
public:
    explicit LampObject(std::string const& name, TreflectObject const* parent = nullptr)
        : TreflectSkeleton(TipprmiOID(name, NSID_UNIT), parent, name), name_(name) {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;

    unsigned int pings() const { return pings_; }
    /** Lets all calls that are held go on, now and later. */
    void release() { released_.open(); }
    testsupport::Gate& entered() { return entered_; }

    // The attributes' values, for the test to set. Guarded by the run permission.
    unsigned int level = 1;
    bool lit = true;
    std::string label = "lamp";
    TipprmiAny extra;
    TipprmiSequence<unsigned int, 0u> codes;
    Colour colour;
    TreflectObject next;
    Row<unsigned int> steps{};
    Row<bool> switches{};
    Row<TreflectObject> others;
    TipprmiSequence<TreflectObject, 0u> crowd;
    unsigned int serial = 4711;
    unsigned int held = 77;

private:
    template <auto Field>
    auto read() const {
        return this->*Field;
    }
    template <auto Field>
    void write(std::decay_t<decltype(std::declval<LampObject>().*Field)> const& value) {
        this->*Field = value;
    }
    std::string name() const { return name_; }
    void ping() { ++pings_; }
    TipprmiResult<void> writeLevel(unsigned int value) {
        if (value > lamp::kMaxLevel)
            return TipprmiFailure(lamp::kTooBright);
        level = value;
        return {};
    }
    unsigned int readHeld() {
        hold();
        return held;
    }
    void writeHeld(unsigned int value) {
        hold();
        held = value;
    }
    void hold() {
        TreflectReleaseHandlerState const released;
        entered_.open();
        released_.wait(std::chrono::hours(1));
    }
    /** Serves the two operations of an attribute whose get operation has the code `get`. */
    template <auto Field>
    bool serveValue(unsigned int get, unsigned int cc, unsigned int mc, TipprmiStream& in,
                    TipprmiStream& out) {
        return mc == get ? serve(lamp::kClass, cc, mc, in, out, &LampObject::read<Field>)
                         : serve(lamp::kClass, cc, mc, in, out, &LampObject::write<Field>);
    }

    std::string const name_;
    std::atomic<unsigned int> pings_{0};
    testsupport::Gate entered_;
    testsupport::Gate released_;
};

inline bool LampObject::dispatch(bool withResponse, unsigned int cc, unsigned int mc,
                                 TipprmiStream& in, TipprmiStream& out) {
    using Serve =
        bool (LampObject::*)(unsigned, unsigned, unsigned, TipprmiStream&, TipprmiStream&);
    static std::map<unsigned int, Serve> const values{
        {lamp::kLevel, &LampObject::serveValue<&LampObject::level>},
        {lamp::kLit, &LampObject::serveValue<&LampObject::lit>},
        {lamp::kLabel, &LampObject::serveValue<&LampObject::label>},
        {lamp::kExtra, &LampObject::serveValue<&LampObject::extra>},
        {lamp::kCodes, &LampObject::serveValue<&LampObject::codes>},
        {lamp::kColour, &LampObject::serveValue<&LampObject::colour>},
        {lamp::kNext, &LampObject::serveValue<&LampObject::next>},
        {lamp::kSteps, &LampObject::serveValue<&LampObject::steps>},
        {lamp::kSwitches, &LampObject::serveValue<&LampObject::switches>},
        {lamp::kOthers, &LampObject::serveValue<&LampObject::others>},
        {lamp::kCrowd, &LampObject::serveValue<&LampObject::crowd>}};
    auto const by = [&](auto method) {
        return serve(mc < lamp::kLevel ? device::kClass : lamp::kClass, cc, mc, in, out, method);
    };
    auto const value = values.find(mc & ~1u);
    return mc == device::kGetName   ? by(&LampObject::name)
           : mc == device::kPing    ? by(&LampObject::ping)
           : mc == lamp::kLevel + 1 ? by(&LampObject::writeLevel)
           : mc == lamp::kHeld      ? by(&LampObject::readHeld)
           : mc == lamp::kHeld + 1  ? by(&LampObject::writeHeld)
           : mc == lamp::kSerial    ? by(&LampObject::read<&LampObject::serial>)
           : value != values.end()  ? (this->*value->second)(value->first, cc, mc, in, out)
                                    : TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
}

class CombiObject : public TreflectSkeleton<combiMeta, LampObject> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (mc == heater::kPower)
            return serve(heater::kClass, cc, mc, in, out, &CombiObject::power);
        return LampObject::dispatch(withResponse, cc, mc, in, out);
    }

private:
    unsigned int power() const { return 2000; }
};
