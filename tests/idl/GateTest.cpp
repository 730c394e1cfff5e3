// Classes that the interface compiler has made: calls within one process and across two.
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>

#include "ActorProgram.h"
#include "GateObject.h"
#include "handler_threads.h"

namespace {

using testsupport::ActorProgram;

enum Where { kSameProcess, kOtherProcess };

class GateTest : public ::testing::TestWithParam<Where> {
protected:
    GateTest() {
        if (GetParam() == kSameProcess) {
            here_ = std::make_unique<Gate>("gate.here");
            gate = works::GateClient(TipprmiOID("gate.here", NSID_UNIT));
            return;
        }
        TreflectReleaseHandlerState const outside;
        there_ = std::make_unique<ActorProgram>(testsupport::programCommand("gate_actor"));
        TreflectHandlerState const back(true);
        gate = works::GateClient(TipprmiOID("gate.there", NSID_UNIT));
    }

    TreflectHandlerState const inside{true};

private:
    std::unique_ptr<Gate> here_;
    std::unique_ptr<ActorProgram> there_;

protected:
    works::GateClient gate;
};

INSTANTIATE_TEST_SUITE_P(OfAGateIn, GateTest, ::testing::Values(kSameProcess, kOtherProcess),
                         [](auto const& where) {
                             return where.param == kSameProcess ? "TheSameProcess"
                                                                : "AnotherProcess";
                         });

TEST_P(GateTest, NumbersComeBackAsTheyWere) {
    works::Numbers given;
    given.o = 255;
    given.i8 = -128;
    given.s = std::numeric_limits<std::int16_t>::min();
    given.us = 65535;
    given.l = works::least;
    given.ul = 0xFFFFFFFF;
    given.ll = std::numeric_limits<std::int64_t>::min();
    given.ull = std::numeric_limits<std::uint64_t>::max();
    given.f = -0.1F;
    given.d = 1e300;
    given.c = '\xE9';
    given.b = true;
    works::Numbers const back = gate.numbers(given).value();
    EXPECT_EQ(back.o, given.o);
    EXPECT_EQ(back.i8, given.i8);
    EXPECT_EQ(back.s, given.s);
    EXPECT_EQ(back.us, given.us);
    EXPECT_EQ(back.l, works::least);
    EXPECT_EQ(back.ul, given.ul);
    EXPECT_EQ(back.ll, given.ll);
    EXPECT_EQ(back.ull, given.ull);
    EXPECT_EQ(back.f, given.f);
    EXPECT_EQ(back.d, given.d);
    EXPECT_EQ(back.c, given.c);
    EXPECT_TRUE(back.b);
}

TEST_P(GateTest, WhatHoldsOthersComesBackAsItWas) {
    works::Tree given{"root", {{"left"}, {"right", {{"leaf"}}}}, works::Light::green};
    given.corners[1][0] = -3;
    works::Tree const back = gate.tree(given).value();
    EXPECT_EQ(back.branches.at(1).branches.at(0).name, "leaf");
    EXPECT_EQ(back.light, works::first);
    EXPECT_EQ(back.corners, given.corners);
    EXPECT_EQ(gate.bytes({1, 2, 255}).value(), (works::Bytes{1, 2, 255}));
    EXPECT_EQ(gate.flags({true, false, true}).value(), (std::vector<bool>{true, false, true}));
    EXPECT_EQ(gate.wide(L"\x20AC").value(), L"\x20AC");
    TipprmiAny any;
    any.insert(42u);
    TipprmiAny answer = gate.anything(any).value();
    unsigned int held = 0;
    answer.extract(held);
    EXPECT_EQ(held, 42u);
    EXPECT_STREQ(works::greeting, "say \"gate\"\n");
}

TEST_P(GateTest, AUnionTellsWhichCaseItHolds) {
    works::Value value;
    EXPECT_TRUE(value.number()) << "the first case, unless told otherwise";
    value.text("three", 3);
    works::Value back = gate.value(value).value();
    EXPECT_EQ(back.which(), 3);
    ASSERT_TRUE(back.text());
    EXPECT_EQ(*back.text(), "three");
    EXPECT_FALSE(back.number() || back.which_() || back.other());
    value.which_({{"tree"}});
    EXPECT_EQ(gate.value(value).value().which_()->at(0).name, "tree");
    value.other(true, 99);
    back = gate.value(value).value();
    EXPECT_EQ(back.which(), 99);
    EXPECT_TRUE(back.other() && *back.other());

    works::OnOff on;
    on.speed(2.5);
    EXPECT_EQ(*gate.onOff(on).value().speed(), 2.5);
    TipprmiStream off(100);
    off << 0u << false;
    off >> on;
    EXPECT_FALSE(gate.onOff(on).value().speed()) << "nothing is held where no case is";
    EXPECT_FALSE(gate.onOff(on).value().which());
}

TEST_P(GateTest, SeveralResultsComeByTheirNames) {
    auto const moved = gate.move(3, 4);
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved.value().position, 7);
    EXPECT_EQ(moved.value().connect, "moved");
    auto const measured = gate.measured();
    auto const& [title, length] = measured.value();
    EXPECT_EQ(title.size(), length);
    EXPECT_EQ(gate.connect_(1).value(), 2) << "a word of the library";
}

