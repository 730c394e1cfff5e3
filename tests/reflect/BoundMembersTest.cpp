// Attributes and operations that are bound to a handle: who owns them, which part of a value they
// read, and the null objects that stand for those that do not exist.
#include <gtest/gtest.h>
#include <pthread.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "ReflectiveClasses.h"

namespace {

using ContainerType = TreflectAttribute::TreflectAttributeType;

/** What the registry itself says. */
unsigned long tiedCount() {
    testsupport::LogCapture const log;
    TreflectTieds::instance()->print();
    std::string const suffix = " tieds are registered";
    auto const record = log.find(suffix);
    if (!record || record->level != 5 || record->source != "REFLECT_memberFactory")
        return ~0ul;
    EXPECT_EQ(log.records().size(), 1u);
    EXPECT_EQ(record->text, std::to_string(std::stoul(record->text)) + suffix);
    return std::stoul(record->text);
}

/** Every test runs under the run permission. */
class BoundMembers : public ::testing::Test {
protected:
    template <class MetaAttribute>
    TreflectAttribute& bind(char const* name) {
        InterfaceRepository::instance()->findInterface(lamp::kClass);
        auto const* const meta = dynamic_cast<MetaAttribute const*>(lampMeta.metaAttribute(name));
        return *meta->getTied(&handle_);
    }

