#include <gtest/gtest.h>

#include <numeric>

#include "WireText.h"
#include "ipprmi/CallHelper.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiOID.h"
#include "ipprmi/TipprmiSequence.h"

namespace {

template <class T>
T extracted(TipprmiAny& any) {
    T value{};
    any.extract(value);
    return value;
}

TEST(Any, HoldsTheLastValueAndGivesItAsOftenAsAsked) {
    TipprmiAny any;
    EXPECT_TRUE(any.empty());
    EXPECT_EQ("00000000", wire::form(any));
    any.insert(std::string(200, 'l')).insert(7u);
    EXPECT_EQ("0000000400000007", wire::form(any));
    EXPECT_EQ(7u, extracted<unsigned int>(any));
    EXPECT_EQ(7u, extracted<unsigned int>(any));
    EXPECT_EQ(7, extracted<int>(any)) << "the bytes are read as the type asked for";
    EXPECT_EQ(7u, extracted<std::string>(any).size());
    EXPECT_TRUE(any.hasUnmarshallingFailed());
    EXPECT_EQ(0u, extracted<unsigned int>(any)) << "a failure stays";
    any.insert(8u);
    EXPECT_EQ(8u, extracted<unsigned int>(any));
}

TEST(Any, ReadingEmptiesItFirst) {
    TipprmiStream stream(100);
    stream << 0 << -3 << 5;
    for (int i = 0; i < 2; ++i) {
        TipprmiAny any;
        any.insert(1u);
        stream >> any;
        EXPECT_TRUE(any.empty());
    }
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    TipprmiAny cut;
    stream >> cut;
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
    EXPECT_EQ("000000050000000000", wire::form(cut)) << "missing bytes are zeros";
}

TEST(Any, GoesIntoAStreamAndComesOutOfItWithoutALength) {
    TipprmiAny any;
    TipprmiStream stream(100);
    any.writeBare(stream);
    any.insert("abc").writeBare(stream) << 7u;
    EXPECT_EQ("0000000361626300000007", wire::hex(stream));

    TipprmiAny copy;
    EXPECT_TRUE(copy.takeBare(stream, 7));
    any = copy;
    EXPECT_FALSE(copy.takeBare(stream, 5)) << "more than is left";
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    EXPECT_EQ("abc", extracted<std::string>(copy));
    EXPECT_TRUE(copy.takeRest(stream));
    EXPECT_EQ(7u, extracted<unsigned int>(copy));
    EXPECT_EQ("abc", extracted<std::string>(any)) << "copies are independent";
    EXPECT_TRUE(copy.takeRest(stream));
    EXPECT_TRUE(copy.empty());
    stream.rewind();
    EXPECT_TRUE(any.takeBare(stream, -3));
    EXPECT_TRUE(any.empty());
    EXPECT_EQ(11, stream.getUnreadSize());

    EXPECT_TRUE(any.setData("0123", 4));
    EXPECT_TRUE(any.setData(any.getDataPtr() + 1, 2)) << "of its own";
    EXPECT_EQ("000000023132", wire::form(any));
    EXPECT_FALSE(any.setData(nullptr, 17 << 20)) << "no message holds it";
    EXPECT_EQ(2, any.getDataSize());
}

TEST(Sequence, IsACountAndItsElements) {
    TipprmiSequence<unsigned int, 0u> numbers;
    numbers.push_back(7);
    numbers.push_back(9);
    EXPECT_EQ("000000020000000700000009", wire::form(numbers));
    EXPECT_EQ(7u, numbers[5]) << "an index out of range yields the first";
    numbers.setLength(3);
    EXPECT_EQ(0u, numbers[2]);
    for (unsigned int& number : numbers)
        ++number;
    EXPECT_EQ(18u, std::accumulate(numbers.begin(), numbers.end(), 0u) - numbers[2]);

    TipprmiSequence<TipprmiAny, 0u> anys;
    anys.setLength(2);
    anys[1].insert(true);
    EXPECT_EQ("00000002000000000000000400000001", wire::form(anys));
    TipprmiStream empty(100);
    empty << 1u << 0;
    empty >> anys;
    EXPECT_TRUE(anys[0].empty()) << "elements of a former read do not shine through";
}

TEST(Sequence, CountIsBoundedByWhatCouldHaveArrived) {
    struct {
        unsigned int count;
        bool honoured;
    } const cases[] = {{65536, true}, {65537, false}, {0x80000000u, false}, {0xFFFFFFFFu, false}};
    for (auto const& [count, honoured] : cases) {
        TipprmiStream stream(100);
        stream << count << 3u;
        TipprmiSequence<unsigned int, 0u> numbers;
        numbers.setLength(2);
        stream >> numbers;
        EXPECT_TRUE(stream.hasUnmarshallingFailed()) << count;
        EXPECT_EQ(honoured ? count : 0, numbers.getLength());
        EXPECT_EQ(honoured ? 3u : 0u, numbers.getLength() ? numbers[0] : 0);
    }
    // A million, of which the first is a text that has not come.
    std::string const nonsense = std::string("\0\x0F\x42\x40", 4) + std::string(4'000'000, '\x7F');
    TipprmiStream claimed(nonsense.data(), static_cast<int>(nonsense.size()));
    TipprmiSequence<std::string> texts;
    claimed >> texts;
    EXPECT_TRUE(claimed.hasUnmarshallingFailed());
    EXPECT_EQ(65536u, texts.getLength()) << "no more of what is missing";
    TipprmiSequence<unsigned int, 0u> many;
    many.setLength(70000);
    many[69999] = 5;
    TipprmiStream stream(1);
    stream << many;
    TipprmiSequence<unsigned int, 0u> read;
    stream >> read;
    EXPECT_FALSE(stream.hasUnmarshallingFailed());
    ASSERT_EQ(70000u, read.getLength());
    EXPECT_EQ(5u, read[69999]);
}

TEST(Oid, ReadingTakesTheTextAndKeepsTheNamespace) {
    TipprmiStream stream(10);
    stream << TipprmiOID("obj", static_cast<NamespaceId>(5)) << TipprmiOID("", NSID_UNIT) << 7u;
    EXPECT_EQ("000000036F626A00000005000000000000000100000007", wire::hex(stream));
    EXPECT_EQ("0000000000000002", wire::form(TipprmiOID(nullptr, NSID_NODE)));
    TipprmiOID read("former", NSID_NODE);
    TipprmiOID cleared("former", NSID_NODE);
    unsigned int after = 0;
    stream >> read >> cleared >> after;
    EXPECT_EQ(TipprmiOID("obj", NSID_NODE), read);
    EXPECT_EQ(nullptr, cleared.getIdString());
    EXPECT_EQ(7u, after);
    stream >> read;
    EXPECT_EQ(nullptr, read.getIdString()) << "a failed read gives an empty name";
    EXPECT_TRUE(stream.hasUnmarshallingFailed());
}

TEST(Oid, OrdersByNamespaceThenText) {
    TipprmiOID const a("a", NSID_NODE);
    TipprmiOID const b("b", NSID_UNIT);
    TipprmiOID const c("c", NSID_UNIT);
    TipprmiOID const negative("z", static_cast<NamespaceId>(-1));
    TipprmiOID const unnamed("", NSID_UNIT);
    EXPECT_TRUE(negative < b && b < c && b < a && unnamed < a);
    EXPECT_FALSE(c < b);
    EXPECT_FALSE(unnamed < b || b < unnamed || unnamed < unnamed);
    EXPECT_NE(b, c);
    EXPECT_NE(b, TipprmiOID("b", NSID_NODE));
    EXPECT_NE(b, unnamed);
    EXPECT_EQ(unnamed, unnamed);
}

TEST(Oid, ExtensionIsAlwaysNamedInTheUnit) {
    TipprmiOID const object("obj", NSID_NODE);
    TipprmiOID renamed = object;
    renamed.setIdString("other");
    EXPECT_STREQ("obj", object.getIdString()) << "copies share their text until one is renamed";
    EXPECT_EQ(TipprmiOID("obj_1", NSID_UNIT), object + "_1");
    EXPECT_EQ(TipprmiOID("obj_1", NSID_UNIT), object + std::string("_1"));
    TipprmiOID const copy = TipprmiOID("", NSID_NODE) + "_1";
    EXPECT_EQ(nullptr, copy.getIdString());
    EXPECT_EQ(NSID_NODE, copy.getNamespaceId());
}

struct Counted : TipprmiRCObject {
    explicit Counted(int* living) : alive(living) { ++*alive; }
    Counted(Counted const& other) : TipprmiRCObject(other), alive(other.alive) { ++*alive; }
    ~Counted() override { --*alive; }
    void keepPrivate() { setShareable(false); }
    int* alive;
};

TEST(RCPtr, CountsItsHoldersAndCopiesWhatIsNotShareable) {
    int alive = 0;
    {
        TipprmiRCPtr<Counted> const first(new Counted(&alive));
        TipprmiRCPtr<Counted> second(first);
        EXPECT_EQ(first.get(), second.get());
        EXPECT_EQ(2, first->references());
        TipprmiRCPtr<Counted> const& itself = second;
        second = itself;
        EXPECT_EQ(2, first->references());
        first->keepPrivate();
        TipprmiRCPtr<Counted> const own(first);
        EXPECT_NE(first.get(), own.get());
        EXPECT_EQ(1, own->references());
        EXPECT_EQ(2, alive);
        second = nullptr;
        EXPECT_EQ(1, first->references());
    }
    EXPECT_EQ(0, alive);
}

}  // namespace
