// Classes as they are described at run time, and the repository that finds them by their ids.
#include <dlfcn.h>

#include <list>

#include "BrokerTest.h"
#include "ChildProgram.h"
#include "ClassTables.h"
#include "ReflectiveClasses.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr unsigned int kId = 0x7E570000;  // and the next ones: ids of the tests' own classes

/** A meta object as a generator writes it. */
class Generated : public TreflectMetaObject {
public:
    using TreflectMetaObject::completeMetaInformationHelper;

    explicit Generated(std::string const& name, unsigned int classId = kId,
                       std::vector<MetaOpData> operations = {{"none", 1}},
                       std::vector<MetaAttrData> attributes = {})
        : TreflectMetaObject(name, classId),
          operations_(std::move(operations)),
          attributes_(std::move(attributes)) {}

protected:
    void completeMetaInformation() override {
        if (std::exchange(completed_, true))
            return;
        for (TreflectMetaObject* const base : parents())
            complete(*base);
        MetaAttrData noAttribute{};
        completeMetaInformationHelper(operations_.data(),
                                      static_cast<unsigned int>(operations_.size()),
                                      attributes_.empty() ? &noAttribute : attributes_.data(),
                                      static_cast<unsigned int>(attributes_.size()));
    }

private:
    std::vector<MetaOpData> operations_;
    std::vector<MetaAttrData> attributes_;
    bool completed_ = false;
};

TreflectMetaObject* find(unsigned int classId) {
    return InterfaceRepository::instance()->findInterface(classId);
}

template <class Member>
std::vector<std::string> namesOf(std::list<Member*> const& members) {
    std::vector<std::string> names;
    for (Member const* const member : members)
        names.push_back(member->name());
    return names;
}

std::vector<std::string> attributesOf(TreflectMetaObject const& metaObject) {
    std::list<TreflectMetaAttribute*> members;
    metaObject.attributeList(members);
    return namesOf(members);
}

class MetaObject : public BrokerTest {
protected:
    /** The whole text of a line, and where it comes from. */
    void expectText(std::string const& source, std::string const& text, std::size_t times = 1) {
        EXPECT_EQ(log_.count(3, text), times) << text;
        auto const record = log_.find(text);
        ASSERT_TRUE(record) << text;
        EXPECT_EQ(record->text, text);
        EXPECT_EQ(record->source, source);
    }
};

// ---- The repository ----------------------------------------------------------------------------

TEST_F(MetaObject, OfSeveralOfAnIdTheFirstIsFoundUntilAnyOfThemIsDestroyed) {
    Generated first("First");
    auto second = std::make_unique<Generated>("Second");
    EXPECT_EQ(find(kId), &first);
    EXPECT_TRUE(InterfaceRepository::instance()->registerInterface(second.get()));
    EXPECT_EQ(find(kId), &first);
    expectText("REFLECT_InterfaceRepository",
               "classes \"First\" and \"Second\" have one class id, 0x7E570000: the latter is not "
               "found");
    EXPECT_EQ(log_.texts().size(), 1u);

    second.reset();
    EXPECT_EQ(find(kId), nullptr);
    expectText("REFLECT_InterfaceRepository",
               "InterfaceRepository::findInterface(0x7E570000) Meta-information CANNOT BE FOUND");
    // Taking out what is not there is no failure either.
    EXPECT_TRUE(InterfaceRepository::instance()->unregisterInterface(&first));
    EXPECT_TRUE(InterfaceRepository::instance()->registerInterface(&first));
    EXPECT_EQ(find(kId), &first);
}

// ---- Completion --------------------------------------------------------------------------------

TEST_F(MetaObject, MakesAttributesOfPairsOfOperationsAlsoOfBases) {
    Generated base("Base", kId + 1, {{"getShared", 1}, {"setShared", 2}});
    Generated meta("Class", kId, {{"getOwn", 3}, {"setOwn", 4}, {"getFixed", -5}},
                   {{"Shared"}, {"Own"}, {"Fixed"}});
    EXPECT_TRUE(meta.registerParent(&base));
    EXPECT_EQ(meta.metaOperation_("getOwn"), nullptr);
    find(kId);

    EXPECT_THAT(attributesOf(meta), ElementsAre("Fixed", "Own", "Shared"));
    TreflectMetaAttribute const& shared = *meta.metaAttribute("Shared");
    EXPECT_EQ(shared.containingMetaObject(), &meta);
    EXPECT_EQ(shared.metaOperGet(), base.metaOperation("getShared"));
    EXPECT_EQ(shared.metaOperSet()->id(), 2);
    EXPECT_EQ(shared.metaOperSet()->containingMetaObject(), &base);
    TreflectMetaAttribute const& fixed = *meta.metaAttribute("Fixed");
    EXPECT_EQ(fixed.metaOperGet()->id(), -5);
    EXPECT_EQ(fixed.metaOperSet(), nullptr);
    EXPECT_EQ(fixed.constLength(), 1);
}

