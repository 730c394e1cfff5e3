// Types of arguments and results by name: text to encoded value, and back.
#include "BrokerTest.h"
#include "WireText.h"

namespace {

using Type = TreflectParameterType;

std::string hexadecimal(TipprmiAny const& any) {
    return wire::hex(any.getDataPtr(), static_cast<std::size_t>(any.getDataSize()));
}

/** An any with these bytes. */
TipprmiAny content(std::string const& bytes) {
    TipprmiAny any;
    EXPECT_TRUE(any.setData(bytes.data(), static_cast<int>(bytes.size())));
    return any;
}

std::string repeated(std::string const& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i)
        all += text;
    return all;
}

std::string deep(int sequences) {
    return repeated("sequence<", sequences) + "int" + repeated(">", sequences);
}

TEST(ParameterTypeName, IsToldFromOtherText) {
    for (char const* name :
         {"int", " unsigned ", "int8", "uint64", "double", "bytes", "void", "{oid}",
          "{{{int}},int}", "{int,bool,\tobject}", "sequence<int>",
          "sequence < { string , sequence<any> } >", "array<float, 3>",
          "optional<map<string, sequence<char>>>", "enum{A}",
          "enum Color { kRed = -1, kGreen, kBlue=0x10 }", "struct Empty{}", "struct{int a, int b}",
          "union U{void none, int a}", "union{int, string}",
          // Names of members stand behind their types, whatever they are.
          "unsigned limit", "struct{unsigned bytes, string object}", "{unsigned limit, bool armed}",
          "struct A::B{int x}", "struct Node{int value, sequence<Node> children}",
          "{struct P{int x, int y} a, P b}", "struct A{optional<B> b, struct B{int n} c}"})
        EXPECT_TRUE(Type(name).isValid()) << name;
    for (char const* name :
         {"", " ", "Int", "integer", "int int int", "int,", "{}", "{int,}", "{int", "int}",
          "sequence", "sequence<>", "sequence<int", "sequence<int>>", "sequence<int,int>", "<int>",
          "int<int>", "array<int>", "array<int,0>", "array<int,99999999999>", "map<int>",
          "map<int,int,int>", "optional<>", "enum{}", "enum E{A,A}", "enum{A=x}",
          "enum{A=4294967296}", "enum{1}", "struct S", "struct int{int a}", "union{}",
          "struct{int a, bool}", "struct{int a, int a}", "Unknown", "sequence<Unknown>",
          "unsigned a b", "unsigned a::b", "struct{int}x y",
          // What could go on for ever, or have no bytes for any number of elements.
          "struct N{N next}", "struct N{int i, array<N,2> n}", "struct A{struct B{A a} b}",
          "sequence<void>", "array<struct{},9>", "map<void,void>", "struct{void a}",
          "struct{struct E{} a, E b}"})
        EXPECT_FALSE(Type(name).isValid()) << name;
    EXPECT_FALSE(Type(std::string("int\0", 4)).isValid());
    EXPECT_EQ(Type(" {int , bool} ").name(), " {int , bool} ");
}

TEST(ParameterTypeName, MayBeNestedToABound) {
    EXPECT_TRUE(Type(deep(Type::kMaxDepth - 1)).isValid());
    EXPECT_FALSE(Type(deep(Type::kMaxDepth)).isValid());
    for (char const* opening : {"{", "sequence<", "{int,"})
        EXPECT_FALSE(Type(repeated(opening, 200000)).isValid());
}

