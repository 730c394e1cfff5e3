// Handles on reflective objects, here and in other processes: values of attributes of every type,
// paths through several objects, and what happens to a handle while a call waits.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>

#include "Permitted.h"
#include "ReflectiveActor.h"
#include "ReflectiveClasses.h"

namespace {

int users(TreflectObject const& handle) {
    return handle.getStub_()->refCount();
}

// ---- Values ------------------------------------------------------------------------------------

template <class T>
void expectRoundTrip(TreflectObject const& lamp, char const* name, T const& value) {
    TreflectAttribute& attribute = lamp.attribute(name);
    EXPECT_EQ(attribute.set(value), 0) << name;
    T read{};
    EXPECT_EQ(attribute.get(read), 0) << name;
    EXPECT_EQ(read, value) << name;
    TipprmiResult<T> const fetched = attribute.template fetch<T>();
    EXPECT_TRUE(fetched) << name;
    EXPECT_EQ(fetched.value(), value) << name;
}

/** Of a lamp that is as it was made, here or elsewhere. */
void expectAllTypes(TreflectObject const& lamp) {
    expectRoundTrip(lamp, "Level", 100u);
    expectRoundTrip(lamp, "Offset", -2147483647);
    expectRoundTrip(lamp, "Lit", false);
    expectRoundTrip(lamp, "Lit", true);
    expectRoundTrip(lamp, "Label", std::string(5000, 'x'));
    expectRoundTrip(lamp, "Label", std::string());
    expectRoundTrip(lamp, "Colour", Colour{1, 0xFFFFFFFF, true});
    expectRoundTrip(lamp, "Next", lamp);
    EXPECT_EQ(lamp.attribute("Label").set("a literal"), 0);
    EXPECT_EQ(lamp.attribute("Label").fetch<std::string>().value(), "a literal");

    TipprmiAny any;
    any.insert(7u).insert(std::string("seven"));
    EXPECT_EQ(lamp.attribute("Extra").set(any), 0);
    TipprmiAny extra;
    EXPECT_EQ(lamp.attribute("Extra").get(extra), 0);
    std::string text;
    extra.extract(text);
    EXPECT_EQ(text, "seven");

    TipprmiSequence<unsigned int, 0u> codes;
    for (unsigned int i = 0; i < 1000; ++i)
        codes.push_back(i);
    EXPECT_EQ(lamp.attribute("Codes").set(codes), 0);
    TipprmiSequence<unsigned int, 0u> readCodes;
    EXPECT_EQ(lamp.attribute("Codes").get(readCodes), 0);
    ASSERT_EQ(readCodes.getLength(), 1000u);
    EXPECT_EQ(readCodes[999], 999u);

    TipprmiSequence<TreflectObject, 0u> crowd;
    crowd.setLength(2);
    crowd[1] = lamp;
    EXPECT_EQ(lamp.attribute("Crowd").set(crowd), 0);
    TipprmiSequence<TreflectObject, 0u> readCrowd;
    EXPECT_EQ(lamp.attribute("Crowd").get(readCrowd), 0);
    ASSERT_EQ(readCrowd.getLength(), 2u);
    EXPECT_FALSE(readCrowd[0].isConnected());
    EXPECT_EQ(readCrowd[1], lamp);
    crowd.setLength(0);
    EXPECT_EQ(lamp.attribute("Crowd").set(crowd), 0);
    EXPECT_EQ(lamp.attribute("Next").set(TreflectObject()), 0);
}

/** What the object or its class does not take. */
void expectRefusals(TreflectObject const& lamp) {
    TreflectAttribute& serial = lamp.attribute("Serial");
    EXPECT_EQ(serial.fetch<unsigned int>().value(), 4711u);
    EXPECT_EQ(serial.set(1u), TreflectAttribute::error);
    EXPECT_EQ(serial.store(1u).code(), TipprmiFailure::kNotServed);
    EXPECT_EQ(&serial.operSet(), &TreflectAttribute::errorOperation);
    EXPECT_EQ(serial.fetch<unsigned int>().value(), 4711u);

    TreflectAttribute& level = lamp.attribute("Level");
    EXPECT_EQ(level.set(100u), 0);
    EXPECT_EQ(level.set(lamp::kMaxLevel + 1), TreflectAttribute::error);
    EXPECT_EQ(level.store(lamp::kMaxLevel + 1).code(), lamp::kTooBright);
    EXPECT_EQ(level.fetch<unsigned int>().value(), 100u);

    // A value of another type: there are fewer bytes than it needs.
    std::string text = "untouched";
    EXPECT_EQ(level.get(text), TreflectAttribute::error);
    EXPECT_EQ(text, "untouched");
    EXPECT_EQ(level.fetch<std::string>().code(), TipprmiFailure::kUnreadable);
    EXPECT_EQ(lamp.attribute("Label").set(0x10000u), TreflectAttribute::error);
}

/** Of one that has gone. */
void expectNobody(TreflectAttribute& level, TreflectAttribute& next, TreflectOperation& ping) {
    unsigned int number = 5;
    EXPECT_EQ(level.get(number), TreflectAttribute::error);
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(level.set(1u), TreflectAttribute::error);
    EXPECT_EQ(level.fetch<unsigned int>().code(), TipprmiFailure::kNotServed);
    EXPECT_EQ(level.store(1u).code(), TipprmiFailure::kNotServed);
    TreflectObject object;
    EXPECT_EQ(next.get(object), 0);
    EXPECT_FALSE(object.isConnected());
    EXPECT_EQ(ping.call(), 0);
}

TEST(ReflectiveHandle, ReadsAndWritesValuesOfAllTypesHere) {
    TreflectHandlerState const handlerState(true);
    auto object = std::make_unique<LampObject>("local lamp");
    TreflectObject const lamp(object.get());
    expectAllTypes(lamp);
    expectRefusals(lamp);
    TreflectAttribute& level = lamp.attribute("Level");
    TreflectAttribute& next = lamp.attribute("Next");
    TreflectOperation& ping = lamp.operation("ping");
    object.reset();
    expectNobody(level, next, ping);
}

TEST(ReflectiveHandle, ReadsAndWritesValuesOfAllTypesElsewhere) {
    ReflectiveActor actor;
    actor.ask("lamp far", "made");
    TreflectHandlerState const handlerState(true);
    TreflectObject const lamp(oid("far"));
    expectAllTypes(lamp);
    expectRefusals(lamp);
    TreflectAttribute& level = lamp.attribute("Level");
    TreflectAttribute& next = lamp.attribute("Next");
    TreflectOperation& ping = lamp.operation("ping");
    EXPECT_EQ(ping.call(), 0);
    EXPECT_EQ(lamp.attribute("Lit").operGet().call(), 0);
    actor.ask("pings far", "pings 1");
    actor.ask("destroy far", "destroyed");
    expectNobody(level, next, ping);
}

// ---- Classes of objects in other processes -----------------------------------------------------

// ---- Paths -------------------------------------------------------------------------------------

TEST(ReflectiveHandle, FollowsPathsThroughSeveralProcesses) {
    ReflectiveActor first;
    ReflectiveActor second;
    first.ask("lamp a", "made");
    first.ask("lamp c", "made");
    second.ask("combi b", "made");
    first.ask("next a b", "next");
    second.ask("next b c", "next");
    TreflectHandlerState const handlerState(true);
    TreflectObject const a(oid("a"));
    TreflectAttribute& next = a.attribute("Next");
    EXPECT_EQ(next.attribute("Name").fetch<std::string>().value(), "b");
    EXPECT_EQ(next.attribute("Level").set(42u), 0);
    second.ask("level b", "level 42");
    EXPECT_EQ(next.operation("ping").call(), 0);
    second.ask("pings b", "pings 1");
    EXPECT_EQ(a.attribute("Next").attribute("Next").attribute("Name").fetch<std::string>().value(),
              "c");
    // What counts is the class of the attribute, not of the object that is there now.
    EXPECT_EQ(&next.attribute("Power"), &TreflectAttribute::errorAttribute);

    // The object that was found first is kept, unless an element is selected.
    first.ask("next a c", "next");
    EXPECT_EQ(next.attribute("Name").fetch<std::string>().value(), "b");
    EXPECT_TRUE(next.updateContainedObject());
    EXPECT_EQ(next.attribute("Name").fetch<std::string>().value(), "b");
    EXPECT_EQ(next[0].attribute("Name").fetch<std::string>().value(), "c");
    EXPECT_FALSE(a.attribute("Level").updateContainedObject());

    // Nothing is there.
    TreflectAttribute& end = a.attribute("Next").attribute("Next").attribute("Level");
    EXPECT_FALSE(end.isError());
    EXPECT_FALSE(end.fetch<unsigned int>());
}

// ---- Stubs -------------------------------------------------------------------------------------

TEST(ReflectiveHandle, CountsAsOneUserOfItsStub) {
    TreflectHandlerState const handlerState(true);
    LampObject const lampObject("counted lamp");
    LampObject const otherObject("other counted lamp");
    TreflectObject lamp(&lampObject);
    TreflectObject other(&otherObject);
    int const ofLamp = users(lamp);
    int const ofOther = users(other);
    {
        TreflectObject copy(lamp);
        EXPECT_EQ(users(lamp), ofLamp + 1);
        TreflectObject& self = copy;
        copy = self;
        copy = lamp;
        EXPECT_EQ(users(lamp), ofLamp + 1);
        copy = other;
        EXPECT_EQ(users(lamp), ofLamp);
        EXPECT_EQ(users(other), ofOther + 1);
        copy.connect(oid("counted lamp"));
        EXPECT_EQ(copy, lamp);
        EXPECT_EQ(users(lamp), ofLamp + 1);
        copy.connect(nullptr, oid("other counted lamp"));
        EXPECT_EQ(copy, other);
        copy.connect(const_cast<LampObject*>(&lampObject));
        EXPECT_EQ(copy, lamp);
        EXPECT_EQ(users(lamp), ofLamp + 1);
        TipprmiStream stream(100);
        stream << other;
        stream >> copy;
        EXPECT_EQ(copy, other);
        EXPECT_EQ(users(lamp), ofLamp);
        EXPECT_EQ(users(other), ofOther + 1);
    }
    EXPECT_EQ(users(other), ofOther);
    TreflectObject const empty{TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT)};
    EXPECT_FALSE(empty.isConnected());
}

