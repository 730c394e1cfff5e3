// Generated from home.idl by reflectorb-idl: change that file, not this one.
#pragma once

#include <ipprmi.h>
#include <reflect.h>

#include <string>
#include <vector>

namespace lamp {

constexpr unsigned int kClass = 0xE0F73727;
enum Method : unsigned int {
    kGetLevel = 0x3FFD0000,
    kSetLevel = 0x3FFD0001,
    kGetSteps = 0x3FFD0002,
    kSetSteps = 0x3FFD0003,
    kNextStep = 0x3FFD0004,
    kBlink = 0x3FFD0005
};

/** Nothing is brighter than the limit. */
struct TooBright {
    static constexpr unsigned int kCode = 0x3C081D22;

    unsigned int limit = 0;
};

TipprmiStream& operator<<(TipprmiStream& stream, TooBright const& value);
TipprmiStream& operator>>(TipprmiStream& stream, TooBright& value);

using Steps = std::vector<unsigned int>;

}  // namespace lamp

/** A lamp of the house. */
class LampClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    /** In percent. */
    TipprmiResult<unsigned int> getLevel() const;
    TipprmiOutcome<void, lamp::TooBright> setLevel(unsigned int level) const;
    /** Levels for nextStep. */
    TipprmiResult<lamp::Steps> getSteps() const;
    TipprmiResult<void> setSteps(lamp::Steps const& steps) const;
    /**
     * Goes to the next step above the present level, behind the last one to 0; yields the new
     * level.
     */
    TipprmiResult<unsigned int> nextStep() const;
    TipprmiResult<bool> blink(unsigned int times, std::string const& why) const;
};

namespace house {

constexpr unsigned int kClass = 0xDCE71805;
enum Method : unsigned int { kAddLamp = 0x1B0D0000, kRemoveLamp = 0x1B0D0001 };

/** No name, or one with a "/". */
struct BadName {
    static constexpr unsigned int kCode = 0x9D76A956;
};

TipprmiStream& operator<<(TipprmiStream& stream, BadName const& value);
TipprmiStream& operator>>(TipprmiStream& stream, BadName& value);

/** There is such a lamp, or the house is being closed. */
struct NoPlace {
    static constexpr unsigned int kCode = 0x4262D064;
};

TipprmiStream& operator<<(TipprmiStream& stream, NoPlace const& value);
TipprmiStream& operator>>(TipprmiStream& stream, NoPlace& value);

/** Name and identifier of a root are the same, so that an absolute name tells where to begin. */
constexpr char name[] = "house";

}  // namespace house

/** The root of the tree of names. It makes lamps, its children, and destroys them. */
class HouseClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    /** A handle on the new lamp. */
    TipprmiOutcome<LampClient, house::BadName, house::NoPlace> addLamp(
        std::string const& name) const;
    /** Whether there was such a lamp. */
    TipprmiResult<bool> removeLamp(std::string const& name) const;
};

template <>
struct TreflectTypeName<lamp::TooBright> {
    static std::string text() { return "struct Lamp::TooBright{unsigned limit}"; }
};

template <>
struct TreflectTypeName<house::BadName> {
    static std::string text() { return "struct House::BadName{}"; }
};

template <>
struct TreflectTypeName<house::NoPlace> {
    static std::string text() { return "struct House::NoPlace{}"; }
};

inline TreflectMetaClass const lampMeta(
    "Lamp", lamp::kClass, {},
    {{"getLevel", lamp::kGetLevel, {}, {"unsigned"}},
     {"setLevel", lamp::kSetLevel,
      {"unsigned level"},
      {},
      {{lamp::TooBright::kCode, "struct Lamp::TooBright{unsigned limit}"}}},
     {"getSteps", lamp::kGetSteps, {}, {"sequence<unsigned>"}},
     {"setSteps", lamp::kSetSteps, {"sequence<unsigned> steps"}, {}},
     {"nextStep", lamp::kNextStep, {}, {"unsigned"}},
     {"blink", lamp::kBlink, {"unsigned times", "string why"}, {"bool"}}},
    {"Level", {"Steps", TreflectMetaClass::Attribute::kSequence, 16}}, {},
    {"A lamp of the house.",
     {{"Level", "In percent."},
      {"Steps", "Levels for nextStep."},
      {"nextStep", "Goes to the next step above the present level, behind the last one to 0; "
                   "yields the new level."}}});

/** What a server object of the class Lamp derives from and fills in. */
class LampSkeleton : public TreflectSkeleton<lampMeta> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual unsigned int getLevel() = 0;
    virtual TipprmiOutcome<void, lamp::TooBright> setLevel(unsigned int level) = 0;
    virtual lamp::Steps getSteps() = 0;
    virtual void setSteps(lamp::Steps const& steps) = 0;
    virtual unsigned int nextStep() = 0;
    virtual bool blink(unsigned int times, std::string const& why) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};

inline TreflectMetaClass const houseMeta(
    "House", house::kClass, {},
    {{"addLamp", house::kAddLamp,
      {"string name"},
      {"object"},
      {{house::BadName::kCode, "struct House::BadName{}"},
       {house::NoPlace::kCode, "struct House::NoPlace{}"}}},
     {"removeLamp", house::kRemoveLamp, {"string name"}, {"bool"}}},
    {}, {},
    {"The root of the tree of names. It makes lamps, its children, and destroys them.",
     {{"addLamp", "A handle on the new lamp."},
      {"removeLamp", "Whether there was such a lamp."}}});

/** What a server object of the class House derives from and fills in. */
class HouseSkeleton : public TreflectSkeleton<houseMeta> {
public:
    using TreflectSkeleton::TreflectSkeleton;

    virtual TipprmiOutcome<LampClient, house::BadName, house::NoPlace> addLamp(
        std::string const& name) = 0;
    virtual bool removeLamp(std::string const& name) = 0;

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override;
};