TEST(ParameterTypeName, MayReferToTypesThatAreGivenAlong) {
    TreflectTypes types;
    for (char const* definition :
         {"struct Tree{Color color, map<string, Tree> branches}", "enum Color{kRed, kGreen}",
          "union Either{Tree tree, Color color}", "struct Loop{Pool pool}",
          "struct Pool{Loop loop}", "struct Open{Missing missing}"})
        EXPECT_TRUE(types.add(definition)) << definition;
    for (char const* other :
         {"int", "sequence<int>", "{int}", "struct{int a}", "Tree", "", "struct A{"})
        EXPECT_FALSE(types.add(other)) << other;
    for (char const* name : {"Tree", "sequence<Either>", "Color color"})
        EXPECT_TRUE(Type(name, types).isValid()) << name;
    for (char const* name : {"Loop", "sequence<Pool>", "Open", "Missing", "Tree tree tree"})
        EXPECT_FALSE(Type(name, types).isValid()) << name;
    TipprmiAny any;
    ASSERT_TRUE(Type("Tree", types).parse("{branches: {leaf: {kGreen, {}}}, color: kRed}", any));
    EXPECT_EQ("{color: kRed, branches: {\"leaf\": {color: kGreen, branches: {}}}}",
              Type("Tree", types).print(any).value());
    // A name in the text itself goes before those of the table.
    EXPECT_TRUE(Type("struct Tree{int n, optional<Tree> sub}", types).parse("{1, [{2, []}]}", any));
    EXPECT_EQ("limit", Type("unsigned limit").label());

    // A chain of types, each of which has twice the next, is no more work than its text.
    TreflectTypes chain;
    for (int i = 0; i < 300; ++i) {
        std::string const next = "T" + std::to_string(i + 1);
        chain.add("struct T" + std::to_string(i) + "{" + next + " a, " + next + " b}");
    }
    chain.add("struct T300{int i}");
    EXPECT_TRUE(Type("T200", chain).isValid());
    EXPECT_FALSE(Type("T200", chain).parse("{1, 2}", any));
    EXPECT_FALSE(Type("T200", chain).accepts(content("1234")));
}

TEST(ParameterTypeName, TellsWhichTypesHaveOneForm) {
    struct {
        char const* a;
        char const* b;
        bool same;
    } const pairs[] = {
        {"int", "unsigned", true},
        {"enum{A}", "uint8", true},
        {"int", "float", false},
        {"int64", "uint64", true},
        {"int64", "double", false},
        {"string", "bytes", false},
        {"sequence<int>", "sequence<bool>", true},
        {"sequence<int>", "sequence<int64>", false},
        {"sequence<int>", "optional<int>", false},
        {"{int, string}", "struct S{unsigned a, string b}", true},
        {"{int, string}", "{int, string, int}", false},
        {"array<int,2>", "{int, int}", true},
        {"{int, int}", "array<int,3>", false},
        {"array<int,2>", "array<int,3>", false},
        {"{int}", "int", true},
        {"union{int, string}", "union{int, bytes}", false},
        {"struct N{int v, sequence<N> n}", "struct M{bool v, sequence<M> m}", true},
        {"struct N{int v, sequence<N> n}", "struct M{bool v, sequence<sequence<M>> m}", false},
        {"int", "no type", false},
    };
    for (auto const& [a, b, same] : pairs) {
        EXPECT_EQ(same, Type(a).hasFormOf(Type(b))) << a << " and " << b;
        EXPECT_EQ(same, Type(b).hasFormOf(Type(a))) << b << " and " << a;
    }
}

class ParameterTypeText : public PermittedTest {};
class ParameterTypeBytes : public PermittedTest {};

struct Value {
    char const* type;
    char const* text;
    char const* encoding;
    char const* printed;
};