TEST(ReflectiveHandle, FindsAnObjectThatComesLaterWhenItsMembersAreCalled) {
    TreflectHandlerState const handlerState(true);
    LampObject const present("present lamp");
    TreflectObject handle(&present);
    TreflectAttribute& level = handle.attribute("Level");
    TreflectOperation& ping = handle.operation("ping");
    handle = TreflectObject(oid("later lamp"));
    EXPECT_FALSE(handle.isConnected());
    EXPECT_FALSE(level.fetch<unsigned int>());
    LampObject later("later lamp");
    later.level = 9;
    EXPECT_EQ(level.fetch<unsigned int>().value(), 9u);
    EXPECT_TRUE(handle.isConnected());
    EXPECT_EQ(ping.call(), 0);
    EXPECT_EQ(later.pings(), 1u);

    ReflectiveActor actor;
    handle = TreflectObject(oid("soon"));
    actor.ask("lamp soon", "made");
    EXPECT_EQ(level.set(10u), 0);
    EXPECT_TRUE(handle.isConnected());
    actor.ask("level soon", "level 10");
}

// ---- While a call waits ------------------------------------------------------------------------

enum class Happening { kAssigned, kDestroyed };
enum class Deed { kGet, kSet, kCall };
constexpr Deed kDeeds[] = {Deed::kGet, Deed::kSet, Deed::kCall};