TEST_F(MetaObject, EndsCompletionAtAnAttributeThatCannotBeRead) {
    Generated const meta("Class", kId, {{"getA", 1}, {"setB", 2}, {"getC", 3}},
                         {{"A"}, {"B"}, {"C"}});
    find(kId);
    EXPECT_THAT(attributesOf(meta), ElementsAre("A"));
    EXPECT_NE(meta.metaOperation_("getC"), nullptr);
    expectText("REFLECT_metaObject",
               "no get operation registered for attribute \"B\" of class \"Class\"");
    EXPECT_EQ(log_.records().size(), 1u);
}

TEST_F(MetaObject, RefusesToBeCompletedFromHalfATable) {
    Generated meta("Class");
    TreflectMetaObject::MetaOpData operation{"getA", 1};
    TreflectMetaObject::MetaAttrData attribute{"A"};
    meta.completeMetaInformationHelper(&operation, 1, nullptr, 0);
    meta.completeMetaInformationHelper(nullptr, 0, &attribute, 1);
    EXPECT_EQ(meta.metaOperation_("getA"), nullptr);
    expectText("REFLECT_metaObject", "Invalid meta information for meta object \"Class\"", 2);

    meta.completeMetaInformationHelper(&operation, 0, &attribute, 0);
    EXPECT_EQ(meta.metaOperation_("getA"), nullptr);
    EXPECT_EQ(log_.records().size(), 2u);
}

// ---- Classes and their bases -------------------------------------------------------------------

/** Bottom is derived from left and right, which are both derived from top. Bases stand in a set by
 * address, so the left one is that of the lower address. */
class Diamond : public MetaObject {
protected:
    Diamond() {
        find(kId + 3);
        log_.clear();  // "both" clashes
    }

    TreflectMetaClass const top{"Top", kId, {}, {{"getT", 1}, {"both", 2}}, {"T"}};
    TreflectMetaClass const sides[2] = {
        {"Left", kId + 1, {&top}, {{"getL", 3}, {"both", 4}}, {"L"}},
        {"Right", kId + 2, {&top}, {{"getR", 5}, {"both", 6}}, {"R"}}};
    TreflectMetaClass const& left = sides[0];
    TreflectMetaClass const& right = sides[1];
    TreflectMetaClass const bottom{"Bottom", kId + 3, {&right, &left}, {{"getB", 7}}, {"B"}};
};

TEST_F(Diamond, IsAllItsBases) {
    for (TreflectMetaClass const* const base : {&bottom, &left, &right, &top})
        EXPECT_TRUE(bottom.isA(base));
    EXPECT_FALSE(top.isA(&bottom));
    EXPECT_FALSE(left.isA(&right));
    EXPECT_FALSE(bottom.isA(nullptr));
    EXPECT_THAT(top.children(), UnorderedElementsAre(&left, &right));
    EXPECT_THAT(bottom.parents(), UnorderedElementsAre(&left, &right));
}

TEST_F(Diamond, FindsMembersDepthFirstInTheOrderOfAddresses) {
    EXPECT_EQ(bottom.metaOperation("both"), left.metaOperation_("both"));
    EXPECT_EQ(bottom.metaOperation("getT")->containingMetaObject(), &top);
    EXPECT_EQ(bottom.metaOperation("getR")->id(), 5);
    EXPECT_EQ(bottom.metaAttribute("T")->containingMetaObject(), &top);
    EXPECT_EQ(log_.records().size(), 0u);

    std::list<TreflectMetaOperation*> operations;
    bottom.operationList(operations);
    EXPECT_THAT(namesOf(operations), ElementsAre("getB", "both", "getL", "both", "getT", "both",
                                                 "getR", "both", "getT"));
    top.operationList(operations);  // appends
    EXPECT_EQ(operations.size(), 11u);
    EXPECT_THAT(attributesOf(bottom), ElementsAre("B", "L", "T", "R", "T"));
}

