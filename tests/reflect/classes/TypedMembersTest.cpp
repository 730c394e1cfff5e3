// Attributes and operations by name of a class whose table tells types: what does not go with them
// is neither sent nor taken for a value.
#include "BrokerTest.h"
#include "handler_threads.h"
#include "reflect.h"

namespace {

using Values = TipprmiSequence<TipprmiAny, 0u>;

struct Pair {
    int low = 0;
    unsigned int high = 0;
    REFLECTORB_STRUCT(Pair, low, high)
};
struct WidePair {
    unsigned int low = 0;
    std::uint8_t high = 0;
    REFLECTORB_STRUCT(WidePair, low, high)
};

/** Has a name as a type, which is asked for as seldom as can be. */
struct Celsius {
    double degrees = 0;
    static int named;
};
int Celsius::named = 0;
TipprmiStream& operator<<(TipprmiStream& stream, Celsius const& value) {
    return stream << value.degrees;
}
TipprmiStream& operator>>(TipprmiStream& stream, Celsius& value) {
    return stream >> value.degrees;
}

/** Has none. */
struct Nameless {
    unsigned int bits = 0;
};
TipprmiStream& operator<<(TipprmiStream& stream, Nameless const& value) {
    return stream << value.bits;
}
TipprmiStream& operator>>(TipprmiStream& stream, Nameless& value) {
    return stream >> value.bits;
}

/** Is not what its name says: an optional has one value at most. */
struct Couple {};
TipprmiStream& operator<<(TipprmiStream& stream, Couple const&) {
    return stream << 2u << 1u << 1u;
}

/** Nor is this: the elements are longer than what comes. */
struct Liar {};
TipprmiStream& operator<<(TipprmiStream& stream, Liar const&) {
    return stream << 3u << 1u << 2u << 0xFFFFFFFFu;
}
TipprmiStream& operator>>(TipprmiStream& stream, Liar&) {
    return stream;
}

}  // namespace

template <>
struct TreflectTypeName<Liar> {
    static std::string text() { return "sequence<string>"; }
};
template <>
struct TreflectTypeName<Couple> {
    static std::string text() { return "optional<int>"; }
};
template <>
struct TreflectTypeName<Celsius> {
    static std::string text() {
        ++Celsius::named;
        return "double";
    }
};

namespace {

class SensorSkeleton : public TreflectInterface<SensorSkeleton> {
public:
    using TreflectInterface::TreflectInterface;

    // The values, and how often one was set. Guarded by the run permission.
    unsigned int level = 7;
    std::int64_t big = 1;
    double heat = 20.5;
    std::vector<unsigned int> steps{1, 2, 0xFFFFFFFF};
    std::array<std::int16_t, 2> range{-1, 100};
    std::vector<std::vector<std::string>> words{{"a", "bc"}, {"def"}};
    std::map<std::string, std::vector<Pair>> pairs{{"x", {{1, 200}}}};
    TipprmiSequence<TreflectObject, 0u> crowd;
    Liar lies;
    std::optional<unsigned int> spare;
    int calls = 0;

    template <auto Field>
    auto read() {
        ++calls;
        return this->*Field;
    }
    template <auto Field>
    void write(std::decay_t<decltype(std::declval<SensorSkeleton>().*Field)> const& value) {
        ++calls;
        this->*Field = value;
    }
    unsigned int add(unsigned int a, std::string const& text, bool twice) {
        ++calls;
        return (a + static_cast<unsigned int>(text.size())) * (twice ? 2 : 1);
    }
    Nameless pass(int first, Nameless value, int) { return {value.bits + unsigned(first)}; }
    void reset() { ++calls; }