/** A handle whose memory is no cell of the pool, and a member of it that can be called. */
struct Holder {
    template <class Object>
    explicit Holder(Object const& object)
        : handle(object), held(&handle.attribute("Held")), getHeld(&held->operGet()) {}

    TreflectObject handle;
    TreflectAttribute* const held;
    TreflectOperation* const getHeld;
};

/** Calls a member on a thread of its own. */
class Caller {
public:
    Caller(Holder const& holder, Deed deed) {
        thread_ = std::thread([this, deed, held = holder.held, getHeld = holder.getHeld] {
            TreflectHandlerState const handlerState(true);
            calling_.open();
            if (deed == Deed::kGet)
                result_ = held->get(value_);
            else
                result_ = deed == Deed::kSet ? held->set(6u) : getHeld->call();
        });
        calling_.wait();
    }
    ~Caller() {
        if (thread_.joinable())
            thread_.join();
    }

    int result() {
        thread_.join();
        return result_;
    }
    unsigned int value() const { return value_; }

private:
    testsupport::Gate calling_;  // opened with the permission, which the wait gives up
    unsigned int value_ = 5;
    int result_ = -1;
    std::thread thread_;
};

/** The handle is taken away while a member's call is held by the object. */
void takeAwayDuring(Deed deed, Happening happening) {
    ReflectiveActor actor;
    actor.ask("lamp held", "made");
    std::unique_ptr<Holder> holder;
    {
        TreflectHandlerState const handlerState(true);
        holder = std::make_unique<Holder>(oid("held"));
    }
    Caller caller(*holder, deed);
    actor.ask("entered held", "entered");
    {
        TreflectHandlerState const handlerState(true);
        if (happening == Happening::kDestroyed)
            holder.reset();
        else
            holder->handle = TreflectObject();
    }
    actor.ask("release held", "released");
    EXPECT_EQ(caller.result(), 0);
    EXPECT_EQ(caller.value(), deed == Deed::kGet ? 77u : 5u);
    TreflectHandlerState const handlerState(true);
    holder.reset();
    TreflectObject const again(oid("held"));
    EXPECT_EQ(again.attribute("Held").fetch<unsigned int>().value(), deed == Deed::kSet ? 6u : 77u);
}

TEST(ReflectiveHandle, MayBeAssignedWhileAMemberIsCalled) {
    for (Deed const deed : kDeeds)
        takeAwayDuring(deed, Happening::kAssigned);
}

TEST(ReflectiveHandle, MayBeDestroyedWhileAMemberIsCalled) {
    for (Deed const deed : kDeeds)
        takeAwayDuring(deed, Happening::kDestroyed);
}

TEST(ReflectiveHandle, MayBeDestroyedWhileItsObjectIsLookedFor) {
    for (Deed const deed : kDeeds) {
        ReflectiveActor asked;
        asked.ask("lamp here", "made");
        std::unique_ptr<Holder> holder;
        {
            TreflectHandlerState const handlerState(true);
            holder = std::make_unique<Holder>(oid("here"));
            holder->handle = TreflectObject(oid("nowhere"));
        }
        ASSERT_TRUE(asked.child().stopWholly());  // whoever looks for the object waits for it
        Caller caller(*holder, deed);
        {
            TreflectHandlerState const handlerState(true);
            holder.reset();
        }
        asked.child().signal(SIGCONT);
        EXPECT_EQ(caller.result(), deed == Deed::kCall ? 0 : TreflectAttribute::error);
        EXPECT_EQ(caller.value(), 5u);
    }
}

}  // namespace
