// Attributes and operations that are bound to a handle: who owns them, which part of a value they
// read, and the null objects that stand for those that do not exist.
#include "BrokerTest.h"
#include "ReflectiveClasses.h"
#include "WireText.h"

namespace {

using ::testing::ElementsAre;

/** Every test runs under the run permission. */
class BoundMembers : public PermittedTest {
protected:
    template <class MetaAttribute>
    TreflectAttribute& bind(char const* name) {
        InterfaceRepository::instance()->findInterface(lamp::kClass);
        auto const* const meta = dynamic_cast<MetaAttribute const*>(lampMeta.metaAttribute(name));
        return *meta->getTied(&handle_);
    }
    /** What the registry itself says. */
    unsigned long tiedCount() {
        log_.clear();
        TreflectTieds::instance()->print();
        testsupport::LogRecord const record = log_.records().at(0);
        unsigned long const count = std::stoul(record.text);
        EXPECT_EQ(record.level, 5);
        EXPECT_EQ(record.source, "REFLECT_memberFactory");
        EXPECT_EQ(record.text, std::to_string(count) + " tieds are registered");
        return count;
    }

    LampObject lamp_{"bound lamp"};
    TreflectObject handle_{&lamp_};
};

// ---- Owners ------------------------------------------------------------------------------------

TEST_F(BoundMembers, LiveAsLongAsTheirHandle) {
    unsigned long const before = tiedCount();
    auto other = std::make_unique<TreflectObject>(handle_);
    TreflectOperation& first = handle_.operation("ping");
    TreflectOperation& second = handle_.operation("ping");
    EXPECT_NE(&first, &second);
    TreflectAttribute& name = other->attribute("Name");
    EXPECT_EQ(&name.operGet(), &name.operGet()) << "made once";
    EXPECT_EQ(tiedCount(), before + 4);
    other.reset();
    EXPECT_EQ(tiedCount(), before + 2);
    EXPECT_EQ(first.call(), 0);
    EXPECT_EQ(second.call(), 0);
    EXPECT_EQ(lamp_.pings(), 2u);
    // An assignment leaves them bound; they reach the other object then.
    LampObject const another("another bound lamp");
    handle_ = TreflectObject(&another);
    EXPECT_EQ(first.call(), 0);
    EXPECT_EQ(another.pings(), 1u);
    EXPECT_EQ(tiedCount(), before + 2);
}

/** A handle that counts what goes through it. */
class Counting : public TreflectObject {
public:
    using TreflectObject::TreflectObject;
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) const override {
        ++calls;
        return TreflectObject::dispatch(withResponse, cc, mc, in, out);
    }
    mutable int calls = 0;
};

TEST_F(BoundMembers, CallThroughTheirHandleAlsoWhenItFindsItsObjectLate) {
    Counting handle(&lamp_);
    TreflectOperation& ping = handle.operation("ping");
    handle.connect(TipprmiOID("late bound lamp", NSID_UNIT));
    unsigned long const before = tiedCount();
    LampObject const late("late bound lamp");
    EXPECT_FALSE(handle.isConnected());
    for (int const calls : {1, 2}) {
        EXPECT_EQ(ping.call(), 0);
        EXPECT_EQ(handle.calls, calls);
    }
    EXPECT_EQ(late.pings(), 2u);
    EXPECT_EQ(tiedCount(), before);
}

TEST_F(BoundMembers, EndWithThoseThatTheyLeadTo) {
    constexpr int kPath = 100'000;  // too long for a stack, were its end recursive
    unsigned long const before = tiedCount();
    lamp_.next = handle_;  // a circle
    {
        TreflectObject const start(&lamp_);
        TreflectAttribute* at = &start.attribute("Next");
        for (int i = 0; i < kPath; ++i)
            at = &at->attribute("Next");
        EXPECT_EQ(at->operation("ping").call(), 0);
        EXPECT_EQ(tiedCount(), before + kPath + 2);
    }
    EXPECT_EQ(tiedCount(), before);
    EXPECT_EQ(lamp_.pings(), 1u);
    lamp_.next = TreflectObject();
}