TEST_P(GateTest, ARefusalTellsWhichExceptionAndItsFields) {
    EXPECT_TRUE(gate.move(-1, 0).raised<works::Closed>());
    auto const jammed = gate.move(11, 0);
    EXPECT_EQ(jammed.code(), works::Jammed::kCode);
    ASSERT_TRUE(jammed.raised<works::Jammed>());
    EXPECT_EQ(jammed.raised<works::Jammed>()->cause.branches.at(0).name, "pebble");
    EXPECT_EQ(gate.setTitle("").raised<parts::named::BadName>()->name, "none");
    EXPECT_TRUE(gate.setTitle("side"));
    EXPECT_EQ(gate.getTitle().value(), "side");
}

TEST_P(GateTest, ItIsAnObjectOfAllItsBases) {
    parts::DeviceClient const& device = gate;
    EXPECT_EQ(device.getSerial().value(), Gate::kSerial);
    EXPECT_EQ(device.describe(true).value(), "a gate of steel");
    parts::NamedClient const named = gate;
    EXPECT_EQ(named.getTitle().value(), "main");
    EXPECT_TRUE(named.setTitle("other"));
    EXPECT_EQ(gate.getTitle().value(), "other");
    TipprmiSequence<unsigned int> const ids = works::gateMeta.classIds();
    ASSERT_EQ(ids.getLength(), 3u);
    EXPECT_EQ(ids[0], works::gate::kClass);
    EXPECT_EQ(ids[2], parts::named::kClass);
}

TEST_P(GateTest, ItsMembersAreFoundByName) {
    unsigned int serial = 0;
    EXPECT_EQ(gate.attribute("Serial").get(serial), 0);
    EXPECT_EQ(serial, Gate::kSerial);
    works::Speeds const speeds = {3, 4};
    EXPECT_EQ(gate.attribute("Speeds").set(speeds), 0);
    EXPECT_EQ(gate.getSpeeds().value(), speeds);
    EXPECT_FALSE(gate.operation("connect").isError()) << "without the underscore of C++";
    for (char const* const name : {"numbers", "tree", "value", "onOff", "wide", "neighbour"}) {
        auto const types = gate.operation(name).meta()->resultTypes();
        ASSERT_EQ(types.size(), 1u);
        EXPECT_TRUE(types[0].isValid()) << types[0].name();
    }
    std::string title;
    EXPECT_EQ(gate.attribute("Next").attribute("Title").get(title), 0);
    EXPECT_EQ(title, "main");
}

TEST_P(GateTest, HandlesLeadOnAndOnewayCallsArrive) {
    works::Neighbour const neighbour = gate.neighbour().value();
    EXPECT_EQ(neighbour.handle.getLight().value(), works::Light::green);
    EXPECT_EQ(neighbour.id, gate.identifier());
    EXPECT_TRUE(gate.hurry(3));
    EXPECT_EQ(gate.getNext().value().hurried().value(), 3u);
}

/** Counts what is told of objects of one class. */
class ClassWatch final : public TreflectObserver {
public:
    explicit ClassWatch(unsigned int classId)
        : meta_(*InterfaceRepository::instance()->findInterface(classId)) {
        meta_.observeCreations(this, false);
        meta_.observeDeletions(this);
    }
    ~ClassWatch() override { meta_.removeObserver(this); }

    bool update() override {
        ++told;
        gone.reset();
        return true;
    }

    int told = 0;
    std::unique_ptr<Gate> gone;  // ends at the first notice

private:
    TreflectMetaObject& meta_;
};

TEST(GateAnnouncementTest, AnObjectIsAnnouncedAsOneOfEachOfItsClasses) {
    TreflectHandlerState const inside(true);
    ClassWatch gates(works::gate::kClass), devices(parts::device::kClass),
        named(parts::named::kClass);
    auto gate = std::make_unique<Gate>("gate.announced");
    gate->sendCreationEvents();
    for (ClassWatch const* const watch : {&gates, &devices, &named})
        EXPECT_EQ(watch->told, 1);
    gate->sendDeletionEvents();
    for (ClassWatch const* const watch : {&gates, &devices, &named})
        EXPECT_EQ(watch->told, 2);

    gates.gone = std::make_unique<Gate>("gate.brief");
    gates.gone->sendCreationEvents();
    EXPECT_EQ(gates.told, 3);
    EXPECT_EQ(devices.told + named.told, 4) << "it had gone by then";
}

}  // namespace
