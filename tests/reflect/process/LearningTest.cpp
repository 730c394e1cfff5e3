// What this process takes in of the classes that others describe.
#include <new>

#include "AllocationCount.h"
#include "BrokerTest.h"
#include "reflect/process/Learning.h"
#include "reflect/process/ProcessServer.h"

namespace {

using Description = TreflectClassDescription;
using Descriptions = Learning::Descriptions;
using Table = TreflectMetaClass;

constexpr TreflectOrbId kTeller{0x01000001};
constexpr unsigned int kFirst = 0x7E590000;
constexpr std::size_t kSomeSize = 1000;

Description::Operation operation(std::string const& name, unsigned int code) {
    Description::Operation made;
    made.name = name;
    made.code = code;
    return made;
}

/** One of that many classes, each of which has the next ones as its bases. */
Description derived(unsigned int number, unsigned int count, unsigned int bases) {
    Description made;
    made.id = kFirst + number;
    made.name = "Class" + std::to_string(number);
    for (unsigned int base = number + 1; base <= number + bases && base < count; ++base)
        made.bases.push_back({"Class" + std::to_string(base), kFirst + base, 0});
    return made;
}

/** Gives each the hash of what it is; bases come behind those that are derived from them. */
Descriptions hashed(Descriptions classes) {
    std::map<unsigned int, std::uint64_t> hashes;
    for (auto made = classes.rbegin(); made != classes.rend(); ++made) {
        for (Description::Base& base : made->bases)
            base.hash = hashes[base.id];
        hashes[made->id] = made->hash = made->computeHash();
    }
    return classes;
}

Descriptions lineOf(unsigned int count, unsigned int bases) {
    Descriptions classes;
    for (unsigned int number = 0; number < count; ++number)
        classes.push_back(derived(number, count, bases));
    return hashed(std::move(classes));
}

class LearningOf : public PermittedTest {
protected:
    TreflectMetaObject* admit(Descriptions const& classes, std::size_t size = kSomeSize) {
        handlerthreads::trustPermission();
        return learning_.admit(kFirst, kTeller, classes, size);
    }