Value const kValues[] = {
    {"int", "42", "0000002A", "42"},
    {"int", " -1 ", "FFFFFFFF", "-1"},
    {"int", "0x10", "00000010", "16"},
    {"int", "2147483647", "7FFFFFFF", "2147483647"},
    {"int", "-2147483648", "80000000", "-2147483648"},
    {"unsigned", "0xfFfFfFfF", "FFFFFFFF", "4294967295"},
    {"bool", "true", "00000001", "true"},
    {"bool", "0", "00000000", "false"},
    {"string", "\"text with \\\"quotes\\\"\"", "0000001274657874207769746820 2271756F74657322",
     "\"text with \\\"quotes\\\"\""},
    {"string", " bare, and [whole] ", "00000011 626172652C20616E64205B77686F6C655D",
     "\"bare, and [whole]\""},
    {"string", "", "00000000", "\"\""},
    {"string", "\"\\n\\t\\r\\\\\\x00\\x7f\\xC3\\xA4\"", "00000008 0A090D5C007FC3A4",
     "\"\\n\\t\\r\\\\\\x00\\x7F\xC3\xA4\""},
    {"oid", "lamp", "00000004 6C616D70 00000001", "\"lamp\""},
    {"oid", "lamp@node", "00000004 6C616D70 00000002", "\"lamp\"@node"},
    {"oid", "\"lamp\" @ 7", "00000004 6C616D70 00000007", "\"lamp\"@7"},
    {"oid", "\"l@node\"@unit", "00000006 6C406E6F6465 00000001", "\"l@node\""},
    {"oid", "a@b@-1", "00000003 614062 FFFFFFFF", "\"a@b\"@-1"},
    {"oid", "a@b", "00000003 614062 00000001", "\"a@b\""},
    {"oid", "", "00000000 00000001", "\"\""},
    {"object", "", "0000000B 496E76616C696453747562 00000001 00000000 00000000", "\"\""},
    {"any", "0x", "00000000", "0x"},
    {"any", "0x0a0B", "00000002 0A0B", "0x0A0B"},
    {"any", "unsigned(42)", "00000004 0000002A", "0x0000002A"},
    {"any", "{int, string}({1, go on})", "0000000D 00000001 00000005 676F206F6E",
     "0x0000000100000005676F206F6E"},
    {"any", "any(any(0x01))", "00000009 00000005 00000001 01", "0x000000050000000101"},
    {"sequence<int>", "[1,2 , 3]", "00000003 00000001 00000002 00000003", "[1, 2, 3]"},
    {"sequence<int>", "[ ]", "00000000", "[]"},
    {"sequence<string>", "[a b , \",\"]", "00000002 00000003 612062 00000001 2C",
     "[\"a b\", \",\"]"},
    {"{int,bool}", "{1, true}", "00000001 00000001", "{1, true}"},
    {"int8", "-128", "FFFFFF80", "-128"},
    {"uint16", "0xFFFF", "0000FFFF", "65535"},
    {"int64", "-9223372036854775808", "80000000 00000000", "-9223372036854775808"},
    {"uint64", "0xffffffffffffffff", "FFFFFFFF FFFFFFFF", "18446744073709551615"},
    {"float", "-2.5", "C0200000", "-2.5"},
    {"double", "0.1", "3FB99999 9999999A", "0.1"},
    {"double", "-1e300", "FE37E43C 8800759C", "-1e+300"},
    {"double", "inf", "7FF00000 00000000", "inf"},
    {"char", "x", "00000078", "\"x\""},
    {"char", "\"\\xE4\"", "000000E4", "\"\xE4\""},
    {"bytes", "0x00fF", "00000002 00FF", "0x00FF"},
    {"bytes", "0x", "00000000", "0x"},
    {"array<bool,2>", "[1, false]", "00000001 00000000", "[true, false]"},
    {"optional<string>", "[none]", "00000001 00000004 6E6F6E65", "[\"none\"]"},
    {"optional<optional<int>>", "[[]]", "00000001 00000000", "[[]]"},
    {"map<string,int>", "{a: 1, \"b:\": -1}",
     "00000002 00000001 61 00000001 00000002 623A FFFFFFFF", "{\"a\": 1, \"b:\": -1}"},
    {"map<int,bool>", "{}", "00000000", "{}"},
    {"enum Color{kRed=-1, kGreen, kBlue=9}", "kRed", "FFFFFFFF", "kRed"},
    {"enum Color{kRed=-1, kGreen, kBlue=9}", "kGreen", "00000000", "kGreen"},
    {"enum{kA}", "77", "0000004D", "77"},
    {"struct Limits{unsigned limit, bool armed}", "{armed: true, limit: 80}", "00000050 00000001",
     "{limit: 80, armed: true}"},
    {"{unsigned limit, string s}", "{80, limit: x}", "00000050 00000008 6C696D69743A2078",
     "{limit: 80, s: \"limit: x\"}"},
    {"struct Empty{}", "{}", "", "{}"},
    {"union{int, string}", "{1: x y}", "00000001 00000003 782079", "{1: \"x y\"}"},
    {"union U{void none, int a}", "{none: {}}", "00000000", "{none: {}}"},
    {"struct Node{int v, sequence<Node> sub}", "{1, [{2, []}]}",
     "00000001 00000001 00000002 00000000", "{v: 1, sub: [{v: 2, sub: []}]}"},
    {"sequence<{oid,sequence<bool>}>", "[{x@node,[1]},{y,[]}]",
     "00000002 00000001 78 00000002 00000001 00000001 00000001 79 00000001 "
     "00000000",
     "[{\"x\"@node, [true]}, {\"y\", []}]"},
};

