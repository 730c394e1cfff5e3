// The encodings of numbers of all sizes, enums, containers and structs, and what a reader refuses.
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <functional>
#include <memory>

#include "LogCapture.h"
#include "WireText.h"
#include "ipprmi.h"

using testsupport::LogCapture;

namespace {

enum class Color : std::uint8_t { kRed = 0, kGreen = 7, kBlue = 255 };
enum Plain { kFew = -3, kMany = 1000000 };

struct Limits {
    unsigned int highest = 0;
    bool armed = false;
    REFLECTORB_STRUCT(Limits, highest, armed)

    bool operator==(Limits const& other) const {
        return highest == other.highest && armed == other.armed;
    }
};

struct Node {
    std::int16_t value = 0;
    std::vector<Node> children;
    REFLECTORB_STRUCT(Node, value, children)

    bool operator==(Node const& other) const {
        return value == other.value && children == other.children;
    }
};

/** A chain of nodes, one within the other. */
Node chain(int length) {
    Node top;
    for (int i = 1; i < length; ++i) {
        Node above;
        above.children.push_back(std::move(top));
        top = std::move(above);
    }
    return top;
}

struct Form {
    std::string type;
    std::string expected;
    std::string written;
    std::function<bool()> survives;                            // read back, it is the same
    std::function<bool(TipprmiStream&, std::string&)> failed;  // tells whether a read has failed
};

template <class T>
Form form(char const* expected, T const& value) {
    return {typeid(T).name(), wire::bare(expected), wire::form(value),
            [value] {
                TipprmiStream stream(1);
                stream << value << 77u;
                T read = tipprmiBlank<T>();
                unsigned int after = 0;
                stream >> read >> after;
                return read == value && after == 77u && !stream.hasUnmarshallingFailed();
            },
            [](TipprmiStream& stream, std::string& rewritten) {
                T read = tipprmiBlank<T>();
                stream >> read;
                rewritten = wire::form(read);
                return stream.hasUnmarshallingFailed();
            }};
}

using Text = std::string;
using Bytes = std::vector<std::uint8_t>;
using Map = std::map<Text, int>;
using Variant = std::variant<std::monostate, int, Text, int>;

std::vector<Form> const& forms() {
    static unsigned int const inHostOrder = 0x04010203;
    static std::string const termination = wire::hex(&inHostOrder, sizeof inHostOrder);
    static std::vector<Form> const all{
        form<unsigned int>("00000001", 1u),
        form<unsigned int>("FEDCBA98", 0xFEDCBA98u),
        form<bool>("00000001", true),
        form<bool>("00000000", false),
        form<Text>("00000003 610062", Text("a\0b", 3)),
        form<Text>("00000000", ""),
        form<Transport::TerminationId>(termination.c_str(), Transport::TerminationId(inHostOrder)),
        form<std::int8_t>("FFFFFF80", -128),
        form<std::uint8_t>("000000FF", 255),
        form<std::int16_t>("FFFF8000", -32768),
        form<std::uint16_t>("0000FFFF", 65535),
        form<std::int32_t>("80000000", INT_MIN),
        form<std::int32_t>("FFFFFFFE", -2),
        form<std::int64_t>("FFFFFFFF FFFFFFFE", -2),
        form<std::uint64_t>("01234567 89ABCDEF", 0x0123456789ABCDEFu),
        form<float>("C0200000", -2.5f),
        form<double>("40091EB8 51EB851F", 3.14),
        form<double>("FFF00000 00000000", -HUGE_VAL),
        form<double>("00000000 00000001", 4.9406564584124654e-324),
        form<char>("00000041", 'A'),
        form<char>("000000E4", '\xE4'),
        form<wchar_t>("000020AC", L'\u20AC'),
        form<Color>("000000FF", Color::kBlue),
        form<Plain>("FFFFFFFD", kFew),
        form<std::vector<int>>("00000002 00000001 FFFFFFFF", {1, -1}),
        form<std::vector<double>>("00000002 3FF00000 00000000 BFF00000 00000000", {1, -1}),
        form<std::vector<bool>>("00000003 00000001 00000000 00000001", {true, false, true}),
        form<std::vector<Color>>("00000001 00000007", {Color::kGreen}),
        form<std::vector<Text>>("00000002 00000001 61 00000000", {"a", ""}),
        form<std::vector<std::vector<char>>>("00000002 00000001 00000062 00000000", {{'b'}, {}}),
        form<Bytes>("00000003 0080FF", {0, 128, 255}),
        form<std::vector<Bytes>>("00000002 00000001 07 00000000", {{7}, {}}),
        form<std::wstring>("00000002 000000E4 000020AC", L"\u00E4\u20AC"),
        form<std::array<std::uint8_t, 2>>("00000001 000000FF", {1, 255}),
        form<std::array<Text, 2>>("00000001 61 00000000", {"a", ""}),
        form<Map>("00000002 00000001 61 00000001 00000001 62 FFFFFFFF", {{"b", -1}, {"a", 1}}),
        form<std::optional<int>>("00000001 FFFFFFFF", -1),
        form<std::optional<Text>>("00000000", std::nullopt),
        form<Variant>("00000000", {}),
        form<Variant>("00000002 00000001 78", Text("x")),
        form<Variant>("00000003 00000005", Variant(std::in_place_index<3>, 5)),
        form<std::pair<int, Text>>("00000001 00000000", {1, ""}),
        form<std::tuple<bool, double>>("00000001 00000000 00000000", {true, 0.0}),
        form<Limits>("00000050 00000001", {80, true}),
        form<std::vector<Limits>>("00000001 00000050 00000000", {{80, false}}),
        form<Node>("00000000 00000001 00000000 00000001 00000000 00000000", chain(3)),
        form<std::vector<std::monostate>>("00000002", std::vector<std::monostate>(2)),
    };
    return all;
}

TEST(Types, HaveTheFormOfTheTableAndSurviveTheWay) {
    for (Form const& form : forms()) {
        EXPECT_EQ(form.expected, form.written) << form.type;
        EXPECT_TRUE(form.survives()) << form.type;
    }
    EXPECT_EQ("000000020102", wire::form(TipprmiByteView{Bytes{1, 2}.data(), 2}));
    EXPECT_EQ("0000000161", wire::form(std::string_view("ab").substr(0, 1)));
}

TEST(Types, ThatBreakOffAnywhereFail) {
    for (Form const& form : forms()) {
        std::vector<unsigned char> const whole = wire::bytes(form.expected);
        for (std::size_t size = 0; size < whole.size(); ++size) {
            TipprmiStream stream(whole.data(), static_cast<int>(size));
            std::string rewritten;
            EXPECT_TRUE(form.failed(stream, rewritten)) << form.type << " of " << size;
        }
    }
}

template <class T>
Form refused(char const* bytes, T const& blank = T()) {
    Form made = form<T>(bytes, blank);
    return made;
}

TEST(Types, OutOfRangeOrOfUnknownMakeAreRefusedAndLeaveNothing) {
    Form const all[] = {
        refused<std::int8_t>("00000080"),
        refused<std::uint8_t>("00000100"),
        refused<std::uint8_t>("FFFFFFFF"),
        refused<std::int16_t>("FFFF7FFF"),
        refused<std::uint16_t>("00010000"),
        refused<char>("FFFFFFE4"),
        refused<char16_t>("00010000"),
        refused<Color>("00000100"),
        refused<std::vector<std::uint16_t>>("00000002 00000001 00010000"),
        refused<std::array<std::uint8_t, 2>>("00000001 00000100"),
        refused<std::vector<Text>>("00000003 00000000 00000000 00000001"),
        refused<std::optional<int>>("00000002 00000001 00000001"),
        refused<Variant>("00000004 00000001"),
        refused<Variant>("FFFFFFFF 00000001"),
        // Counts that what is left cannot hold.
        refused<std::vector<double>>("00000002 00000000 00000000 00000000"),
        refused<std::vector<int>>("FFFFFFFF 00000000"),
        refused<std::vector<bool>>("40000000 00000000"),
        refused<std::vector<std::tuple<int, double>>>(
            "00000002 00000000 00000000 00000000 00000000"),
        refused<std::vector<std::array<Text, 1000>>>("00000001 00000000"),
        refused<std::vector<std::monostate>>("00010001"),
        refused<Bytes>("7FFFFFFF 00"),
        refused<std::wstring>("00000002 00000041"),
        refused<std::map<int, std::uint64_t>>("00000001 00000000 00000000"),
    };
    LogCapture const log;
    for (Form const& form : all) {
        std::vector<unsigned char> const bytes = wire::bytes(form.expected);
        TipprmiStream stream(bytes.data(), static_cast<int>(bytes.size()));
        std::string rewritten;
        EXPECT_TRUE(form.failed(stream, rewritten)) << form.expected;
        EXPECT_EQ(form.written.substr(0, 8), rewritten.substr(0, 8)) << form.expected;
    }
}

TEST(Types, NestedTooDeepAreNeitherWrittenNorRead) {
    int const deepest = TipprmiStream::kMaxNesting;
    TipprmiStream stream(1);
    Node read;
    stream << chain(deepest) >> read;
    EXPECT_EQ(chain(deepest), read);
    EXPECT_FALSE(stream.hasUnmarshallingFailed());

    LogCapture const log;
    stream << chain(deepest + 2);
    EXPECT_TRUE(stream.hasMarshallingFailed());
    EXPECT_EQ(1u, log.count(3, "values are nested more than 64 deep"));
    TipprmiStream hostile(1);
    for (int i = 0; i < 100000; ++i)
        hostile << 0 << 1u;
    hostile >> read;
    EXPECT_TRUE(hostile.hasUnmarshallingFailed());
    EXPECT_FALSE(hostile.hasMarshallingFailed());
}

TEST(Types, OfAMapTheLastOfEqualKeysCounts) {
    TipprmiStream stream(1);
    stream << 3u << "a" << 1 << "b" << 2 << "a" << 3;
    Map map{{"old", 1}};
    stream >> map;
    EXPECT_EQ((Map{{"a", 3}, {"b", 2}}), map);
}

TEST(Types, TravelAsElementsArgumentsAndInAnys) {
    TipprmiSequence<double> numbers;
    numbers.push_back(1.5);
    numbers.push_back(DBL_MAX);
    TipprmiAny any;
    any.insert(numbers);
    TipprmiSequence<double> read;
    any.extract(read);
    ASSERT_EQ(2u, read.getLength());
    EXPECT_EQ(DBL_MAX, read[1]);
    TipprmiSequence<std::int8_t> narrow;
    TipprmiStream stream("\0\0\0\1\0\0\1\0", 8);
    stream >> narrow;
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    TipprmiStream claimed("\0\0\0\3\0\0\0\1", 8);
    claimed >> narrow;
    EXPECT_EQ(3u, narrow.getLength()) << "missing elements of this kind of sequence are zeros";
}

/** Has neither operators nor members to list. */
struct Opaque {};
/** Converts to what has operators. */
struct Named {
    operator std::string() const { return "n"; }
};
/** Derives from a struct with members, which are not all. */
struct More : Limits {
    int more = 0;
};

template <class T>
constexpr bool isPassable = tipprmi::isWritable<T>&& tipprmi::isReadable<T>;

static_assert(isPassable<Limits> && isPassable<std::uint64_t> && isPassable<Color>);
static_assert(!tipprmi::isWritable<Opaque> && !tipprmi::isReadable<Opaque>);
static_assert(tipprmi::isWritable<More> == false, "members would be lost");
static_assert(tipprmi::isWritable<Named> && !tipprmi::isReadable<Named>);
static_assert(tipprmi::isWritable<char const*> && tipprmi::isWritable<char*>);
static_assert(tipprmi::isWritable<char[4]>);
static_assert(!tipprmi::isWritable<int*> && !tipprmi::isWritable<void const*>);
static_assert(!tipprmi::isWritable<std::unique_ptr<int>> && !tipprmi::isWritable<int[4]>);
static_assert(!tipprmi::isWritable<int (*)()> && !tipprmi::isWritable<int Limits::*>);
static_assert(!tipprmi::isReadable<int*> && !tipprmi::isReadable<std::string_view>);

}  // namespace