TEST_F(Diamond, FailedSearchesLeaveALineForEachClassOrOne) {
    EXPECT_EQ(bottom.metaAttribute("X"), nullptr);
    expectText("REFLECT_metaObject", "TreflectMetaObject::metaAttribute(X) NOT found, returning 0",
               5);  // the top is reached in two ways
    EXPECT_EQ(log_.records().size(), 5u);

    log_.clear();
    EXPECT_EQ(bottom.metaAttribute("R"), right.metaAttribute("R"));
    EXPECT_EQ(log_.count("metaAttribute(R)"), 2u);  // searched in vain at the left

    log_.clear();
    EXPECT_EQ(bottom.metaOperation_("X"), nullptr);
    EXPECT_EQ(bottom.metaOperation("X"), nullptr);
    expectText("REFLECT_metaObject",
               "TreflectMetaObject(Bottom)::metaOperation(X) NOT found, returning 0");
    EXPECT_EQ(log_.records().size(), 1u);
}

TEST_F(MetaObject, LeavesNoPointerToItselfBehind) {
    Generated base("Base", kId + 1);
    Generated derived("Derived", kId + 2);
    auto middle = std::make_unique<Generated>("Middle", kId);
    middle->registerParent(&base);
    derived.registerParent(middle.get());
    EXPECT_TRUE(derived.isA(&base));
    middle.reset();
    EXPECT_THAT(base.children(), IsEmpty());
    EXPECT_THAT(derived.parents(), IsEmpty());
}

// ---- Classes made of tables --------------------------------------------------------------------

class MetaClass : public MetaObject {};

std::vector<unsigned int> idsOf(TreflectMetaClass const& meta) {
    TipprmiSequence<unsigned int, 0u> const ids = meta.classIds();
    std::vector<unsigned int> all;
    for (unsigned int i = 0; i < ids.getLength(); ++i)
        all.push_back(ids[i]);
    return all;
}

TEST_F(MetaClass, TellsTheMostSpecialClassesFirst) {
    EXPECT_THAT(idsOf(lampMeta), ElementsAre(lamp::kClass, device::kClass));
    // A process that knows no combis, but heaters and devices, takes one for a heater.
    EXPECT_THAT(idsOf(combiMeta),
                ElementsAre(combi::kClass, lamp::kClass, heater::kClass, device::kClass));
    TreflectMetaClass const twice("Twice", kId, {&deviceMeta, &combiMeta}, {});
    EXPECT_THAT(idsOf(twice),
                ElementsAre(kId, combi::kClass, lamp::kClass, heater::kClass, device::kClass));
}

TEST_F(MetaClass, CompletesItsBasesAndTheClassesOfItsValues) {
    TreflectMetaClass const value("Value", kId, {}, {{"getX", 1}}, {"X"});
    TreflectMetaClass const base("Base", kId + 1, {}, {{"getV", 2, {}, {"Value"}}});
    TreflectMetaClass const meta(
        "Class", kId + 2, {&base}, {{"setV", 3, {"Value"}, {}}},
        {{"V", value, TreflectMetaClass::Attribute::kArray, 4}, "Absent", {"V2", value}});
    ASSERT_EQ(find(kId + 2), &meta);
    TreflectMetaAttribute const* const found = meta.metaAttribute("V");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->typeMeta(), &value);
    EXPECT_EQ(found->constLength(), 4);
    EXPECT_TRUE(dynamic_cast<TreflectArrayMetaAttribute const*>(found));
    EXPECT_EQ(found->metaOperSet()->id(), 3);
    EXPECT_TRUE(value.metaAttribute("X"));
    EXPECT_THAT(meta.metaOperation("setV")->parameters(),
                ElementsAre(std::make_pair("in0", "Value")));
    EXPECT_THAT(base.metaOperation("getV")->parameters(),
                ElementsAre(std::make_pair("out0", "Value")));
    EXPECT_EQ(log_.count("no get operation registered"), 1u);
}

TEST_F(MetaClass, RegistersAttributesInTheOrderOfItsTable) {
    using Attribute = TreflectMetaClass::Attribute;
    TreflectMetaClass const meta(
        "Class", kId, {}, {{"getA", 1}, {"getB", 2}, {"getC", 3}},
        {"C", {"A", Attribute::kArray, 2}, {"Absent", Attribute::kArray, 2}, "B"});
    find(kId);
    EXPECT_THAT(attributesOf(meta), ElementsAre("A", "C"));
}