TEST_F(ParameterTypeText, IsEncodedAndPrintedAndTheSameAgain) {
    for (Value const& value : kValues) {
        SCOPED_TRACE(std::string(value.type) + ": " + value.text);
        Type const type(value.type);
        TipprmiAny any;
        ASSERT_TRUE(type.parse(value.text, any));
        EXPECT_EQ(hexadecimal(any), wire::bare(value.encoding));
        auto const printed = type.print(any);
        ASSERT_TRUE(printed);
        EXPECT_EQ(printed.value(), value.printed);
        TipprmiAny again;
        ASSERT_TRUE(type.parse(printed.value(), again));
        EXPECT_EQ(type.print(again).value(), value.printed);
        // Of a stream its bytes are taken, and no more.
        TipprmiStream stream(100);
        any.writeBare(stream) << 77u;
        TipprmiAny taken;
        ASSERT_TRUE(type.take(stream, taken));
        EXPECT_EQ(hexadecimal(taken), wire::bare(value.encoding));
        unsigned int behind = 0;
        stream >> behind;
        EXPECT_EQ(behind, 77u);
    }
}

TEST_F(ParameterTypeText, ThatIsNoValueIsRefused) {
    struct {
        char const* type;
        std::vector<std::string> texts;
    } const refused[] = {
        {"int",
         {"", "-", "x", "1 2", "1.5", "2147483648", "-2147483649", "0x80000000", "+1", "0x", "--1",
          "99999999999999999999999", "0x1FFFFFFFFFFFFFFFF", "-0x-1", "[1]"}},
        {"unsigned", {"-1", "4294967296", "0x100000000"}},
        {"bool", {"", "yes", "2", "TRUE"}},
        {"string", {"\"open", "\"a\" b", "\"\\", "\"\\q\"", "\"\\x\"", "\"\\x4\"", "\"\\x-1\""}},
        {"oid", {"\"a\"@", "\"a\"@elsewhere", "\"a\\x00b\"", std::string("a\0b", 3)}},
        {"object", {"nobody.has.this.name"}},
        {"any", {"", "0x1", "0xGG", "42", "int", "int()", "int(1", "nothing(1)"}},
        {"sequence<int>", {"", "[", "[1", "[1,]", "[,1]", "1", "[1]]", "[1}", "{1}"}},
        {"sequence<string>", {"[a,]", "[,]"}},
        {"{int,bool}", {"{}", "{1}", "{1,}", "{1,true,1}", "{1 true}", "[1,true]", "{1,true"}},
        {"int8", {"128", "-129", "0x80"}},
        {"uint8", {"-1", "256"}},
        {"int64", {"9223372036854775808", "-9223372036854775809"}},
        {"uint64", {"-1", "18446744073709551616"}},
        {"float", {"", "1e39", "1,5", "1.5.5", "0x1", "one"}},
        {"double", {"1e999", "+1"}},
        {"char", {"", "ab", "\"\""}},
        {"bytes", {"", "00", "0x0", "\"ab\""}},
        {"array<int,2>", {"[1]", "[1, 2, 3]", "{1, 2}"}},
        {"optional<int>", {"", "1", "[1, 2]", "none"}},
        {"map<int,int>", {"[]", "{1}", "{1: }", "{1: 1,}", "{1: 1"}},
        {"enum Color{kRed}", {"", "Red", "kRed2", "4294967296", "-2147483649"}},
        {"struct S{int a, int b}",
         {"{}", "{a: 1}", "{a: 1, a: 2}", "{a: 1, 2}", "{a: 1, c: 2}", "{a: 1, b: 2, a: 3}"}},
        {"union U{int a, bool b}", {"{}", "{1: 1}", "{c: 1}", "{a: 1, b: true}", "{a}"}},
        {"union{int, bool}", {"{2: 1}", "{-1: 1}", "{4294967296: 1}"}},
        {"no type", {"", "1"}},
    };
    for (auto const& [name, texts] : refused) {
        for (std::string const& text : texts) {
            TipprmiAny any = content("kept");
            EXPECT_FALSE(Type(name).parse(text, any)) << name << ": " << text;
            EXPECT_EQ(hexadecimal(any), "6B657074") << name << ": " << text;
        }
    }
}