TEST_F(BoundMembers, MayBeTiedAndUntiedByAnyNumberOfThreads) {
    TreflectReleaseHandlerState const released;
    unsigned long const before = tiedCount();
    TreflectMetaOperation const meta("op", nullptr, 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 200; ++n) {
                TreflectObject const handle;
                EXPECT_NE(meta.getTied(&handle), meta.getTied(&handle));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(tiedCount(), before);
}

TEST_F(BoundMembers, GiveTextsAwayAndKeepNoneThatCouldNotBeRead) {
    auto const isText = [](char* value, char const* expected) {
        std::unique_ptr<char[]> const owner(value);
        return value && std::string(value) == expected;
    };
    lamp_.label = "long enough to stand on the heap";
    TreflectAttribute& label = handle_.attribute("Label");
    char* value = nullptr;
    EXPECT_EQ(label.get(value), 0);
    EXPECT_TRUE(isText(value, lamp_.label.c_str()));
    EXPECT_TRUE(isText(label.fetch<char*>().valueOr(nullptr), lamp_.label.c_str()));

    // Numbers, of which the last is no length of a text that is there.
    lamp_.steps = {0, 0, 9};
    lamp_.codes.push_back(0);
    lamp_.codes.push_back(0xFFFF);
    for (TreflectAttribute* const numbers : {&bind<TreflectArrayMetaAttribute>("Steps"),
                                             &bind<TreflectSequenceMetaAttribute>("Codes")}) {
        bool const isArray = numbers->containerType() == TreflectAttribute::kArray;
        char unchanged[] = "unchanged";
        value = unchanged;
        EXPECT_EQ((*numbers)[isArray ? 2 : 0].get(value), TreflectAttribute::error);
        EXPECT_EQ(numbers->fetch<char*>().code(), TipprmiFailure::kUnreadable);
        EXPECT_EQ((*numbers)[7].get(value), isArray ? 0 : TreflectAttribute::error);
        EXPECT_EQ(value, unchanged);
    }
}

// ---- Arrays and sequences ----------------------------------------------------------------------

TEST_F(BoundMembers, ReadOneElementOfAnArrayOrASequence) {
    lamp_.steps = {10, 11, 12};
    for (unsigned int const code : {10, 11, 12})
        lamp_.codes.push_back(code);
    for (TreflectAttribute* const elements : {&bind<TreflectArrayMetaAttribute>("Steps"),
                                              &bind<TreflectSequenceMetaAttribute>("Codes")}) {
        unsigned int value = 0;
        for (int i = 0; i < lamp::kRowLength; ++i) {
            EXPECT_EQ(&(*elements)[i], elements);
            EXPECT_EQ(elements->get(value), 0);
            EXPECT_EQ(value, 10u + static_cast<unsigned int>(i));
        }
        for (int const outside : {lamp::kRowLength, 7, 8, -2, 0x7FFFFFFF}) {
            EXPECT_EQ((*elements)[outside].get(value), 0);
            EXPECT_EQ(value, 12u) << outside;
            EXPECT_EQ(elements->fetch<unsigned int>().valueOr(9), 0u);
        }
    }
    lamp_.switches = {false, true, false};
    bool on = false;
    EXPECT_EQ(bind<TreflectArrayMetaAttribute>("Switches")[1].get(on), 0);
    EXPECT_TRUE(on);

    TreflectAttribute& steps = bind<TreflectArrayMetaAttribute>("Steps");
    Row<unsigned int> row{};
    EXPECT_EQ(steps.get(row), 0);
    EXPECT_EQ(row, lamp_.steps);
    row = {1, 2, 3};
    EXPECT_EQ(steps[1].set(row), TreflectAttribute::error);  // one element cannot be written
    EXPECT_EQ(steps[-1].set(row), 0);
    EXPECT_EQ(lamp_.steps, row);

    // An attribute that is bound by its name is no container, unless it is made one.
    TreflectAttribute& byName = handle_.attribute("Steps");
    EXPECT_EQ(byName.constLength(), lamp::kRowLength);
    for (unsigned int const expected : {1u, 3u}) {
        unsigned int value = 0;
        EXPECT_EQ(byName[2].get(value), 0);
        EXPECT_EQ(value, expected);
        byName.setContainerType(TreflectAttribute::kArray);
    }
}

TEST_F(BoundMembers, ReadOneObjectOfMany) {
    LampObject second("second bound lamp");
    lamp_.others[1] = TreflectObject(&second);
    lamp_.crowd.push_back(handle_);
    lamp_.crowd.push_back(TreflectObject(&second));
    TreflectAttribute& others = bind<TreflectArrayMetaAttribute>("Others");
    TreflectAttribute& crowd = bind<TreflectSequenceMetaAttribute>("Crowd");

    TreflectObject found = handle_;
    EXPECT_EQ(others[lamp::kRowLength].get(found), 0);
    EXPECT_EQ(found, handle_);
    for (TreflectAttribute* const many : {&others, &crowd}) {
        found = handle_;
        EXPECT_EQ((*many)[1].get(found), 0);
        EXPECT_EQ(found, TreflectObject(&second));
    }
    EXPECT_EQ(crowd[2].get(found), 0);
    EXPECT_EQ(found, TreflectObject(&second));
    EXPECT_EQ(others[2].get(found), 0);
    EXPECT_FALSE(found.isConnected());
    // One object reference, not a sequence, is what is read without an index; of an array that is
    // the first.
    others.clearIndex();
    EXPECT_EQ(others.get(found), 0);
    EXPECT_FALSE(found.isConnected());

    // Navigation goes by the element that is selected, and fetches it each time.
    EXPECT_EQ(crowd[0].operation("ping").call(), 0);
    EXPECT_EQ(crowd[1].operation("ping").call(), 0);
    EXPECT_EQ(lamp_.pings(), 1u);
    EXPECT_EQ(second.pings(), 1u);
    crowd.clearIndex();
    EXPECT_EQ(crowd.operation("ping").call(), 0);  // the object that was fetched last
    EXPECT_EQ(second.pings(), 2u);
    lamp_.crowd.setLength(0);
}

/** A lamp of whatever class it is called, which has five others. */
class Foreign : public LampObject {
public:
    static constexpr unsigned int kFive = 1, kClass = 0x52430050;

    explicit Foreign(std::string const& name) : LampObject(name) {}
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        return mc == kFive ? serve(cc, cc, mc, in, out, &Foreign::five)
                           : LampObject::dispatch(withResponse, lamp::kClass, mc, in, out);
    }

private:
    std::array<TreflectObject, 5> five() const {
        TreflectObject const self(this);
        return {self, self, self, self, self};
    }
};

