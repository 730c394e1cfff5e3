// Handles on reflective objects, here and in other processes: values of attributes of every type,
// paths through several objects, and what happens to a handle while a call waits.
#include <csignal>
#include <functional>
#include <tuple>

#include "BrokerTest.h"
#include "ReflectActor.h"
#include "ReflectiveClasses.h"

namespace {

class ReflectiveHandle : public BrokerTest {};

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
    expectRoundTrip(lamp, "Lit", false);
    expectRoundTrip(lamp, "Label", std::string(5000, 'x'));
    expectRoundTrip(lamp, "Colour", Colour{1, 0xFFFFFFFF, true});
    expectRoundTrip(lamp, "Next", lamp);
    EXPECT_EQ(lamp.attribute("Label").set("a literal"), 0);
    EXPECT_EQ(lamp.attribute("Label").fetch<std::string>().value(), "a literal");

    EXPECT_EQ(lamp.attribute("Extra").set(TipprmiAny().insert(7u)), 0);
    TipprmiAny extra;
    EXPECT_EQ(lamp.attribute("Extra").get(extra), 0);
    unsigned int number = 0;
    extra.extract(number);
    EXPECT_EQ(number, 7u);

    TipprmiSequence<TreflectObject, 0u> crowd;
    crowd.setLength(2);
    crowd[1] = lamp;
    EXPECT_EQ(lamp.attribute("Crowd").set(crowd), 0);
    TipprmiSequence<TreflectObject, 0u> readCrowd;
    EXPECT_EQ(lamp.attribute("Crowd").get(readCrowd), 0);
    ASSERT_EQ(readCrowd.getLength(), 2u);
    EXPECT_FALSE(readCrowd[0].isConnected());
    EXPECT_EQ(readCrowd[1], lamp);
    EXPECT_EQ(lamp.attribute("Crowd").set(TipprmiSequence<TreflectObject, 0u>()), 0);
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
    TreflectAttribute& colour = lamp.attribute("Colour");
    EXPECT_EQ(lamp.attribute("Colour").set(Colour{100, 0, false}), 0);
    EXPECT_EQ(colour.get(text), TreflectAttribute::error);
    EXPECT_EQ(text, "untouched");
    EXPECT_EQ(colour.fetch<std::string>().code(), TipprmiFailure::kUnreadable);
    EXPECT_EQ(lamp.attribute("Label").set(0x10000u), TreflectAttribute::error);
}