    template <auto Field>
    static constexpr auto value(char const* name, unsigned int code) {
        return attribute<&SensorSkeleton::read<Field>, &SensorSkeleton::write<Field>>(name, code,
                                                                                      code + 1);
    }
    static constexpr auto interface() {
        using S = SensorSkeleton;
        return describe("Sensor", 0x17E57201, value<&S::level>("Level", 10),
                        value<&S::big>("Big", 12), value<&S::heat>("Heat", 14),
                        value<&S::steps>("Steps", 16), value<&S::range>("Range", 18),
                        value<&S::words>("Words", 20), value<&S::pairs>("Pairs", 22),
                        value<&S::crowd>("Crowd", 24), value<&S::lies>("Lies", 26),
                        value<&S::spare>("Spare", 28), op<&S::add>("add", 40),
                        op<&S::pass>("pass", 41), op<&S::reset>("reset", 42));
    }
};

class TypedMembers : public PermittedTest {
protected:
    TreflectAttribute& attribute(char const* name) { return handle_.attribute(name); }

    template <class T>
    void expectMismatch(TreflectAttribute& attribute, T value, std::string const& mistake) {
        int const calls = sensor_.calls;
        std::string const whole =
            "attribute \"" + attribute.meta()->name() + "\" of class \"Sensor\" is \"" + mistake;
        EXPECT_EQ(TreflectAttribute::error, attribute.set(value)) << whole;
        EXPECT_EQ(whole, attribute.mistake());
        EXPECT_EQ(TipprmiFailure::kMismatch, attribute.store(value).code()) << whole;
        EXPECT_EQ(calls, sensor_.calls) << whole;
        EXPECT_TRUE(log_.find(whole)) << whole;
    }
    template <class T>
    void expectUnreadableAs(TreflectAttribute& attribute, T const& before,
                            std::string const& mistake, bool isTold = true) {
        T value = before;
        EXPECT_EQ(TreflectAttribute::error, attribute.get(value)) << mistake;
        EXPECT_EQ(before, value) << mistake;
        EXPECT_EQ(TipprmiFailure::kMismatch, attribute.template fetch<T>().code()) << mistake;
        EXPECT_NE(std::string::npos, attribute.mistake().find(mistake)) << attribute.mistake();
        std::vector<std::string> const lines = log_.texts();
        EXPECT_EQ(isTold, std::count(lines.begin(), lines.end(), attribute.mistake()) > 0)
            << attribute.mistake();
    }

