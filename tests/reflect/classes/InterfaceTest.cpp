// Interfaces that are written once, as a skeleton class: dispatch, table and client follow.
#include "BrokerTest.h"
#include "reflect/TreflectInterface.h"

namespace {

struct Limits {
    unsigned int highest = 0;
    std::vector<Limits> inner;
    REFLECTORB_STRUCT(Limits, highest, inner)
};

class DeviceSkeleton : public TreflectInterface<DeviceSkeleton> {
public:
    using TreflectInterface::TreflectInterface;

    virtual std::string getName() const = 0;

    static constexpr auto interface() {
        return describe("InterfaceTestDevice", 0x17E57001,
                        attribute<&DeviceSkeleton::getName>("Name", 1));
    }
};

/** Has operators of its own and no name as a type. */
struct Opaque {
    int number = 0;
};
TipprmiStream& operator<<(TipprmiStream& stream, Opaque const& value) {
    return stream << value.number;
}
TipprmiStream& operator>>(TipprmiStream& stream, Opaque& value) {
    return stream >> value.number;
}

class LampObject : public TreflectInterface<LampObject, DeviceSkeleton> {
public:
    using TreflectInterface::TreflectInterface;

    std::string getName() const override { return "lamp"; }
    unsigned int getLevel() { return level_; }
    TipprmiResult<void> setLevel(unsigned int level) {
        if (level > 100)
            return TipprmiFailure(7);
        level_ = level;
        return {};
    }
    std::vector<double> getHistory() { return {0.5, level_ + 0.5}; }
    std::array<std::int16_t, 2> getRange() { return {-1, 100}; }
    std::optional<Limits> limits(std::map<std::string, Limits> const& all, bool deep) {
        auto const found = all.find(deep ? "deep" : "flat");
        return found == all.end() ? std::nullopt : std::optional<Limits>(found->second);
    }
    void reset() { level_ = 0; }
    Opaque opaque(int first, Opaque value, int last) { return {first + value.number + last}; }

    static constexpr auto interface() {
        return describe("InterfaceTestLamp", 0x17E57002,
                        attribute<&LampObject::getLevel, &LampObject::setLevel>("Level", 10, 11),
                        attribute<&LampObject::getHistory>("History", 12),
                        attribute<&LampObject::getRange>("Range", 13),
                        op<&LampObject::limits>("limits", 14), op<&LampObject::reset>("reset", 15),
                        op<&LampObject::opaque>("opaque", 16));
    }

private:
    unsigned int level_ = 0;
};
using Lamp = TreflectClient<LampObject>;

/** A class that is known by its client alone. */
class FarSkeleton : public TreflectInterface<FarSkeleton> {
public:
    using TreflectInterface::TreflectInterface;
    virtual void go() = 0;
    static constexpr auto interface() {
        return describe("InterfaceTestFar", 0x17E57003, op<&FarSkeleton::go>("go", 1));
    }
};

/** Calls through the streams, as from another process. */
class ThroughStreams : public Lamp {
public:
    using Lamp::Lamp;
    TipprmiObjectSkeleton* getServer() const override { return nullptr; }
};

template <class Client>
void callsEachOperation(Client const& lamp) {
    EXPECT_EQ("lamp", lamp.template call<&DeviceSkeleton::getName>().value());
    EXPECT_TRUE(lamp.template call<&LampObject::setLevel>(80u));
    EXPECT_EQ(80u, lamp.template call<&LampObject::getLevel>().value());
    EXPECT_EQ(7u, lamp.template call<&LampObject::setLevel>(101u).code());
    EXPECT_EQ((std::vector<double>{0.5, 80.5}),
              lamp.template call<&LampObject::getHistory>().value());
    std::map<std::string, Limits> const all{{"deep", {1, {{2, {}}}}}};
    auto const found = lamp.template call<&LampObject::limits>(all, true);
    ASSERT_TRUE(found && found.value());
    EXPECT_EQ(2u, found.value()->inner.at(0).highest);
    EXPECT_FALSE(lamp.template call<&LampObject::limits>(all, false).value());
    EXPECT_EQ(6, lamp.template call<&LampObject::opaque>(1, Opaque{2}, 3).value().number);
    EXPECT_TRUE(lamp.template call<&LampObject::reset>());
    EXPECT_EQ(0u, lamp.template call<&LampObject::getLevel>().value());
    EXPECT_TRUE(lamp.template send<&LampObject::reset>());
}

class Interface : public PermittedTest {
protected:
    LampObject const object_{oid("interface.lamp"), nullptr, "lamp"};
};

TEST_F(Interface, ServesItsOperationsAndThoseOfItsBase) {
    callsEachOperation(Lamp(object_.getOID()));
    callsEachOperation(ThroughStreams(object_.getOID()));
    EXPECT_FALSE(tipprmiCall<void>(Lamp(object_.getOID()), 0x17E57002, 99));
}

TEST_F(Interface, IsDescribedByItsTable) {
    Lamp const lamp(object_.getOID());
    TreflectMetaObject const* const meta = lamp.meta();
    ASSERT_EQ(&Lamp::metaClass(), meta);
    EXPECT_TRUE(meta->isA(&DeviceSkeleton::metaClass()));
    auto const types = [&](char const* name) {
        std::string text;
        for (auto const& [key, type] : meta->metaOperation(name)->parameters())
            text += key + '=' + type + ';';
        return text;
    };
    EXPECT_EQ("out0=string;", types("getName"));
    EXPECT_EQ("in0=unsigned;", types("setLevel"));
    EXPECT_EQ("out0=array<int16, 2>;", types("getRange"));
    EXPECT_EQ(
        "in0=map<string, struct Limits{unsigned highest, sequence<Limits> inner}>;in1=bool;"
        "out0=optional<struct Limits{unsigned highest, sequence<Limits> inner}>;",
        types("limits"));
    EXPECT_EQ("in0=int;in1=;in2=int;out0=;", types("opaque")) << "nobody has named one of them";
    EXPECT_EQ("", types("reset"));
    for (char const* name : {"getLevel", "limits", "getHistory"}) {
        for (TreflectParameterType const& type : meta->metaOperation(name)->resultTypes())
            EXPECT_TRUE(type.isValid()) << type.name();
    }
    unsigned int level = 0;
    EXPECT_EQ(0, lamp.attribute("Level").set(33u));
    EXPECT_EQ(0, lamp.attribute("Level").get(level));
    EXPECT_EQ(33u, level);
    EXPECT_EQ(2, lamp.attribute("Range").constLength());
    EXPECT_EQ(-1, (lamp.attribute("Range").fetch<std::array<std::int16_t, 2>>().value()[0]));
    EXPECT_EQ(nullptr, meta->metaAttribute("Range")->metaOperSet());
}

TEST_F(Interface, IsKnownWhereOnlyItsClientIs) {
    [[maybe_unused]] TreflectClient<FarSkeleton> const far;
    TreflectMetaObject* const meta = InterfaceRepository::instance()->findInterface(0x17E57003);
    ASSERT_NE(nullptr, meta);
    EXPECT_EQ("InterfaceTestFar", meta->name());
}

}  // namespace