void expectValuesRefusalsAndAnEnd(TreflectObject const& lamp, std::function<void()> const& end) {
    expectAllTypes(lamp);
    expectRefusals(lamp);
    TreflectAttribute& level = lamp.attribute("Level");
    TreflectAttribute& next = lamp.attribute("Next");
    TreflectOperation& ping = lamp.operation("ping");
    EXPECT_EQ(ping.call(), 0);
    end();
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

TEST_F(ReflectiveHandle, ReadsAndWritesValuesOfAllTypes) {
    ReflectActor actor;
    actor.ask("lamp far", "made");
    TreflectHandlerState const handlerState(true);
    auto object = std::make_unique<LampObject>("local lamp");
    expectValuesRefusalsAndAnEnd(TreflectObject(object.get()), [&] { object.reset(); });
    expectValuesRefusalsAndAnEnd(TreflectObject(oid("far")), [&] {
        actor.ask("pings far", "pings 1");
        actor.ask("destroy far", "destroyed");
    });
}

// ---- Paths -------------------------------------------------------------------------------------

TEST_F(ReflectiveHandle, FollowsPathsThroughSeveralProcesses) {
    ReflectActor first;
    ReflectActor second;
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

TEST_F(ReflectiveHandle, TellsOfAnObjectThatOneOfThisProcessHides) {
    ReflectActor actor;
    actor.ask("lamp twin", "made");
    actor.ask("lamp other", "made");
    actor.ask("next other twin", "next");
    TreflectHandlerState const handlerState(true);
    LampObject const own("twin");
    EXPECT_EQ(&own, TreflectObject(oid("twin")).getServer());
    TreflectObject hidden;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(TreflectObject(oid("other")).attribute("Next").get(hidden), 0);
    EXPECT_EQ(hidden.getServer(), nullptr);
    EXPECT_EQ(log_.count(3, ": both are \"twin\""), 1u);
    EXPECT_EQ(log_.count(3, "of this process hides"), 1u);

    // The other one has been there first.
    TreflectObject const there(oid("other"));
    LampObject const late("other");
    EXPECT_EQ(there.getServer(), nullptr);
    EXPECT_EQ(log_.count(3, ": both are \"other\""), 1u);
    LampObject const alone("alone");
    EXPECT_EQ(log_.count(3, "of this process hides"), 2u);
}

// ---- Stubs -------------------------------------------------------------------------------------

TEST_F(ReflectiveHandle, CountsAsOneUserOfItsStub) {
    TreflectHandlerState const handlerState(true);
    LampObject lampObject("counted lamp");
    LampObject const otherObject("other counted lamp");
    TreflectObject const lamp(&lampObject);
    TreflectObject const other(&otherObject);
    int const ofLamp = users(lamp);
    int const ofOther = users(other);
    {
        TreflectObject copy(lamp);
        copy = static_cast<TreflectObject const&>(copy);
        copy = lamp;
        EXPECT_EQ(users(lamp), ofLamp + 1);
        copy = other;
        EXPECT_EQ(users(lamp), ofLamp);
        EXPECT_EQ(users(other), ofOther + 1);
        copy.connect(oid("counted lamp"));
        copy.connect(nullptr, oid("other counted lamp"));
        copy.connect(&lampObject);
        EXPECT_EQ(users(lamp), ofLamp + 1);
        EXPECT_EQ(users(other), ofOther);
        TipprmiStream stream(100);
        stream << other;
        stream >> copy;
        EXPECT_EQ(users(lamp), ofLamp);
    }
    EXPECT_EQ(users(other), ofOther);
}

TEST_F(ReflectiveHandle, MayBePartOfALargerObjectOnTheHeap) {
    struct Large : TreflectObject {
        std::string text[100];
    };
    std::vector<std::unique_ptr<TreflectObject>> handles;
    for (int i = 0; i < 20; ++i) {
        handles.push_back(std::make_unique<TreflectObject>());
        handles.push_back(std::make_unique<Large>());
    }
    for (auto const& handle : handles)
        EXPECT_FALSE(handle->isConnected());
}

// ---- While a call waits ------------------------------------------------------------------------

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

/** How a call of a member ended. */
struct Outcome {
    int result = -1;
    unsigned int value = 5;
};

/** Calls a member on a thread of its own, while something happens. */
Outcome callWhile(Holder const& holder, Deed deed, std::function<void()> const& happens) {
    Outcome outcome;
    testsupport::Gate calling;  // opened with the permission, which the wait gives up
    std::thread caller([&, held = holder.held, getHeld = holder.getHeld] {
        TreflectHandlerState const handlerState(true);
        calling.open();
        if (deed == Deed::kGet)
            outcome.result = held->get(outcome.value);
        else
            outcome.result = deed == Deed::kSet ? held->set(6u) : getHeld->call();
    });
    calling.wait();
    happens();
    caller.join();
    return outcome;
}

class TakenAway : public testing::TestWithParam<std::tuple<Deed, bool>> {};

/** The handle is taken away while a member's call is held by the object. */
TEST_P(TakenAway, WhileAMemberIsCalled) {
    Deed const deed = std::get<0>(GetParam());
    bool const destroyed = std::get<1>(GetParam());
    ReflectActor actor;
    actor.ask("lamp held", "made");
    auto holder = makePermitted<Holder>(oid("held"));
    Outcome const outcome = callWhile(*holder, deed, [&] {
        actor.ask("awaitheld held", "held");
        permitted([&] {
            if (destroyed)
                holder.reset();
            else
                holder->handle = TreflectObject();
        });
        actor.ask("letgo held", "gone");
    });
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.value, deed == Deed::kGet ? 77u : 5u);
    TreflectHandlerState const handlerState(true);
    holder.reset();
    TreflectObject const again(oid("held"));
    EXPECT_EQ(again.attribute("Held").fetch<unsigned int>().value(), deed == Deed::kSet ? 6u : 77u);
}

INSTANTIATE_TEST_SUITE_P(Handles, TakenAway,
                         testing::Combine(testing::ValuesIn(kDeeds), testing::Bool()));

TEST_F(ReflectiveHandle, MayBeDestroyedWhileItsObjectIsLookedFor) {
    for (Deed const deed : kDeeds) {
        ReflectActor asked;
        asked.ask("lamp here", "made");
        auto holder = makePermitted<Holder>(oid("here"));
        permitted([&] { holder->handle = TreflectObject(oid("nowhere")); });
        ASSERT_TRUE(asked.child().stopWholly());  // whoever looks for the object waits for it
        Outcome const outcome = callWhile(*holder, deed, [&] {
            holder.reset();
            asked.child().signal(SIGCONT);
        });
        EXPECT_EQ(outcome.result, deed == Deed::kCall ? 0 : TreflectAttribute::error);
        EXPECT_EQ(outcome.value, 5u);
    }
}

}  // namespace
