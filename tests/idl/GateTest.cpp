// Classes that the interface compiler has made: calls within one process and across two, of which
// one may be of another word size.
#include <limits>

#include "ActorProgram.h"
#include "BrokerTest.h"
#include "GateObject.h"
#include "Watcher.h"
#include "WireText.h"

namespace {

using testsupport::ActorProgram;

enum class Lamp { kOff };

}  // namespace

template <>
struct TreflectTypeName<Lamp> {
    static std::string text() { return "enum Lamp{off=0}"; }
};

namespace {

enum Where { kSameProcess, kOtherProcess, kOtherWordSize };

class GateTest : public PermittedTest, public ::testing::WithParamInterface<Where> {
protected:
    GateTest() {
        if (GetParam() == kSameProcess) {
            here_ = std::make_unique<Gate>("gate");
        } else {
            TreflectReleaseHandlerState const outside;
            there_ = std::make_unique<ActorProgram>(
                GetParam() == kOtherProcess ? testsupport::programCommand("gate_actor")
                                            : testsupport::peerProgramCommand("gate_actor"));
        }
        gate = works::GateClient(TipprmiOID("gate", NSID_UNIT));
    }

private:
    std::unique_ptr<Gate> here_;
    std::unique_ptr<ActorProgram> there_;

protected:
    works::GateClient gate;
};

#ifdef GATE_PEER_BUILD
Where const kPlaces[] = {kSameProcess, kOtherProcess, kOtherWordSize};
#else
Where const kPlaces[] = {kSameProcess, kOtherProcess};
#endif
INSTANTIATE_TEST_SUITE_P(OfAGateIn, GateTest, ::testing::ValuesIn(kPlaces), [](auto const& where) {
    return where.param == kSameProcess    ? "TheSameProcess"
           : where.param == kOtherProcess ? "AnotherProcess"
                                          : "AProcessOfAnotherWordSize";
});

TEST_P(GateTest, NumbersComeBackAsTheyWere) {
    works::Numbers const given{255,
                               -128,
                               std::numeric_limits<std::int16_t>::min(),
                               65535,
                               works::least,
                               0xFFFFFFFF,
                               std::numeric_limits<std::int64_t>::min(),
                               std::numeric_limits<std::uint64_t>::max(),
                               -0.1F,
                               1e300,
                               '\xE9',
                               true};
    EXPECT_EQ(wire::form(gate.numbers(given).value()), wire::form(given));
    EXPECT_EQ(wire::form(given),
              wire::bare("000000FF FFFFFF80 FFFF8000 0000FFFF 80000001 FFFFFFFF 8000000000000000"
                         "FFFFFFFFFFFFFFFF BDCCCCCD 7E37E43C8800759C 000000E9 00000001"));
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
    EXPECT_EQ(wire::form(gate.anything(TipprmiAny().insert(42u)).value()), "000000040000002A");
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
    auto const expectResult = [&](char const* operation, std::string const& typeName) {
        auto const types = gate.operation(operation).meta()->resultTypes();
        ASSERT_EQ(types.size(), 1u);
        EXPECT_TRUE(types[0].isValid());
        EXPECT_EQ(types[0].name(), typeName);
    };
    expectResult("numbers", treflectTypeName<works::Numbers>());
    expectResult("tree", treflectTypeName<works::Tree>());
    expectResult("value", treflectTypeName<works::Value>());
    expectResult("onOff", treflectTypeName<works::OnOff>());
    expectResult("neighbour", treflectTypeName<works::Neighbour>());
    expectResult("getLight", treflectTypeName<works::Light>());
    expectResult("wide", "sequence<uint32>");
    EXPECT_EQ(treflectTypeName<parts::named::BadName>(),
              "struct parts::Named::BadName{string name}");
    EXPECT_EQ(gate.attribute("Light").set(works::Light::red), 0);
    EXPECT_EQ(gate.getLight().value(), works::Light::red);
    TreflectAttribute& light = gate.attribute("Light");
    EXPECT_EQ(light.set(works::Tree{}), TreflectAttribute::error);
    EXPECT_EQ(light.set(7), TreflectAttribute::error) << "is none of its numbers";
    EXPECT_EQ(light.set(static_cast<works::Light>(2)), TreflectAttribute::error);
    EXPECT_EQ(light.set(Lamp::kOff), TreflectAttribute::error) << "is of another enum";
    EXPECT_EQ(light.mistake(),
              "attribute \"Light\" of class \"works::Gate\" is \"enum works::Light{red=0, green=1} "
              "light\", "
              "not \"enum Lamp{off=0}\"");
    EXPECT_EQ(light.set(1), 0);
    EXPECT_EQ(gate.setLight(static_cast<works::Light>(9)).code(), 0u);
    EXPECT_EQ(light.fetch<works::Light>().value(), static_cast<works::Light>(9))
        << "of a version to come";
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

TEST(GateAnnouncementTest, AnObjectIsAnnouncedAsOneOfEachOfItsClasses) {
    TreflectHandlerState const inside(true);
    Watcher gates, devices, named;
    std::pair<Watcher&, unsigned int> const watched[] = {{gates, works::gate::kClass},
                                                         {devices, parts::device::kClass},
                                                         {named, parts::named::kClass}};
    for (auto const& [watcher, classId] : watched) {
        TreflectMetaObject* const meta = InterfaceRepository::instance()->findInterface(classId);
        meta->observeCreations(&watcher, false);
        meta->observeDeletions(&watcher);
    }
    auto gate = std::make_unique<Gate>("gate.announced");
    gate->sendCreationEvents();
    for (auto const& entry : watched)
        EXPECT_EQ(entry.first.told.size(), 1u);
    gate->sendDeletionEvents();
    for (auto const& entry : watched)
        EXPECT_EQ(entry.first.told.size(), 2u);

    auto brief = std::make_unique<Gate>("gate.brief");
    gates.react = [&] { brief.reset(); };
    brief->sendCreationEvents();
    EXPECT_EQ(gates.told.size(), 3u);
    EXPECT_EQ(devices.told.size() + named.told.size(), 4u) << "it had gone by then";
}

}  // namespace