TEST_F(ParameterTypeText, IsOfBoundedDepth) {
    TipprmiAny any;
    EXPECT_FALSE(Type("any").parse(repeated("any(", 100000) + "0x" + repeated(")", 100000), any));
    EXPECT_FALSE(Type(deep(Type::kMaxDepth - 1)).parse(repeated("[", 100000), any));
    EXPECT_TRUE(Type(deep(Type::kMaxDepth - 1)).parse(repeated("[", 15) + repeated("]", 15), any));
    EXPECT_FALSE(Type("string").parse(std::string(17u << 20, 'a'), any)) << "no message holds it";
    Type const node("struct Node{sequence<Node> sub}");
    EXPECT_TRUE(node.parse(repeated("{[", 100) + repeated("]}", 100), any));
    EXPECT_FALSE(node.parse(repeated("{[", 100000) + repeated("]}", 100000), any));
    std::string const ones = repeated(std::string("\0\0\0\1", 4), 100000);
    EXPECT_FALSE(node.print(content(ones)));
    EXPECT_FALSE(node.accepts(content(ones)));
}

TEST_F(ParameterTypeText, OfAnObjectLeadsToIt) {
    class Quiet : public TipprmiObjectSkeleton {
        using TipprmiObjectSkeleton::TipprmiObjectSkeleton;
    };
    for (TipprmiOID const& oid : {TipprmiOID("a.name", NSID_UNIT), TipprmiOID("", NSID_UNIT)}) {
        Quiet const object{oid};
        std::string const text =
            Type("object").print(TipprmiAny().insert(*object.getClient())).value();
        EXPECT_EQ(text, '"' + std::string(object.getOID().getIdString()) + '"');
        TipprmiAny found;
        ASSERT_TRUE(Type("object").parse(text, found));
        TreflectObject handle;
        found.extract(handle);
        EXPECT_EQ(handle.getServer(), &object);
    }
}

TEST_F(ParameterTypeBytes, ThatBreakOffAreNotTaken) {
    for (Value const& value : kValues) {
        Type const type(value.type);
        TipprmiAny whole;
        ASSERT_TRUE(type.parse(value.text, whole));
        for (int size = 0; size < whole.getDataSize(); ++size) {
            SCOPED_TRACE(std::string(value.type) + ": " + value.text + ", " + std::to_string(size));
            TipprmiStream stream(whole.getDataPtr(), size);
            TipprmiAny kept = content("kept");
            EXPECT_FALSE(type.take(stream, kept));
            EXPECT_EQ(hexadecimal(kept), "6B657074");
            EXPECT_EQ(stream.getUnreadSize(), size);
            EXPECT_FALSE(stream.hasUnmarshallingFailed());
            TipprmiAny cut;
            ASSERT_TRUE(cut.takeRest(stream));
            EXPECT_EQ(type.print(cut).code(), TipprmiFailure::kUnreadable);
        }
    }
}

TEST_F(ParameterTypeBytes, OfAnotherMakeAreNoValue) {
    std::string const huge = std::string("\x7F\xFF\xFF\xFF") + "1234";
    std::string const most = std::string("\xFF\xFF\xFF\xFF") + "1234";
    for (char const* name : {"string", "oid", "object", "any", "sequence<int>", "sequence<any>"})
        EXPECT_FALSE(Type(name).print(content(huge))) << name;
    EXPECT_FALSE(Type("sequence<sequence<{int,int}>>").print(content(most)));
    std::string const two("\0\0\0\2", 4);
    for (char const* name : {"bool", "optional<int>", "union{int}"}) {
        EXPECT_FALSE(Type(name).accepts(content(two))) << name;
        EXPECT_EQ(std::string(name) == "bool", static_cast<bool>(Type(name).print(content(two))));
    }
    for (char const* name : {"int8", "uint8", "int16", "uint16", "char", "bytes", "map<int,int>"}) {
        EXPECT_FALSE(Type(name).print(content(huge.substr(0, 4)))) << name;
        EXPECT_FALSE(Type(name).accepts(content(huge.substr(0, 4)))) << name;
    }
    EXPECT_FALSE(Type("int").print(content("12345"))) << "more than a value";
    EXPECT_FALSE(Type("int").print(TipprmiAny()));
    EXPECT_FALSE(Type("no type").print(content("1234")));
    TipprmiStream failed("1234", 4);
    failed.stopUnmarshalling();
    TipprmiAny any;
    EXPECT_FALSE(Type("int").take(failed, any));
    EXPECT_FALSE(any.takeBare(failed, 1));
    EXPECT_EQ(
        Type("{string,int}").print(content(std::string("\xFF\xFF\xFF\xFF\0\0\0\1", 8))).value(),
        "{\"\", 1}")
        << "a negative length is none, as streams read it";
}

}  // namespace