    Learning learning_;
};

struct Refusal {
    char const* text;
    Descriptions classes;
    std::size_t size = kSomeSize;
};

std::vector<Refusal> refusals() {
    Descriptions const pair = lineOf(2, 1);
    std::vector<Refusal> all{{"too entangled", lineOf(60, 2)},
                             {"too many classes", lineOf(257, 1)},
                             {"or one of them twice", {pair[0], pair[1], pair[1]}},
                             {"a base is missing", {pair[0]}},
                             {"not among what was told", {pair[1]}},
                             {"it is too large", pair, Learning::kLargestAnswer + 1}};
    Descriptions own = lineOf(1, 1);
    own[0].bases = {{"Class0", kFirst, own[0].hash}};
    all.push_back({"its hash is not that of what it describes", own});
    // Few ways, but all that they lead to is gone through for each of them.
    Descriptions wide = lineOf(16, 2);
    for (unsigned int code = 0; code < 1024; ++code)
        wide.back().operations.push_back(operation("op" + std::to_string(code), code));
    all.push_back({"too entangled", hashed(wide)});
    return all;
}

TEST_F(LearningOf, WhatMakesNoSenseIsRefusedForAReason) {
    handlerthreads::trustPermission();
    for (Refusal const& refusal : refusals()) {
        log_.clear();
        Learning learning;
        EXPECT_FALSE(learning.admit(kFirst, kTeller, refusal.classes, refusal.size));
        EXPECT_EQ(log_.count(3, refusal.text), 1u) << refusal.text;
    }
}

std::vector<std::string> typesOfSize(std::size_t size) {
    std::string const name(Description::kLongestType / 2, 'm');
    std::vector<std::string> types;
    for (std::size_t type = 0; type * name.size() < size; ++type)
        types.push_back("struct T" + std::to_string(type) + "{int " + name + "}");
    return types;
}

/** A class of two operations that refer to all its types, which are of about that size. */
Descriptions withTypes(unsigned int number, std::size_t size) {
    Description made = derived(number, 1, 0);
    made.types = typesOfSize(size);
    std::string all = "T0";
    for (std::size_t type = 1; type < made.types.size(); ++type)
        all += ", T" + std::to_string(type);
    for (unsigned int code = 0; code < 2; ++code) {
        made.operations.push_back(operation("op" + std::to_string(code), code));
        made.operations.back().in = {{"", "{" + all + "}"}};
    }
    return hashed({made});
}

TEST_F(LearningOf, NoMoreIsLearnedThanThereIsRoomFor) {
    handlerthreads::trustPermission();
    Descriptions variant = lineOf(1, 1);
    for (unsigned int code = 0; code < 16; ++code) {
        variant[0].operations = {operation("run", code)};
        variant = hashed(variant);
        EXPECT_TRUE(admit(variant)) << code;
    }
    EXPECT_TRUE(admit(variant));
    variant[0].operations[0].code = 16;
    EXPECT_FALSE(admit(hashed(variant)));
    expectLine(3, "too much has been learned already");
    // The types count as often as they are referred to.
    constexpr std::size_t kMuch = Description::kMostExpanded / 2 - Description::kLongestType;
    std::size_t learned = 0;
    for (unsigned int id = 1; id <= 12; ++id)
        learned += learning_.admit(kFirst + id, kTeller, withTypes(id, kMuch), kSomeSize) ? 1 : 0;
    EXPECT_EQ(learned, 8u);
}

TEST_F(LearningOf, NoMoreIsLookedAtThanThereIsRoomFor) {
    constexpr std::size_t kMuch = Description::kMostExpanded / 2 - Description::kLongestType;
    Descriptions classes = lineOf(11, 1);
    for (Description& each : classes) {
        Description const large = withTypes(0, kMuch)[0];
        each.types = large.types;
        each.operations = large.operations;
    }
    classes = hashed(classes);
    classes.back().hash = 0;  // a fault, but behind too much
    EXPECT_FALSE(admit(classes));
    expectLine(3, "too much has been learned already");
}

/** Classes that lead to the same attributes on few ways or on many. */
Descriptions withAttributes(unsigned int bases) {
    Descriptions classes = lineOf(10, bases);
    for (unsigned int code = 0; code < 300; ++code) {
        Description::Attribute attribute;
        attribute.name = "Value" + std::to_string(code);
        classes.back().attributes.push_back(attribute);
        classes.back().operations.push_back(operation("get" + attribute.name, code));
    }
    return hashed(classes);
}

TEST_F(LearningOf, AttributesOfBasesAreNotGatheredOnEachWayToThem) {
    auto const allocationsFor = [](unsigned int bases) {
        handlerthreads::trustPermission();
        Descriptions const classes = withAttributes(bases);
        Learning learning;
        unsigned long const before = allocationCount();
        EXPECT_TRUE(learning.admit(kFirst, kTeller, classes, kSomeSize));
        return allocationCount() - before;
    };
    EXPECT_LT(allocationsFor(2), allocationsFor(1) * 5 / 4);
}

TEST_F(LearningOf, MembersOfBasesAreThoseOfTheClass) {
    Descriptions classes = lineOf(2, 1);
    classes[1].operations = {operation("getLevel", 1)};
    classes[1].operations[0].in = {{"unit", ""}};
    Description::Attribute level;
    level.name = "Level";
    classes[0].attributes = {level};
    Table const known("Other", kFirst, {}, {}, {});
    TreflectMetaObject const* const meta = admit(hashed(classes));
    ASSERT_TRUE(meta);
    ASSERT_TRUE(meta->metaOperation_("getLevel"));
    EXPECT_EQ(meta->metaOperation_("getLevel")->parameters().at("in0"), "");
    EXPECT_TRUE(meta->metaAttribute("Level"));
    // Other processes may use the id for another class: this is none of this program's mistakes.
    EXPECT_EQ(log_.count(3, "have one class id"), 0u);
}

TEST_F(LearningOf, WithoutMemoryNothingIsLearnedByHalves) {
    handlerthreads::trustPermission();
    Descriptions classes = lineOf(3, 2);
    classes[2].operations = {operation("getLevel", 1)};
    Description::Attribute level;
    level.name = "Level";
    classes[0].attributes = {level};
    classes = hashed(classes);
    bool isStarved = true;
    unsigned long nth = 0;
    while (isStarved) {
        Learning learning;
        starve(++nth);
        try {
            learning.admit(kFirst, kTeller, classes, kSomeSize);
        } catch (std::bad_alloc const&) {
        }
        isStarved = feed();
        TreflectMetaObject const* const meta = learning.admit(kFirst, kTeller, classes, kSomeSize);
        ASSERT_TRUE(meta) << nth;
        EXPECT_TRUE(meta->metaOperation_("getLevel")) << nth;
        EXPECT_TRUE(meta->metaAttribute("Level")) << nth;
    }
    EXPECT_GT(nth, 10u);
}

TEST_F(LearningOf, ClassThatGoesWithItsSharedObjectIsNotUsedAnyMore) {
    handlerthreads::trustPermission();
    constexpr unsigned int kBase = kFirst + 1;
    auto here = std::make_unique<Table>("Class1", kBase, std::vector<Table const*>(),
                                        std::vector<Table::Operation>{{"stop", 1, {}, {}}},
                                        std::vector<Table::Attribute>());
    Descriptions classes = lineOf(2, 1);
    classes[1].operations = {operation("stop", 1)};
    classes = hashed(classes);
    TreflectMetaObject const* const before = admit(classes);
    ASSERT_TRUE(before);
    EXPECT_TRUE(before->isA(here.get()));
    EXPECT_EQ(learning_.find(kFirst, kTeller), before);
    here.reset();
    EXPECT_FALSE(learning_.find(kBase, kTeller));
    TreflectMetaObject const* const after = admit(classes);
    ASSERT_TRUE(after);
    EXPECT_NE(after, before);
    EXPECT_TRUE(after->metaOperation_("stop"));
    EXPECT_EQ(learning_.find(kFirst, kTeller), after);
    learning_.forget(kTeller);
    EXPECT_FALSE(learning_.find(kFirst, kTeller));
}

TEST_F(LearningOf, SharedObjectMayBeOpenedAndClosedAnyNumberOfTimes) {
    Descriptions const classes = lineOf(2, 1);
    for (unsigned int times = 0; times < 20; ++times) {
        Table const here("Class1", kFirst + 1, {}, {}, {});
        EXPECT_TRUE(admit(classes, Learning::kLargestAnswer)) << times;
    }
}

/** Answers as a process object does, with what it was given. */
class Teller : public TreflectServerObject {
public:
    explicit Teller(TreflectOrbId broker)
        : TreflectServerObject(ProcessServer::identifierAt(broker), nullptr, "Teller") {}

