// Interfaces that are written once, as a skeleton class: dispatch, table and client follow.
#include <gtest/gtest.h>

#include "LogCapture.h"
#include "handler_threads.h"
#include "reflect.h"
#include "reflect/TreflectInterface.h"

using testsupport::LogCapture;

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

class LampSkeleton : public TreflectInterface<LampSkeleton, DeviceSkeleton> {
public:
    using TreflectInterface::TreflectInterface;

    virtual unsigned int getLevel() = 0;
    virtual TipprmiResult<void> setLevel(unsigned int level) = 0;
    virtual std::vector<double> getHistory() = 0;
    virtual std::array<std::int16_t, 2> getRange() = 0;
    virtual std::optional<Limits> limits(std::map<std::string, Limits> const& all, bool deep) = 0;
    virtual void reset() = 0;
    virtual Opaque opaque(int first, Opaque value, int last) = 0;
    virtual void notAnOperation() {}

    static constexpr auto interface() {
        return describe(
            "InterfaceTestLamp", 0x17E57002,
            attribute<&LampSkeleton::getLevel, &LampSkeleton::setLevel>("Level", 10, 11),
            attribute<&LampSkeleton::getHistory>("History", 12),
            attribute<&LampSkeleton::getRange>("Range", 13),
            op<&LampSkeleton::limits>("limits", 14), op<&LampSkeleton::reset>("reset", 15),
            op<&LampSkeleton::opaque>("opaque", 16));
    }
};
using Lamp = TreflectClient<LampSkeleton>;

class LampObject : public LampSkeleton {
public:
    using LampSkeleton::LampSkeleton;

    std::string getName() const override { return "lamp"; }
    unsigned int getLevel() override { return level_; }
    TipprmiResult<void> setLevel(unsigned int level) override {
        if (level > 100)
            return TipprmiFailure(7);
        level_ = level;
        return {};
    }
    std::vector<double> getHistory() override { return {0.5, level_ + 0.5}; }
    std::array<std::int16_t, 2> getRange() override { return {-1, 100}; }
    std::optional<Limits> limits(std::map<std::string, Limits> const& all, bool deep) override {
        auto const found = all.find(deep ? "deep" : "flat");
        return found == all.end() ? std::nullopt : std::optional<Limits>(found->second);
    }
    void reset() override { level_ = 0; }
    Opaque opaque(int first, Opaque value, int last) override {
        return {first + value.number + last};
    }

private:
    unsigned int level_ = 0;
};

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
    EXPECT_TRUE(lamp.template call<&LampSkeleton::setLevel>(80u));
    EXPECT_EQ(80u, lamp.template call<&LampSkeleton::getLevel>().value());
    EXPECT_EQ(7u, lamp.template call<&LampSkeleton::setLevel>(101u).code());
    EXPECT_EQ((std::vector<double>{0.5, 80.5}),
              lamp.template call<&LampSkeleton::getHistory>().value());
    std::map<std::string, Limits> const all{{"deep", {1, {{2, {}}}}}};
    auto const found = lamp.template call<&LampSkeleton::limits>(all, true);
    ASSERT_TRUE(found && found.value());
    EXPECT_EQ(2u, found.value()->inner.at(0).highest);
    EXPECT_FALSE(lamp.template call<&LampSkeleton::limits>(all, false).value());
    EXPECT_EQ(6, lamp.template call<&LampSkeleton::opaque>(1, Opaque{2}, 3).value().number);
    EXPECT_TRUE(lamp.template call<&LampSkeleton::reset>());
    EXPECT_EQ(0u, lamp.template call<&LampSkeleton::getLevel>().value());
    EXPECT_TRUE(lamp.template send<&LampSkeleton::reset>());
}

TEST(Interface, ServesItsOperationsAndThoseOfItsBase) {
    TreflectHandlerState const inside(true);
    LampObject const object(TipprmiOID("interface.lamp", NSID_UNIT), nullptr, "lamp");
    callsEachOperation(Lamp(object.getOID()));
    callsEachOperation(ThroughStreams(object.getOID()));
    LogCapture const log;
    TipprmiResult<void> const unknown = tipprmiCall<void>(Lamp(object.getOID()), 0x17E57002, 99);
    EXPECT_FALSE(unknown);
}

TEST(Interface, IsDescribedByItsTable) {
    TreflectHandlerState const inside(true);
    LampObject const object(TipprmiOID("interface.lamp", NSID_UNIT), nullptr, "lamp");
    Lamp const lamp(object.getOID());
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
    EXPECT_EQ("in0=int;", types("opaque")) << "what is behind an unnamed type cannot be found";
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
    EXPECT_EQ(-1, lamp.attribute("Range")
                      .fetch<decltype(std::declval<LampObject&>().getRange())>()
                      .value()[0]);
    EXPECT_EQ(nullptr, meta->metaAttribute("Range")->metaOperSet());
}

TEST(Interface, IsKnownWhereOnlyItsClientIs) {
    TreflectHandlerState const inside(true);
    [[maybe_unused]] TreflectClient<FarSkeleton> const far;
    TreflectMetaObject* const meta = InterfaceRepository::instance()->findInterface(0x17E57003);
    ASSERT_NE(nullptr, meta);
    EXPECT_EQ("InterfaceTestFar", meta->name());
}

}  // namespace
