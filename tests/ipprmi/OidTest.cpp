#include "ipprmi/TipprmiOID.h"

#include <gtest/gtest.h>

#include "WireBytes.h"

namespace {

TEST(Oid, ReadingTakesTheTextAndKeepsTheNamespace) {
    TipprmiStream stream(10);
    stream << TipprmiOID("obj", static_cast<NamespaceId>(5)) << TipprmiOID("", NSID_UNIT) << 7u;
    EXPECT_EQ("000000036F626A00000005000000000000000100000007", hex(stream));
    EXPECT_EQ("0000000000000002", wireForm(TipprmiOID(nullptr, NSID_NODE)));
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