TEST_F(MetaClass, MayStandBeforeItsBasesAndTheClassesOfItsValues) {
    // Memory of static objects that are yet to be built.
    struct Unbuilt {
        alignas(TreflectMetaClass) unsigned char memory[sizeof(TreflectMetaClass)] = {};
        TreflectMetaClass& at() { return reinterpret_cast<TreflectMetaClass&>(memory); }
    };
    Unbuilt top;
    Unbuilt base;
    Unbuilt value;
    TreflectMetaClass const meta("Class", kId, {&base.at(), &deviceMeta}, {{"getV", 9}},
                                 {{"V", value.at()}, "X"});
    EXPECT_THAT(idsOf(meta), ElementsAre(kId, device::kClass));
    ASSERT_EQ(find(kId), &meta);
    EXPECT_EQ(meta.metaOperation_("getV"), nullptr) << "not before it knows its bases";

    auto const* const built =
        new (base.memory) TreflectMetaClass("Base", kId + 1, {&top.at()}, {{"getX", 12}});
    find(kId);
    EXPECT_EQ(meta.metaOperation_("getX"), nullptr);
    auto const* const builtTop = new (top.memory) TreflectMetaClass("Top", kId + 2, {}, {});
    EXPECT_THAT(idsOf(meta), ElementsAre(kId, kId + 1, kId + 2, device::kClass));
    find(kId);
    EXPECT_TRUE(meta.isA(builtTop));
    EXPECT_THAT(attributesOf(meta), ElementsAre("V", "X", "Name"));
    EXPECT_EQ(meta.metaAttribute("V")->typeMeta(), nullptr);
    auto const* const builtValue = new (value.memory) TreflectMetaClass("Value", kId + 3, {}, {});
    find(kId);
    EXPECT_EQ(meta.metaAttribute("V")->typeMeta(), builtValue);
    EXPECT_EQ(log_.records().size(), 0u);
    for (TreflectMetaClass const* const gone : {builtValue, built, builtTop})
        gone->~TreflectMetaClass();
}

TEST_F(MetaClass, ListsTypesAndExceptionsOfItsOperations) {
    TreflectMetaClass const meta(
        "Class", kId, {},
        {{"grow",
          1,
          {"Tree tree", "unsigned years"},
          {"sequence<Tree>"},
          {{7, "struct TooOld{unsigned age}"}}},
         {"cut", 2}},
        {}, {"struct Tree{Color color, sequence<Tree> branches}", "enum Color{kGreen}"});
    ASSERT_EQ(find(kId), &meta);
    TreflectMetaOperation const& grow = *meta.metaOperation("grow");
    std::vector<TreflectParameterType> const in = grow.argumentTypes();
    ASSERT_EQ(in.size(), 2u);
    TipprmiAny tree;
    EXPECT_TRUE(in[0].parse("{color: kGreen, branches: [{kGreen, []}]}", tree));
    EXPECT_EQ(in[1].label(), "years");
    EXPECT_TRUE(grow.resultTypes()[0].isValid());
    EXPECT_TRUE(grow.exceptionType(7).isValid());
    EXPECT_FALSE(grow.exceptionType(8).isValid());
    EXPECT_EQ(log_.count(3, ""), 0u);
}

TEST_F(MetaClass, TellsWhatItsTablesHaveTwiceOrMisspelled) {
    TreflectMetaClass const base("Base", kId + 1, {}, {{"open", 1}, {"close", 2}});
    TreflectMetaClass const meta("Class", kId, {&base},
                                 {{"open", 1},
                                  {"shut", 2},
                                  {"close", 3},
                                  {"one", 4, {"unsinged", "unsinged"}, {"unsinged"}},
                                  {"two", 4},
                                  {"one", 5}},
                                 {}, {"sequence<int>"});
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(find(kId), &meta);
    for (char const* text :
         {R"(operation "shut" (2) of class "Class" clashes with "close" (2) of "Base")",
          R"(operation "close" (3) of class "Class" clashes with "close" (2) of "Base")",
          R"(operation "two" (4) of class "Class" clashes with "one" (4) of "Class")",
          R"(operation "one" (5) of class "Class" clashes with "one" (4) of "Class")",
          R"(class "Class": "unsinged" is no name of a type)",
          R"(class "Class": "sequence<int>" is no type with a name)"})
        EXPECT_EQ(log_.count(3, text), 1u) << text;
    EXPECT_EQ(log_.records().size(), 6u);
}

