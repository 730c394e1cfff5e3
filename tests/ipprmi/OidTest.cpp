#include "ipprmi/TipprmiOID.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "WireBytes.h"

namespace {

TEST(Oid, EmptyTextIsNoText) {
    for (char const* const text : {"", static_cast<char const*>(nullptr)}) {
        TipprmiOID const oid(text, NSID_NODE);
        EXPECT_EQ(nullptr, oid.getIdString());
        EXPECT_EQ("0000000000000002", wireForm(oid));
    }
}

TEST(Oid, ReadingTakesTheTextAndKeepsTheNamespace) {
    TipprmiStream stream(10);
    stream << TipprmiOID("obj", static_cast<NamespaceId>(5)) << TipprmiOID("", NSID_UNIT) << 7u;
    EXPECT_EQ("000000036F626A00000005000000000000000100000007", hex(stream));
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
    EXPECT_LT(b, a);
    EXPECT_LT(b, c);
    EXPECT_FALSE(c < b);
    EXPECT_LT(negative, b);
    EXPECT_FALSE(unnamed < b || b < unnamed || unnamed < unnamed);
    EXPECT_LT(unnamed, a);
    EXPECT_NE(b, c);
    EXPECT_NE(b, TipprmiOID("b", NSID_NODE));
    EXPECT_EQ(b, TipprmiOID(std::string("b"), NSID_UNIT));
    EXPECT_NE(b, unnamed);
    EXPECT_EQ(unnamed, unnamed);
}

TEST(Oid, ExtensionIsAlwaysNamedInTheUnit) {
    EXPECT_EQ(TipprmiOID("obj_1", NSID_UNIT), TipprmiOID("obj", NSID_NODE) + "_1");
    EXPECT_EQ(TipprmiOID("obj_1", NSID_UNIT), TipprmiOID("obj", NSID_NODE) + std::string("_1"));
    TipprmiOID const copy = TipprmiOID("", NSID_NODE) + "_1";
    EXPECT_EQ(nullptr, copy.getIdString());
    EXPECT_EQ(NSID_NODE, copy.getNamespaceId());
}

TEST(Oid, CopiesShareTheirTextUntilOneIsRenamed) {
    TipprmiOID const first("shared", NSID_UNIT);
    char const* const text = first.getIdString();
    TipprmiOID copy = first;
    EXPECT_EQ(text, copy.getIdString());
    {
        std::vector<TipprmiOID> const copies(1000, first);
        EXPECT_EQ(text, copies.back().getIdString());
    }
    copy.setIdString("other");
    EXPECT_STREQ("shared", first.getIdString());
    copy = first;
    EXPECT_EQ(text, copy.getIdString());
    TipprmiOID const taken = std::move(copy);
    EXPECT_EQ(text, taken.getIdString());
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

TEST(Oid, ThreadsMayHoldCopiesOfOneText) {
    TipprmiOID const shared("shared", NSID_UNIT);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([copy = shared] {
            for (int n = 0; n < 2000; ++n) {
                TipprmiOID const another(copy);
                ASSERT_STREQ("shared", another.getIdString());
            }
        });
    for (auto& thread : threads)
        thread.join();
}

}  // namespace