TEST_F(BoundMembers, ReadObjectsOfATypeThatIsToldAsOthers) {
    TreflectMetaClass const meta("Foreign", Foreign::kClass, {},
                                 {{"getFive", Foreign::kFive, {}, {"array<object, 5>"}},
                                  {"getCrowd", lamp::kCrowd, {}, {"sequence<object>"}}},
                                 {{"Five", lampMeta, TreflectMetaClass::Attribute::kArray, 3},
                                  {"Crowd", lampMeta, TreflectMetaClass::Attribute::kSequence, 8}});
    InterfaceRepository::instance()->findInterface(Foreign::kClass);
    Foreign foreign("foreign lamp");
    TreflectObject const handle(&foreign);
    TreflectAttribute& five =
        *dynamic_cast<TreflectArrayMetaAttribute const&>(*meta.metaAttribute("Five"))
             .getTied(&handle);
    for (int const i : {-2, 0, 1, 2, 3, 4, 5}) {
        TreflectObject found = handle_;
        EXPECT_EQ(five[i].get(found), 0);
        EXPECT_EQ(found, i >= 0 && i < 3 ? handle : handle_) << i;
        EXPECT_EQ(five.fetch<TreflectObject>().value().isConnected(), i >= 0 && i < 3) << i;
    }

    // Of one that is bound by its name, an element that is not there is no object.
    foreign.crowd.push_back(handle_);
    TreflectAttribute& crowd = *meta.metaAttribute("Crowd")->getTied(&handle);
    TreflectObject found = handle;
    EXPECT_EQ(crowd[0].get(found), 0);
    EXPECT_EQ(found, handle_);
    EXPECT_EQ(crowd[7].get(found), 0);
    EXPECT_FALSE(found.isConnected());
    EXPECT_EQ(crowd[0].operation("ping").call(), 0);
    crowd[7].operation("ping").call();
    EXPECT_EQ(lamp_.pings(), 1u) << "the one that was found before";
    crowd.setContainerType(TreflectAttribute::kSequence);
    found = handle;
    EXPECT_EQ(crowd[7].get(found), 0);
    EXPECT_EQ(found, handle);
}