TEST_F(MetaClass, TellsWhatItsBasesHaveThatClashes) {
    TreflectMetaClass const top("Top", kId + 3, {}, {{"name", 9}});
    TreflectMetaClass const left("Left", kId + 1, {&top},
                                 {{"open", 1}, {"close", 2}, {"same", 3}, {"name", 9}});
    TreflectMetaClass const right("Right", kId + 2, {&top},
                                  {{"shut", 1}, {"close", 4}, {"same", 3}, {"name", 9}});
    TreflectMetaClass const both("Both", kId, {&left, &right}, {{"same", 3}, {"close", 2}});
    TreflectMetaClass const derived("Derived", kId + 4, {&both}, {});
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(find(kId + 4), &derived);
        ASSERT_EQ(find(kId), &both);
    }
    for (char const* text :
         {R"(class "Both" has operation "open" (1) of "Left" and "shut" (1) of "Right")",
          R"(class "Both" has operation "close" (2) of "Left" and "close" (4) of "Right")",
          R"(operation "close" (2) of class "Both" clashes with "close" (4) of "Right")"})
        EXPECT_EQ(log_.count(3, text), 1u) << text;
    EXPECT_EQ(log_.records().size(), 3u);
}

/** What is left of a class whose base and the class of whose value have gone. */
void expectStandsAlone(TreflectMetaClass const& meta, std::vector<unsigned int> const& ids) {
    EXPECT_EQ(idsOf(meta), ids) << "its objects are what they were";
    EXPECT_THAT(meta.parents(), IsEmpty());
    TreflectMetaAttribute const* const attribute = meta.metaAttribute("V");
    ASSERT_TRUE(attribute);
    EXPECT_EQ(attribute->metaOperGet(), nullptr);
    EXPECT_EQ(attribute->metaOperSet(), nullptr);
    EXPECT_EQ(attribute->typeMeta(), nullptr);
    EXPECT_EQ(TreflectAttribute(attribute, nullptr).constLength(), 1);
}

TEST_F(MetaClass, StandsAloneWhenItsBaseHasGone) {
    auto base = std::make_unique<TreflectMetaClass>(
        "Base", kId + 1, std::vector<TreflectMetaClass const*>{},
        std::vector<TreflectMetaClass::Operation>{{"getV", 1}, {"setV", 2}});
    TreflectMetaClass const meta("Class", kId, {base.get()}, {}, {{"V", *base}});
    find(kId);
    EXPECT_EQ(meta.metaAttribute("V")->metaOperSet()->id(), 2);
    base.reset();
    expectStandsAlone(meta, {kId, kId + 1});
}

// ---- Classes of shared objects -----------------------------------------------------------------

TEST_F(MetaClass, OfASharedObjectGoesWithItAndLeavesThatOfTheProgram) {
    std::string const file = testsupport::programCommand("class_plugin").back();
    TreflectMetaClass const own("Plugged", plugin::kClass, {}, {{"getV", 1}});
    void* const opened = dlopen(file.c_str(), RTLD_NOW);
    ASSERT_TRUE(opened) << dlerror();
    EXPECT_EQ(find(plugin::kClass), &own);
    TreflectMetaObject const* const brought = find(plugin::kFurtherClass);
    ASSERT_TRUE(brought);
    EXPECT_TRUE(brought->metaAttribute("V")->metaOperGet());
    auto const& base = dynamic_cast<TreflectMetaClass const&>(*brought);
    TreflectMetaClass const derived("Derived", kId, {&base}, {}, {{"V", base}});
    find(kId);
    EXPECT_EQ(derived.metaAttribute("V")->typeMeta(), &base);

    EXPECT_EQ(dlclose(opened), 0);
    EXPECT_EQ(dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_EQ(find(plugin::kClass), &own) << "it is back";
    EXPECT_EQ(find(plugin::kFurtherClass), nullptr);
    expectStandsAlone(derived, {kId, plugin::kFurtherClass, plugin::kClass});
}

/** The order in which the files of a program are linked decides which of their static objects are
 * built first. */
class OfSeveralFiles : public testing::TestWithParam<char const*> {};

TEST_P(OfSeveralFiles, AreThereFromTheFirstCallToTheLast) {
    testsupport::ChildProgram child(GetParam());
    EXPECT_EQ(child.exitCode(), 0);
    EXPECT_TRUE(child.waitForLine("ids right"));
}

INSTANTIATE_TEST_SUITE_P(ClassTables, OfSeveralFiles,
                         testing::Values("class_tables_late", "class_tables_early"));

}  // namespace