    SensorSkeleton sensor_{TipprmiOID("typed sensor", NSID_UNIT), nullptr, "sensor"};
    TreflectObject handle_{sensor_.getOID()};
};

TEST_F(TypedMembers, TakeNumbersThatLieInTheirRange) {
    EXPECT_EQ(0, attribute("Level").set(30));
    EXPECT_EQ(30u, sensor_.level);
    EXPECT_EQ(0, attribute("Level").set(std::uint8_t{31}));
    EXPECT_EQ(0, attribute("Level").set(true));
    EXPECT_EQ(1u, sensor_.level);
    expectMismatch(attribute("Level"), -1, "unsigned\", out of whose range is \"int\"");
    EXPECT_EQ(0, attribute("Big").set(std::uint64_t{5}));
    expectMismatch(attribute("Big"), ~std::uint64_t{0},
                   "int64\", out of whose range is \"uint64\"");
    EXPECT_EQ(0, attribute("Range").set(std::array<int, 2>{3, -4}));
    expectMismatch(attribute("Range"), std::array<int, 2>{3, 40000},
                   "array<int16, 2>\", out of whose range is \"array<int, 2>\"");
    EXPECT_EQ(0, attribute("Steps").set(std::vector<int>{1, 2}));
    expectMismatch(attribute("Steps"), std::vector<int>{1, -2},
                   "sequence<unsigned>\", out of whose range is \"sequence<int>\"");
    EXPECT_EQ(0, attribute("Spare").set(std::optional<int>(1)));
    expectMismatch(attribute("Spare"), Couple(),
                   "optional<unsigned>\", out of whose range is \"optional<int>\"");

    std::map<std::string, std::vector<WidePair>> pairs{{"a", {}}, {"b", {{1, 2}, {3, 4}}}};
    EXPECT_EQ(0, attribute("Pairs").set(pairs));
    EXPECT_EQ(3, sensor_.pairs["b"].at(1).low);
    pairs["b"][1].low = 0x80000000;
    EXPECT_EQ(TreflectAttribute::error, attribute("Pairs").set(pairs));
    EXPECT_EQ(3, sensor_.pairs["b"].at(1).low);
}

TEST_F(TypedMembers, RefuseValuesOfAnotherTypeBeforeTheyAreSent) {
    expectMismatch(attribute("Level"), "thirty", "unsigned\", not \"string\"");
    expectMismatch(attribute("Level"), 30ull, "unsigned\", not \"uint64\"");
    expectMismatch(attribute("Level"), TipprmiAny().insert(1u), "unsigned\", not \"any\"");
    expectMismatch(attribute("Heat"), 1.5f, "double\", not \"float\"");
    expectMismatch(attribute("Steps"), std::array<unsigned, 2>{},
                   "sequence<unsigned>\", not \"array<unsigned, 2>\"");
    expectMismatch(attribute("Crowd"), handle_, "sequence<object>\", not \"object\"");
}

TEST_F(TypedMembers, AreReadAsWhatTheyAreOnly) {
    TreflectAttribute& level = attribute("Level");
    expectUnreadableAs(level, std::string("before"), "is \"unsigned\", not \"string\"");
    EXPECT_EQ(0, sensor_.calls);
    EXPECT_EQ(7, level.fetch<int>().value());
    sensor_.level = 0xFFFFFFFF;
    expectUnreadableAs(level, 5, "is \"unsigned\", out of the range of \"int\"");
    expectUnreadableAs(level, true, "is \"unsigned\", out of the range of \"bool\"");
    EXPECT_EQ(0xFFFFFFFF, level.fetch<unsigned int>().value());
    EXPECT_EQ("", level.mistake());
    EXPECT_EQ(0xFFFFFFFF, level.fetch<Nameless>().value().bits) << "nobody has named it";
    char unchanged[] = "unchanged";
    char* text = unchanged;
    EXPECT_EQ(TreflectAttribute::error, level.get(text));
    EXPECT_EQ(unchanged, text);
    // A handle tells itself that it leads nowhere.
    TreflectObject object = handle_;
    EXPECT_EQ(0, level.get(object));
    EXPECT_FALSE(object.isConnected());
    EXPECT_EQ(TipprmiFailure::kMismatch, level.fetch<TreflectObject>().code());
}

TEST_F(TypedMembers, AreComparedOnceForEachUseOfAType) {
    Celsius heat;
    for (int i = 0; i < 3; ++i) {
        TreflectObject const handle(sensor_.getOID());
        TreflectAttribute& kept = handle.attribute("Heat");
        EXPECT_EQ(0, kept.get(heat));
        EXPECT_EQ(20.5, heat.degrees);
        EXPECT_EQ(0, kept.set(heat));
        EXPECT_EQ(0, handle.attribute("Heat").get(heat));
    }
    EXPECT_EQ(2, Celsius::named);
}

TEST_F(TypedMembers, TellTypesApartOfWhichOneLiesWhereAnotherOneLay) {
    static char const* named = "double";
    TreflectMetaAttribute const& heat = *attribute("Heat").meta();
    auto const isMisuse = [&heat](char const* id) {
        TreflectValueCheck::Type const type{[] { return std::string(named); }, id};
        return heat.check(type, TreflectValueCheck::Use::kRead)->isMisuse();
    };
    EXPECT_FALSE(isMisuse("Celsius"));
    named = "string";
    EXPECT_TRUE(isMisuse("Label"));
    EXPECT_FALSE(isMisuse("Celsius")) << "compared already";
}

// ---- Elements ----------------------------------------------------------------------------------

TEST_F(TypedMembers, HaveElementsIfTheirTableSaysSo) {
    TreflectAttribute& steps = attribute("Steps");
    EXPECT_EQ(2u, steps[1].fetch<unsigned int>().value());
    EXPECT_EQ(1, steps[0].fetch<int>().value());
    EXPECT_EQ(0xFFFFFFFF, steps[2].fetch<Nameless>().value().bits);
    expectUnreadableAs(steps, 5, "no such element, or one out of the range of \"int\"");
    EXPECT_EQ(100, attribute("Range")[1].fetch<int>().value());
    EXPECT_EQ((std::vector<std::string>{"def"}),
              attribute("Words")[1].fetch<std::vector<std::string>>().value());
    sensor_.crowd.push_back(TreflectObject());
    sensor_.crowd.push_back(handle_);
    TreflectObject object;
    EXPECT_EQ(0, attribute("Crowd")[1].get(object));
    EXPECT_EQ(handle_, object);

    for (int const outside : {3, -2, 0x7FFFFFFF})
        expectUnreadableAs(steps[outside], 5u, "which has no such element", false);
    expectUnreadableAs(attribute("Range")[2], 5, "which has no such element", false);
    expectUnreadableAs(steps[1], std::string("before"), "whose elements are not \"string\"");
    expectUnreadableAs(attribute("Level")[0], 5u, "which has no elements");
    expectMismatch(steps[1], 5u,
                   "sequence<unsigned>\", of which no element can be written by itself");
    EXPECT_EQ(3u, sensor_.steps.size());

    steps.clearIndex();
    EXPECT_EQ(sensor_.steps, steps.fetch<std::vector<unsigned int>>().value());
    // Who says himself that there are elements asks for those that are not there as ever.
    steps.setContainerType(TreflectAttribute::kSequence);
    unsigned int value = 5;
    EXPECT_EQ(0, steps[3].get(value));
    EXPECT_EQ(5u, value);
    EXPECT_EQ(0, steps[1].get(value));
    EXPECT_EQ(2u, value);
}

TEST_F(TypedMembers, AreNoValuesWhenTheObjectAnswersSomethingElse) {
    TreflectAttribute& lies = attribute("Lies");
    std::string text = "before";
    EXPECT_EQ(TreflectAttribute::error, lies[2].get(text));
    EXPECT_EQ("before", text);
    EXPECT_EQ(TipprmiFailure::kUnreadable, lies[2].fetch<std::string>().code());
    EXPECT_EQ(TipprmiFailure::kMismatch, lies[3].fetch<std::string>().code());
}

// ---- Operations --------------------------------------------------------------------------------

template <class... T>
Values values(T const&... value) {
    Values all;
    TreflectParameters::fill(all, value...);
    return all;
}

TEST_F(TypedMembers, TakeArgumentsAsTheirTableTellsThem) {
    TreflectOperation& add = handle_.operation("add");
    auto const sum = add.invoke(values(1u, std::string("four"), true));
    ASSERT_TRUE(sum);
    EXPECT_TRUE(TreflectParameterType("unsigned").print(sum.value()[0]).value() == "10");
    EXPECT_EQ("", add.mistake());

    std::string const takes =
        "operation \"add\" of class \"Sensor\" takes (unsigned, string, bool), ";
    for (auto const& [wrong, mistake] : std::initializer_list<std::pair<Values, std::string>>{
             {values(), "not 0 arguments"},
             {values(1u), "not 1 argument"},
             {values(1u, std::string("four"), true, 2u), "not 4 arguments"},
             {values(1.5, std::string("four"), true), "and argument 1 is something else"},
             {values(1u, 2u, true), "and argument 2 is something else"},
             {values(1u, std::string("four"), 2), "and argument 3 is something else"}}) {
        EXPECT_EQ(TipprmiFailure::kMismatch, add.invoke(wrong).code());
        EXPECT_EQ(takes + mistake, add.mistake());
    }
    EXPECT_TRUE(log_.find(takes + "not 0 arguments"));
    EXPECT_EQ(1, sensor_.calls);

    TreflectOperation& pass = handle_.operation("pass");
    EXPECT_TRUE(pass.invoke(values(1, Nameless{2}, 3)));
    EXPECT_FALSE(pass.invoke(values(1, Nameless{2})));
    EXPECT_EQ("operation \"pass\" of class \"Sensor\" takes (int, ?, int), not 2 arguments",
              pass.mistake());
    EXPECT_TRUE(handle_.operation("reset").invoke(values(1))) << "its table tells no types";
    EXPECT_EQ(0, add.call()) << "without arguments, whatever the table tells";
}

}  // namespace