/** An attribute whose object holds the call that reads it, and whose class goes meanwhile. */
class Brought {
public:
    Brought(char const* type, TreflectMetaClass::Attribute const& held)
        : meta_(new TreflectMetaClass("Brought", Foreign::kClass, {},
                                      {{"getHeld", lamp::kHeld, {}, {type}}}, {held})) {
        InterfaceRepository::instance()->findInterface(Foreign::kClass);
        handle_ = std::make_unique<TreflectObject>(&object);
    }
    void goWhile(std::function<void(TreflectAttribute&)> const& reads, unsigned int count = 1) {
        duringCalls(reads, count, [this] {
            handle_.reset();
            meta_.reset();
        });
    }
    /** That many threads do what reads, and `act` is done meanwhile. */
    void duringCalls(std::function<void(TreflectAttribute&)> const& reads, unsigned int count,
                     std::function<void()> const& act) {
        TreflectAttribute& held = *meta_->metaAttribute("Held")->getTied(handle_.get());
        std::atomic<unsigned int> begun{0};  // under the permission, which is given up in the call
        std::vector<std::thread> readers;
        while (readers.size() < count)
            readers.emplace_back([&] {
                TreflectHandlerState const permission(true);
                ++begun;
                reads(held);
            });
        released([&] {
            EXPECT_SOON(begun == count);
            EXPECT_TRUE(object.entered().wait());
        });
        act();
        object.release();
        TreflectReleaseHandlerState const released;
        for (std::thread& reader : readers)
            reader.join();
    }
    Foreign object{"held lamp"};

private:
    std::unique_ptr<TreflectMetaClass const> meta_;
    std::unique_ptr<TreflectObject> handle_;
};

TEST_F(BoundMembers, MayGoWithTheirClassWhileACallWaits) {
    {
        Brought brought("unsigned", "Held");
        brought.object.held = 0xFFFFFFFF;
        brought.goWhile([](TreflectAttribute& held) {
            int value = 5;
            EXPECT_EQ(held.get(value), TreflectAttribute::error);
            EXPECT_EQ(value, 5);
        });
        EXPECT_TRUE(
            log_.find("attribute \"Held\" of class \"Brought\" is \"unsigned\", out of the "
                      "range of \"int\""));
    }
    Brought("object", {"Held", lampMeta}).goWhile([](TreflectAttribute& held) {
        EXPECT_EQ(&held.attribute("Level"), &TreflectAttribute::errorAttribute);
    });
    Brought("object", {"Held", lampMeta})
        .goWhile([](TreflectAttribute& held) { EXPECT_FALSE(held[0].updateContainedObject()); }, 2);
}

TEST_F(BoundMembers, LeadNowhereWhenTheClassOfTheirValueGoesWhileACallWaits) {
    using Table = TreflectMetaClass;
    auto value = std::make_unique<Table>("Value", Foreign::kClass + 1, std::vector<Table const*>(),
                                         std::vector<Table::Operation>());
    auto const leadsNowhere = [](TreflectAttribute& held) {
        EXPECT_EQ(&held.attribute("Level"), &TreflectAttribute::errorAttribute);
    };
    Brought("object", {"Held", *value}).duringCalls(leadsNowhere, 1, [&] { value.reset(); });
}

// ---- What does not exist -----------------------------------------------------------------------

