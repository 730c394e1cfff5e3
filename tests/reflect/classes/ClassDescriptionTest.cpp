// Classes as values that can be sent.
#include <functional>

#include "BrokerTest.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Description = TreflectClassDescription;
using Table = TreflectMetaClass;

constexpr unsigned int kDevice = 0x7E580000;
constexpr unsigned int kLamp = 0x7E580001;

Description describe(unsigned int classId) {
    return Description::of(*InterfaceRepository::instance()->findInterface(classId));
}

Table::Operation const blink{
    "blink", 3, {"unsigned times", "string why"}, {"bool"}, {{7, "struct TooOften{Limits most}"}}};
std::vector<Table::Operation> const levels{{"getSteps", 1, {}, {"sequence<unsigned>"}},
                                           {"setSteps", 2, {"sequence<unsigned>"}, {}}};

class ClassDescription : public PermittedTest {
protected:
    /** That of a lamp with these operations besides those of its attribute. */
    static Description lampWith(std::vector<Table::Operation> operations) {
        operations.insert(operations.end(), levels.begin(), levels.end());
        Table const device("Device", kDevice, {}, {{"getName", 10, {}, {"string"}}}, {"Name"});
        Table const lamp("Lamp", kLamp, {&device}, operations,
                         {{"Steps", Table::Attribute::kSequence, 16}, {"Name", device}},
                         {"struct Limits{unsigned highest}"});
        return describe(kLamp);
    }
};

TEST_F(ClassDescription, TellsAllThatATableTells) {
    Description const lamp = lampWith({blink});
    EXPECT_EQ(lamp.fault(), "");
    EXPECT_THAT(lamp.outline(),
                ElementsAre("class Lamp 0x7E580001", "attribute Name of Device 0x7E580000",
                            "attribute Steps sequence 16 writable", HasSubstr("base Device 0x7E58"),
                            "operation blink 3 (unsigned, string) -> (bool) raises 0x00000007 "
                            "struct TooOften{Limits most}",
                            "operation getSteps 1 () -> (sequence<unsigned>)",
                            "operation setSteps 2 (sequence<unsigned>) -> ()",
                            "type struct Limits{unsigned highest}"));
    ASSERT_EQ(lamp.operations.size(), 3u);
    EXPECT_EQ(lamp.operations[0].in[1].name, "why");
}

// What is written down here must not change: other builds compute it, too.
TEST_F(ClassDescription, HasAHashOfWhatCallersDependOn) {
    Description const lamp = lampWith({blink});
    EXPECT_EQ(lamp.bases[0].hash, 0x579BBF52F726F826u);
    Table::Operation renamed = blink;
    renamed.in = {"unsigned", "string because"};
    EXPECT_EQ(lampWith({renamed}).hash, lamp.hash);
    renamed.id = 4;
    Description const other = lampWith({renamed});
    EXPECT_NE(other.hash, lamp.hash);
    EXPECT_THAT(Description::difference(lamp, other),
                ElementsAre(HasSubstr("- operation blink 3 "), HasSubstr("+ operation blink 4 ")));
}

TEST_F(ClassDescription, ArrivesAsItWasAndWithWhatLaterVersionsAdd) {
    Description later = lampWith({blink});
    later.version = 2;
    later.more["units"].insert(std::string("percent"));
    later.operations[0].more["slow"].insert(true);
    TipprmiStream stream(100);
    stream << later << 42;
    Description read;
    int behind = 0;
    stream >> read >> behind;
    EXPECT_EQ(behind, 42);
    EXPECT_EQ(read.fault(), "");
    EXPECT_EQ(read.outline(), later.outline());
    std::string units;
    read.more["units"].extract(units);
    EXPECT_EQ(units, "percent");
    // It can be written as text by who knows the name of its type only.
    TreflectParameterType const type(treflectTypeName<Description>());
    TipprmiAny any;
    any.insert(later);
    TipprmiResult<std::string> const text = type.print(any);
    EXPECT_THAT(text.value(), HasSubstr("{name: \"times\", type: \"unsigned\"}"));
}

struct TooHot {
    static constexpr unsigned int kCode = 0x17E5;
    int limit = 0;
    REFLECTORB_STRUCT(TooHot, limit)
};

class OvenSkeleton : public TreflectInterface<OvenSkeleton> {
public:
    using TreflectInterface::TreflectInterface;

    virtual TipprmiOutcome<bool, TooHot> heat(int degrees) = 0;

    static constexpr auto interface() {
        return describe("Oven", kLamp + 1, op<&OvenSkeleton::heat>("heat", 1));
    }
};

TEST_F(ClassDescription, OfAnInterfaceTellsItsExceptions) {
    OvenSkeleton::metaClass();
    EXPECT_THAT(describe(kLamp + 1).outline(),
                Contains("operation heat 1 (int) -> (bool) raises 0x000017E5 struct TooHot{int "
                         "limit}"));
}

TEST_F(ClassDescription, TellsParametersWithoutATypeApart) {
    Description some = lampWith({blink});
    Description other = some;
    some.operations[0].in = {{"", ""}, {"", "int"}};
    other.operations[0].in = {{"", "int"}};
    EXPECT_THAT(some.outline(), Contains(HasSubstr("operation blink 3 (?, int) -> ")));
    EXPECT_NE(some.computeHash(), other.computeHash());
}

TEST_F(ClassDescription, IsFaultyWhereAReaderCouldBeMisled) {
    struct Fault {
        char const* text;
        std::function<void(Description&)> spoil;
    };
    auto const withType = [](char const* type) {
        return [type](Description& it) { it.operations[2].in[0].type = type; };
    };
    std::vector<Fault> const faults{
        {"no version", [](Description& it) { it.version = 0; }},
        {"too much", [](Description& it) { it.attributes.resize(1025); }},
        {"its name is unreadable", [](Description& it) { it.name = ""; }},
        {"name of a base", [](Description& it) { it.bases[0].name = "\x1B[2J"; }},
        {"method code 1 ", [](Description& it) { it.operations[0].code = 1; }},
        {"operation 1 is", [](Description& it) { it.operations[1].name = "blink"; }},
        {"operation 1 is", [](Description& it) { it.operations[1].name = "blink 3"; }},
        {"operation 2 is", withType("int\n")},
        {"operation 2 is", withType("?")},
        {"operation 2 is", withType("int, int")},
        {"operation 2 is", withType("int) -> (int")},
        {"operation 2 is", withType("sequence<int")},
        {"operation 0 is",
         [](Description& it) { it.operations[0].raises[0].type = "A raises 0x00000008 B"; }},
        {"operation 0 is",
         [](Description& it) {
             it.operations[0].raises.push_back({7, "struct Other{}"});
         }},
        {"attribute 0 is", [](Description& it) { it.attributes[0].name = ""; }},
        {"one of its types", [](Description& it) { it.types[0] = "int"; }},
        {"one of its types", [](Description& it) { it.types.emplace_back("enum Limits{A}"); }},
        {"its types are too large",
         [](Description& it) {
             it.types.push_back("struct Far{Near " + std::string(16000, 'a') + "}");
             it.types.push_back("struct Near{int " + std::string(16000, 'b') + "}");
             it.operations[0].in.assign(64, {"", "sequence<Far>"});
         }},
        {"its hash", [](Description& it) { it.operations[1].code = 99; }}};
    Description const lamp = lampWith({blink});
    for (Fault const& fault : faults) {
        Description spoilt = lamp;
        fault.spoil(spoilt);
        EXPECT_THAT(spoilt.fault(), HasSubstr(fault.text));
    }
}

}  // namespace