    unsigned int getServerClassId() const override { return processobject::kClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return TreflectProcessObject::metaClass().classIds();
    }
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (mc == processobject::kDescribe)
            return serve(getServerClassId(), cc, mc, in, out, &Teller::tell);
        return TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
    }

    Descriptions told;
    int asked = 0;

private:
    Descriptions tell(unsigned int) {
        ++asked;
        return told;
    }
};

TEST_F(LearningOf, BrokerThatTellsNonsenseIsAskedOnceUntilItGoes) {
    handlerthreads::trustPermission();
    TreflectOrbId const broker = orb().orbId();
    Teller teller(broker);
    teller.told = {lineOf(2, 1)[0]};
    EXPECT_FALSE(learning_.find(kFirst, broker));
    EXPECT_FALSE(learning_.find(kFirst, broker));
    EXPECT_EQ(teller.asked, 1);
    expectLine(3, "class 0x%X as broker 0x%08X describes it is refused: of class %u, a base is",
               kFirst, broker.value(), kFirst);
    learning_.forget(broker);
    teller.told = lineOf(2, 1);
    EXPECT_TRUE(learning_.find(kFirst, broker));
    EXPECT_TRUE(learning_.find(kFirst, broker));
    EXPECT_EQ(teller.asked, 2);
}

TEST_F(LearningOf, ClassIsDescribedWithTheClassesOfValuesThatAReaderHasRoomFor) {
    handlerthreads::trustPermission();
    std::vector<std::string> const types = typesOfSize(Learning::kLargestAnswer * 2 / 5);
    Table const inlet("Inlet", kFirst + 1, {}, {}, {}, types);
    Table const outlet("Outlet", kFirst + 2, {}, {}, {}, types);
    Table const valve("Valve", kFirst + 3, {}, {}, {}, types);
    std::vector<Table::Operation> const get{{"getInlet", 1, {}, {"object"}},
                                            {"getOutlet", 2, {}, {"object"}},
                                            {"getValve", 3, {}, {"object"}}};
    Table const pipe("Pipe", kFirst, {}, get,
                     {{"Inlet", inlet}, {"Outlet", outlet}, {"Valve", valve}});
    TreflectProcessObject const here;
    EXPECT_EQ(TreflectProcessClient::of(orb().orbId()).describe(kFirst).value().size(), 3u);
    EXPECT_EQ(learning_.find(kFirst, orb().orbId()), &pipe);
}

}  // namespace