TEST_F(BoundMembers, NullObjectsDoNothing) {
    log_.clear();
    TreflectErrorAttribute& attribute = TreflectObject::errorAttribute;
    auto const bytes = [] {
        return wire::hex(&TreflectObject::errorAttribute, sizeof TreflectObject::errorAttribute);
    };
    std::string const before = bytes();
    EXPECT_TRUE(attribute.isError());
    TreflectObject object = handle_;
    unsigned int number = 5;
    EXPECT_EQ(attribute.get(object), 4);
    EXPECT_EQ(object, handle_);
    EXPECT_EQ(attribute[1].get(number), 4);
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(attribute.set(number), 4);
    EXPECT_FALSE(attribute.fetch<unsigned int>());
    EXPECT_EQ(attribute.store(number).code(), TipprmiFailure::kNotServed);
    attribute.setContainerType(TreflectAttribute::kArray);
    EXPECT_EQ(attribute.containerType(), 0);
    EXPECT_FALSE(attribute.updateContainedObject());
    EXPECT_EQ(&attribute.attribute("x"), &attribute);
    EXPECT_EQ(&attribute.operSet(), &TreflectAttribute::errorOperation);
    EXPECT_EQ(bytes(), before) << "all threads have the same one";
    for (TreflectOperation* const null : std::initializer_list<TreflectOperation*>{
             &TreflectObject::errorOperation, &attribute.operation("x")}) {
        EXPECT_TRUE(null->isError());
        EXPECT_EQ(null->call(), 5);
        EXPECT_FALSE(null->preObserve(nullptr));
        EXPECT_FALSE(null->postObserve(nullptr));
        null->removeObserver(nullptr);
    }
    EXPECT_EQ(log_.records().size(), 0u);
}

TEST_F(BoundMembers, UnknownNamesLeadToTheNullObjects) {
    handle_.meta();  // its table names types that nobody knows, which is told first
    auto const lines = [this] {
        std::vector<std::string> texts = log_.texts();
        EXPECT_EQ(log_.count(3, ""), texts.size());
        log_.clear();
        return texts;
    };
    log_.clear();
    std::string const noX = "TreflectMetaObject::metaAttribute(x) NOT found, returning 0";
    EXPECT_EQ(&handle_.attribute("x"), &TreflectObject::errorAttribute);
    EXPECT_EQ(log_.find("not found")->source, "REFLECT_object");
    EXPECT_THAT(lines(), ElementsAre(noX, noX, "attribute \"x\" not found"));
    EXPECT_EQ(&handle_.operation("x"), &TreflectObject::errorOperation);
    EXPECT_EQ(log_.find("not found")->source, "REFLECT_object");
    EXPECT_THAT(lines(),
                ElementsAre("TreflectMetaObject(Lamp)::metaOperation(x) NOT found, returning 0",
                            "operation \"x\" not found"));

    // Who has no class is asked for it once.
    TreflectObject const nothing;
    EXPECT_EQ(&nothing.attribute("Name"), &TreflectObject::errorAttribute);
    EXPECT_THAT(lines(), ElementsAre("TreflectObjectStub::meta() - did not find any meta "
                                     "information, returning NULL",
                                     "attribute \"Name\" not found"));
    EXPECT_EQ(&nothing.operation("ping"), &TreflectObject::errorOperation);
    EXPECT_EQ(lines().size(), 2u);

    // A value that leads nowhere, and names that its class does not have, leave one line each.
    EXPECT_EQ(&handle_.attribute("Level").attribute("Name"), &TreflectAttribute::errorAttribute);
    EXPECT_EQ(&handle_.attribute("Level").operation("ping"), &TreflectAttribute::errorOperation);
    EXPECT_EQ(lines().size(), 0u);
    lamp_.next = handle_;
    EXPECT_EQ(&handle_.attribute("Next").operation("x"), &TreflectAttribute::errorOperation);
    EXPECT_EQ(lines().size(), 1u);
    EXPECT_EQ(&handle_.attribute("Next").attribute("x"), &TreflectAttribute::errorAttribute);
    EXPECT_EQ(lines().size(), 2u) << "of both classes";
    lamp_.next = TreflectObject();
}

}  // namespace