    TreflectHandlerState const handlerState_{true};
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
    EXPECT_EQ(tiedCount(), before + 2);
    other->operation("ping");
    TreflectAttribute& name = other->attribute("Name");
    EXPECT_EQ(tiedCount(), before + 4);
    // The operations of an attribute are made once.
    EXPECT_EQ(&name.operGet(), &name.operGet());
    EXPECT_EQ(tiedCount(), before + 5);

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

/** Destroys a handle on a thread with a small stack. */
void destroyOnSmallStack(std::unique_ptr<TreflectObject> handle) {
    constexpr std::size_t kStack = 512 * 1024;
    TreflectReleaseHandlerState const released;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStack);
    auto const destroy = [](void* handleToEnd) -> void* {
        delete static_cast<TreflectObject*>(handleToEnd);
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, destroy, handle.get()), 0);
    static_cast<void>(handle.release());
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

TEST_F(BoundMembers, EndWithThoseThatTheyLeadTo) {
    constexpr int kPath = 10000;  // too long for a stack, were its end recursive
    unsigned long const before = tiedCount();
    lamp_.next = handle_;  // a circle
    auto start = std::make_unique<TreflectObject>(&lamp_);
    TreflectAttribute* at = &start->attribute("Next");
    for (int i = 0; i < kPath; ++i)
        at = &at->attribute("Next");
    EXPECT_EQ(at->operation("ping").call(), 0);
    EXPECT_EQ(tiedCount(), before + kPath + 2);
    destroyOnSmallStack(std::move(start));
    EXPECT_EQ(tiedCount(), before);
    EXPECT_EQ(lamp_.pings(), 1u);
    lamp_.next = TreflectObject();
}

/** Comes back to the registry when it ends. */
class Returning : public TreflectTieds::TiedBase {
public:
    Returning(TreflectTieds& tieds, int& ended) : tieds_(tieds), ended_(ended) {}
    ~Returning() override {
        tieds_.print();
        tieds_.destroyTieds(nullptr);
        ++ended_;
    }

private:
    TreflectTieds& tieds_;
    int& ended_;
};

TEST(Tieds, AreDestroyedWithTheLastReferenceAndNotUnderTheLock) {
    testsupport::LogCapture const log;
    TreflectObject const handle;
    TreflectObject const other;
    int ended = 0;
    {
        TreflectTieds tieds;
        OSWrap::SmartPointer<TreflectTieds::TiedBase> shared(new Returning(tieds, ended));
        tieds.adoptTied(&handle, shared);
        tieds.adoptTied(&handle,
                        OSWrap::SmartPointer<TreflectTieds::TiedBase>(new Returning(tieds, ended)));
        for (int i = 0; i < 2; ++i)
            tieds.adoptTied(
                &other, OSWrap::SmartPointer<TreflectTieds::TiedBase>(new Returning(tieds, ended)));
        tieds.destroyTieds(&handle);
        EXPECT_EQ(ended, 1);
        tieds.destroyTieds(&handle);
        shared.reset();
        EXPECT_EQ(ended, 2);
        EXPECT_EQ(log.count("2 tieds are registered"), 2u);
    }
    EXPECT_EQ(ended, 4);
    EXPECT_EQ(log.count("0 tieds are registered"), 2u);
}

TEST(Tieds, AnyNumberOfThreadsMayTieAndUntie) {
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

// ---- Arrays and sequences ----------------------------------------------------------------------

TEST_F(BoundMembers, HaveTheContainerTypeOfTheirOwnFactoryOnly) {
    EXPECT_EQ(bind<TreflectArrayMetaAttribute>("Steps").containerType(), 2);
    EXPECT_EQ(bind<TreflectSequenceMetaAttribute>("Codes").containerType(), 1);
    EXPECT_EQ(bind<TreflectMetaAttribute>("Level").containerType(), 0);
    EXPECT_EQ(bind<TreflectMetaAttribute>("Steps").containerType(), 0);

    lamp_.steps.elements = {10, 11, 12};
    TreflectAttribute& byName = handle_.attribute("Steps");
    EXPECT_EQ(byName.containerType(), 0);
    EXPECT_EQ(byName.constLength(), 3);
    unsigned int value = 0;
    EXPECT_EQ(byName[2].get(value), 0);
    EXPECT_EQ(value, 10u);
    byName.setContainerType(TreflectAttribute::kArray);
    EXPECT_EQ(byName.get(value), 0);
    EXPECT_EQ(value, 12u);
}

TEST_F(BoundMembers, ReadOneElementOfAnArray) {
    lamp_.steps.elements = {10, 11, 12};
    lamp_.switches.elements = {false, true, false};
    TreflectAttribute& steps = bind<TreflectArrayMetaAttribute>("Steps");
    for (int i = 0; i < lamp::kRowLength; ++i) {
        unsigned int value = 0;
        EXPECT_EQ(&steps[i], &steps);
        EXPECT_EQ(steps.get(value), 0);
        EXPECT_EQ(value, 10u + static_cast<unsigned int>(i));
    }
    for (int const outside : {lamp::kRowLength, lamp::kRowLength + 1, -2, 0x7FFFFFFF}) {
        unsigned int value = 5;
        EXPECT_EQ(steps[outside].get(value), 0);
        EXPECT_EQ(value, 5u) << outside;
        EXPECT_EQ(steps.fetch<unsigned int>().valueOr(9), 0u);
    }
    bool on = false;
    EXPECT_EQ(bind<TreflectArrayMetaAttribute>("Switches")[1].get(on), 0);
    EXPECT_TRUE(on);

    Row<unsigned int> row;
    steps.clearIndex();
    EXPECT_EQ(steps.get(row), 0);
    EXPECT_EQ(row.elements, lamp_.steps.elements);
    row.elements = {1, 2, 3};
    EXPECT_EQ(steps[1].set(row), TreflectAttribute::error);  // one element cannot be written
    EXPECT_EQ(steps[-1].set(row), 0);
    EXPECT_EQ(lamp_.steps.elements, row.elements);
}

TEST_F(BoundMembers, ReadOneElementOfASequence) {
    lamp_.codes.push_back(20);
    lamp_.codes.push_back(21);
    TreflectAttribute& codes = bind<TreflectSequenceMetaAttribute>("Codes");
    unsigned int value = 0;
    EXPECT_EQ(codes[1].get(value), 0);
    EXPECT_EQ(value, 21u);
    for (int const outside : {2, 7, 8, -2}) {
        EXPECT_EQ(codes[outside].get(value), 0);
        EXPECT_EQ(value, 21u) << outside;
    }
    codes.clearIndex();
    TipprmiSequence<unsigned int, 0u> all;
    EXPECT_EQ(codes.get(all), 0);
    ASSERT_EQ(all.getLength(), 2u);
    EXPECT_EQ(all[0], 20u);
    all.setLength(0);
    EXPECT_EQ(codes.set(all), 0);
    EXPECT_EQ(codes[0].get(value), 0);
    EXPECT_EQ(value, 21u);
}

TEST_F(BoundMembers, ReadOneObjectOfMany) {
    LampObject second("second bound lamp");
    lamp_.others.elements[1] = TreflectObject(&second);
    lamp_.crowd.push_back(handle_);
    lamp_.crowd.push_back(TreflectObject(&second));
    TreflectAttribute& others = bind<TreflectArrayMetaAttribute>("Others");
    TreflectAttribute& crowd = bind<TreflectSequenceMetaAttribute>("Crowd");
    TreflectObject const isSecond(&second);

    TreflectObject found = handle_;
    EXPECT_EQ(others[lamp::kRowLength].get(found), 0);
    EXPECT_EQ(found, handle_);
    EXPECT_EQ(others[1].get(found), 0);
    EXPECT_EQ(found, isSecond);
    EXPECT_EQ(others[2].get(found), 0);
    EXPECT_FALSE(found.isConnected());
    EXPECT_EQ(crowd[2].get(found), 0);
    EXPECT_FALSE(found.isConnected());
    EXPECT_EQ(crowd[1].get(found), 0);
    EXPECT_EQ(found, isSecond);
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

// ---- What does not exist -----------------------------------------------------------------------

TEST_F(BoundMembers, NullObjectsDoNothing) {
    testsupport::LogCapture const log;
    TreflectErrorAttribute& attribute = TreflectObject::errorAttribute;
    TreflectErrorOperation& operation = TreflectObject::errorOperation;
    EXPECT_TRUE(attribute.isError());
    EXPECT_EQ(attribute.meta(), nullptr);
    TreflectObject object = handle_;
    unsigned int number = 5;
    EXPECT_EQ(attribute.get(object), 4);
    EXPECT_EQ(object, handle_);
    EXPECT_EQ(attribute[1].get(number), 4);
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(attribute.set(number), 4);
    EXPECT_FALSE(attribute.fetch<unsigned int>());
    EXPECT_EQ(attribute.store(number).code(), TipprmiFailure::kNotServed);
    EXPECT_EQ(attribute.constLength(), 0);
    attribute.setContainerType(TreflectAttribute::kArray);
    EXPECT_EQ(attribute.containerType(), 0);
    EXPECT_FALSE(attribute.updateContainedObject());
    EXPECT_EQ(&attribute.attribute("x"), &attribute);
    EXPECT_EQ(&attribute.operation("x"), &TreflectAttribute::errorOperation);
    EXPECT_EQ(&TreflectAttribute::errorAttribute.attribute("x"),
              &TreflectAttribute::errorAttribute);
    EXPECT_EQ(&attribute.operGet(), &TreflectAttribute::errorOperation);
    EXPECT_EQ(&attribute.operSet(), &TreflectAttribute::errorOperation);

    for (TreflectOperation* const null :
         {static_cast<TreflectOperation*>(&operation), &attribute.operation("x")}) {
        EXPECT_TRUE(null->isError());
        EXPECT_EQ(null->call(), 5);
        EXPECT_FALSE(null->preObserve(nullptr));
        EXPECT_FALSE(null->postObserve(nullptr));
        null->removeObserver(nullptr);
    }
    EXPECT_EQ(log.records().size(), 0u);
}

TEST_F(BoundMembers, UnknownNamesLeadToTheNullObjects) {
    testsupport::LogCapture log;
    EXPECT_EQ(&handle_.attribute("x"), &TreflectObject::errorAttribute);
    EXPECT_EQ(log.count(3, "TreflectMetaObject::metaAttribute(x) NOT found, returning 0"), 2u);
    auto record = log.find("attribute \"x\" not found");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->text, "attribute \"x\" not found");
    EXPECT_EQ(record->level, 3);
    EXPECT_EQ(record->source, "REFLECT_object");
    EXPECT_EQ(log.records().size(), 3u);

    log.clear();
    EXPECT_EQ(&handle_.operation("x"), &TreflectObject::errorOperation);
    EXPECT_EQ(log.count(3, "TreflectMetaObject(Lamp)::metaOperation(x) NOT found, returning 0"),
              1u);
    record = log.find("operation \"x\" not found");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->text, "operation \"x\" not found");
    EXPECT_EQ(record->level, 3);
    EXPECT_EQ(record->source, "REFLECT_object");
    EXPECT_EQ(log.records().size(), 2u);

    // Who has no class is asked for it once.
    log.clear();
    TreflectObject const nothing;
    EXPECT_EQ(&nothing.attribute("Name"), &TreflectObject::errorAttribute);
    EXPECT_EQ(&nothing.operation("ping"), &TreflectObject::errorOperation);
    EXPECT_EQ(log.count(3,
                        "TreflectObjectStub::meta() - did not find any meta information, "
                        "returning NULL"),
              2u);
    EXPECT_EQ(log.records().size(), 4u);

    // A value that leads nowhere, and names that its class does not have, leave one line each.
    log.clear();
    EXPECT_EQ(&handle_.attribute("Level").attribute("Name"), &TreflectAttribute::errorAttribute);
    EXPECT_EQ(&handle_.attribute("Level").operation("ping"), &TreflectAttribute::errorOperation);
    EXPECT_EQ(log.records().size(), 0u);
    lamp_.next = handle_;
    EXPECT_EQ(&handle_.attribute("Next").operation("x"), &TreflectAttribute::errorOperation);
    EXPECT_EQ(log.records().size(), 1u);
    EXPECT_EQ(&handle_.attribute("Next").attribute("x"), &TreflectAttribute::errorAttribute);
    EXPECT_EQ(log.records().size(), 3u);
    lamp_.next = TreflectObject();
}

TEST_F(BoundMembers, AskTheObjectTwiceForItsClass) {
    class Counting : public LampObject {
    public:
        using LampObject::LampObject;
        TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
            ++asked;
            return LampObject::getServerClassIdSeq();
        }
        mutable int asked = 0;
    };
    Counting const counted("counting lamp");
    TreflectObject const handle(&counted);
    handle.attribute("Level");
    EXPECT_EQ(counted.asked, 2);
    handle.operation("x");
    EXPECT_EQ(counted.asked, 4);
}

TEST_F(BoundMembers, ClassesOfValuesAreCompletedWhenTheyAreNeeded) {
    // As generated code does it: nobody has ever looked for the class of the value.
    TreflectMetaClass value("Value", 0x7E570100, {}, {{"ping", device::kPing}});
    TreflectMetaOperation const get("getNext", &lampMeta, lamp::kNext);
    TreflectMetaAttribute meta("Next", &lampMeta, &get, nullptr);
    meta.registerType(&value);
    lamp_.next = handle_;
    EXPECT_EQ(value.metaOperation_("ping"), nullptr);
    TreflectAttribute& next = *meta.getTied(&handle_);
    EXPECT_TRUE(next.updateContainedObject());
    TreflectOperation const& ping = next.operation("ping");
    ASSERT_FALSE(ping.isError());
    EXPECT_EQ(ping.meta()->containingMetaObject(), &value);
    lamp_.next = TreflectObject();
}

}  // namespace
