// Changes that objects tell, and those who watch attributes: here and in other processes, with and
// without a least interval, and what becomes of them when somebody goes meanwhile.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <stdexcept>

#include "BrokerTest.h"
#include "Gauge.h"
#include "ReflectActor.h"
#include "Threads.h"
#include "oswrap/ConditionVar.h"
#include "oswrap/Lock.h"

namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Level = TreflectWatch<unsigned int>;

namespace dial {
constexpr unsigned int kClass = 0x52430011;
enum Method : unsigned int { kGet = 1, kSet = 2, kCount = 3, kTake = 4, kGive = 5 };
}  // namespace dial

/** Tells of each change by itself, also of those that are set. */
class Dial : public TreflectInterface<Dial> {
public:
    explicit Dial(std::string const& name)
        : TreflectInterface(TipprmiOID(name, NSID_UNIT), nullptr, name) {}

    unsigned int get() { return value; }
    void set(unsigned int wanted) {
        turn(wanted);
        if (wanted == kUnlucky)
            throw std::runtime_error("on purpose");
    }
    unsigned int count() { return turns_; }
    unsigned int take() { return value; }
    unsigned int give(unsigned int wanted) {
        value = wanted;
        return 4711;
    }
    void turn(unsigned int to) {
        value = to;
        ++turns_;
        changed("Value");
    }

    static constexpr unsigned int kUnlucky = 13;
    static constexpr auto interface() {
        return describe("Dial", dial::kClass,
                        attribute<&Dial::get, &Dial::set>("Value", dial::kGet, dial::kSet),
                        attribute<&Dial::count>("Count", dial::kCount),
                        attribute<&Dial::take, &Dial::give>("Odd", dial::kTake, dial::kGive));
    }

    unsigned int value = 1;

private:
    unsigned int turns_ = 0;
};

/** Opens the gate, and does not go on before its thread is cancelled. */
void hang(testsupport::Gate& begun) {
    TreflectReleaseHandlerState const released;
    begun.open();
    OSWrap::ConditionVar never;
    OSWrap::Lock<OSWrap::ConditionVar> const lock(never);
    for (;;)
        never.wait(OSWrap::TimeSpec::INFINITETIME);
}

/** A dial, and tests that hold the permission all the time. */
class LocalWatch : public PermittedTest {
protected:
    /** For a thread without the permission. */
    bool isTold(std::vector<unsigned int> const& values) {
        return testsupport::eventually([&] { return permitted([&] { return told_ == values; }); });
    }
    TreflectAttribute& value() { return client_.attribute("Value"); }
    Level::Reaction note() {
        return [this](unsigned int level) { told_.push_back(level); };
    }

    std::optional<Dial> dial_{std::in_place, "dial"};
    TreflectClient<Dial> const client_{&*dial_};
    std::vector<unsigned int> told_;
};

// ---- What is told ------------------------------------------------------------------------------

TEST_F(LocalWatch, IsToldTheValueAtOnceAndEachOtherOneOnce) {
    Watcher plain("plain");
    client_.operation("setValue").postObserve(&plain);
    {
        Level const watch(value(), note());
        EXPECT_FALSE(watch.isError());
        EXPECT_THAT(told_, ElementsAre(1u));
        dial_->turn(5);
        EXPECT_THAT(told_, ElementsAre(1u, 5u));
        EXPECT_THAT(plain.values, ElementsAre(5u)) << "as if it had been given by the set";
        dial_->turn(5);
        EXPECT_THAT(told_, ElementsAre(1u, 5u)) << "it is no other one";
        EXPECT_EQ(plain.told.size(), 2u);

        // Set directly and through streams, when the dial itself tells, too.
        EXPECT_TRUE(client_.call<&Dial::set>(6u));
        EXPECT_EQ(value().set(7u), 0);
        EXPECT_THAT(told_, ElementsAre(1u, 5u, 6u, 7u));
        EXPECT_EQ(plain.told.size(), 4u) << "once each";
        EXPECT_THAT(plain.values, IsEmpty()) << "a set has no result";
        // A set that fails has changed it all the same, and nobody else is going to tell.
        EXPECT_THROW(value().set(Dial::kUnlucky), std::runtime_error);
        EXPECT_THROW(client_.call<&Dial::set>(Dial::kUnlucky), std::runtime_error);
        EXPECT_THAT(told_, ElementsAre(1u, 5u, 6u, 7u, 13u));
        EXPECT_THAT(plain.values, ElementsAre(13u));
    }
    EXPECT_EQ(dial_->observations_().size(), 1u);
    dial_->turn(8);
    EXPECT_EQ(told_.size(), 5u);
}

TEST_F(LocalWatch, IsToldOfWhatCanOnlyBeReadAndHindersNoReader) {
    Watcher reader("reader");
    Level const watch(client_.attribute("Count"), note());
    EXPECT_FALSE(dial_->postObserverAvailable(dial::kClass, dial::kCount));
    client_.operation("getCount").preObserve(&reader);
    client_.operation("getCount").postObserve(&reader);
    dial_->turn(5);
    dial_->changed("Count");
    EXPECT_THAT(told_, ElementsAre(0u, 1u));
    EXPECT_THAT(reader.told, IsEmpty()) << "nobody has called it";
    EXPECT_EQ(client_.call<&Dial::count>().value(), 1u);
    EXPECT_EQ(reader.told.size(), 2u);
}

TEST_F(LocalWatch, IsToldTheValueAndNotTheResultOfASet) {
    Level const watch(client_.attribute("Odd"), note());
    EXPECT_EQ(client_.call<&Dial::give>(5u).value(), 4711u);
    dial_->value = 6;
    dial_->changed("Odd");
    EXPECT_THAT(told_, ElementsAre(1u, 5u, 6u));
}

TEST_F(LocalWatch, OfNothingIsAnError) {
    using Text = TreflectWatch<std::string>;
    log_.clear();
    EXPECT_TRUE(Text(value(), [](std::string const&) { FAIL(); }).isError());
    EXPECT_EQ(log_.count(3, "attribute \"Value\" of class \"Dial\" is \"unsigned\""), 1u);
    EXPECT_TRUE(Level(TreflectObject::errorAttribute, note()).isError());
    TreflectAttributeWatch const bytes(value(), [this](TipprmiAny const& encoded) {
        told_.push_back(static_cast<unsigned int>(encoded.getDataSize()));
    });
    TreflectWatch<int> const signedOnes(
        value(), [this](int level) { told_.push_back(static_cast<unsigned int>(level)); });
    EXPECT_THAT(told_, ElementsAre(4u, 1u));
    dial_->turn(0x80000000);
    EXPECT_THAT(told_, ElementsAre(4u, 1u, 4u)) << "out of the range of an int";

    dial_->changed("Valu");
    EXPECT_EQ(log_.count(3, "attribute \"Valu\" has changed, and is none of \"Dial\""), 1u);
}

TEST_F(LocalWatch, IsNotToldWhatWasOvertakenWhileItWasAskedFor) {
    Gauge gauge("gauge");
    TreflectObject const handle(&gauge);
    // The first question, that of the new watch, gets a value that changes meanwhile.
    gauge.meanwhile = [&] {
        gauge.meanwhile = nullptr;
        gauge.value = 7;
        gauge.changed("Value");
    };
    Level const watch(handle.attribute("Value"), note());
    EXPECT_THAT(told_, ElementsAre(7u));
}

TEST_F(LocalWatch, IsToldTheNextValueWhenItsReactionThrew) {
    Level const watch(value(), [this](unsigned int level) {
        told_.push_back(level);
        throw std::runtime_error("on purpose");
    });
    dial_->turn(5);
    EXPECT_THAT(told_, ElementsAre(1u, 5u));
    EXPECT_EQ(log_.count(3, "who watches attribute \"Value\" threw on purpose"), 2u);
}

// ---- Who goes or changes something meanwhile ---------------------------------------------------

TEST_F(LocalWatch, MayChangeTheAttributeAndIsToldTheEnd) {
    Watcher plain("plain");
    client_.operation("setValue").postObserve(&plain);
    Level const watch(value(), [this](unsigned int level) {
        told_.push_back(level);
        if (level < 4)
            dial_->turn(level + 1);
        else if (level < 6)
            value().set(level + 1);
    });
    EXPECT_THAT(told_, ElementsAre(1u, 2u, 3u, 4u, 5u, 6u));
    dial_->turn(3);
    EXPECT_THAT(told_, ElementsAre(1u, 2u, 3u, 4u, 5u, 6u, 3u, 4u, 5u, 6u));
    EXPECT_THAT(plain.values, ElementsAre(6u));
}

TEST_F(LocalWatch, MayDestroyTheObjectOrItself) {
    Level const other(value(), note());
    auto brief = std::make_unique<std::optional<Level>>();
    brief->emplace(value(), [&](unsigned int level) {
        if (level == 5)
            brief.reset();
    });
    Level const last(value(), [&](unsigned int level) {
        told_.push_back(level + 100);
        if (level == 6)
            dial_.reset();
    });
    dial_->turn(5);
    EXPECT_FALSE(brief);
    EXPECT_EQ(dial_->observations_().size(), 2u);
    dial_->value = 6;
    dial_->changed("Value");
    EXPECT_FALSE(dial_);
    EXPECT_THAT(told_, ElementsAre(1u, 101u, 5u, 105u, 6u, 106u));
}

TEST_F(LocalWatch, EndsWhenItsReactionOnAnotherThreadHas) {
    testsupport::Gate told;
    testsupport::Gate goOn;
    bool over = false;
    std::optional<Level> watch;
    watch.emplace(value(), [&](unsigned int level) {
        told_.push_back(level);
        if (level != 5)
            return;
        released([&] {
            told.open();
            goOn.wait();
        });
        over = true;
    });
    std::thread changer([&] { permitted([&] { dial_->turn(5); }); });
    released([&] { EXPECT_TRUE(told.wait()); });
    EXPECT_EQ(value().set(6u), 0);  // is not told any more
    std::thread opener([&] {
        // The watch has ended its registration, and waits.
        EXPECT_SOON(permitted([&] { return dial_->observations_().empty(); }));
        goOn.open();
    });
    watch.reset();
    EXPECT_TRUE(over);
    EXPECT_THAT(told_, ElementsAre(1u, 5u));
    TreflectReleaseHandlerState const released;
    changer.join();
    opener.join();
}

TEST_F(LocalWatch, IsToldTheLastOfChangesThatOverlap) {
    testsupport::Gate told;
    testsupport::Gate goOn;
    Watcher slow("slow");
    slow.react = [&] {
        slow.react = nullptr;
        TreflectReleaseHandlerState const released;
        told.open();
        goOn.wait();
    };
    client_.operation("setValue").postObserve(&slow);
    Level const watch(value(), note());
    std::thread changer([&] { permitted([&] { dial_->turn(5); }); });
    released([&] { EXPECT_TRUE(told.wait()); });
    dial_->turn(6);  // told by the other thread, which is still at 5
    EXPECT_THAT(told_, ElementsAre(1u));
    EXPECT_EQ(value().set(7u), 0);
    goOn.open();
    released([&] { changer.join(); });
    EXPECT_THAT(told_, ElementsAre(1u, 7u)) << "nothing of what is no more";
    EXPECT_THAT(slow.values, ElementsAre(7u));
}

TEST_F(LocalWatch, KeepsNobodyForThoseWhoGoOnChanging) {
    constexpr unsigned int kFar = 200;
    bool goesOn = true;
    // Each value that is told is another one before that has ended.
    auto const changeElsewhere = [&] {
        if (!goesOn || dial_->value == kFar)
            return;
        TreflectReleaseHandlerState const released;
        std::thread([&] { permitted([&] { dial_->turn(dial_->value + 1); }); }).join();
    };
    auto const stop = [&] {
        EXPECT_LT(dial_->value, kFar);
        goesOn = false;
        TreflectReleaseHandlerState const released;
        EXPECT_SOON(permitted([&] { return told_.back() == dial_->value; }));
    };
    {
        Level const watch(value(), [&](unsigned int level) {
            told_.push_back(level);
            changeElsewhere();
        });
        stop();
    }
    Watcher slow("slow");
    slow.react = changeElsewhere;
    client_.operation("setValue").postObserve(&slow);
    Level const watch(value(), note());
    goesOn = true;
    dial_->turn(100);
    stop();
}

TEST_F(LocalWatch, IsToldOfTheLastChangeWhenWhoTellsIsUnwound) {
    Gauge gauge("gauge");
    TreflectObject const handle(&gauge);
    Watcher slow("slow");
    handle.operation("setValue").postObserve(&slow);
    Level const watch(handle.attribute("Value"), note());
    // What another thread has changed while the object was asked, which failed.
    gauge.meanwhile = [&] {
        gauge.meanwhile = nullptr;
        gauge.value = 7;
        TreflectReleaseHandlerState const released;
        std::thread([&] { permitted([&] { gauge.changed("Value"); }); }).join();
        throw std::runtime_error("on purpose");
    };
    EXPECT_THROW(gauge.changed("Value"), std::runtime_error);
    released([&] { EXPECT_TRUE(isTold({1, 7})); });
    testsupport::Gate told;
    slow.react = [&] {
        slow.react = nullptr;
        hang(told);
    };
    TreflectReleaseHandlerState const released;
    // Who is cancelled while the first of two is told.
    testsupport::TestThread changer([&] {
        permitted([&] {
            gauge.value = 8;
            gauge.changed("Value");
        });
    });
    ASSERT_TRUE(told.wait());
    changer.cancel();
    EXPECT_TRUE(changer.join());
    EXPECT_TRUE(isTold({1, 7, 8}));
}

TEST_F(LocalWatch, IsToldWhatAnotherThreadBroughtWhenWhoTellsIsCancelled) {
    testsupport::Gate told;
    Level const watch(value(), [&](unsigned int level) {
        told_.push_back(level);
        if (level == 8)
            hang(told);
    });
    TreflectReleaseHandlerState const released;
    testsupport::TestThread setter([&] { permitted([&] { client_.call<&Dial::set>(8u); }); });
    ASSERT_TRUE(told.wait());
    permitted([&] { EXPECT_TRUE(client_.call<&Dial::set>(9u)); });
    setter.cancel();
    EXPECT_TRUE(setter.join());
    EXPECT_TRUE(isTold({1, 8, 9}));
}

// ---- At most so often --------------------------------------------------------------------------

TEST_F(LocalWatch, IsToldNoMoreOftenThanItWantsAndTheLastValueAlways) {
    constexpr milliseconds kLeast(150);
    using Clock = std::chrono::steady_clock;
    auto const threads = [] { return testsupport::statesOfThreads("ReflectWatch").size(); };
    auto const comes = [&](unsigned int level) {
        return testsupport::eventually(
            [&] { return permitted([&] { return told_.back() == level; }); });
    };
    ASSERT_SOON(threads() == 0);
    {
        std::vector<Clock::time_point> times;
        Level const watch(
            value(),
            [&](unsigned int level) {
                told_.push_back(level);
                times.push_back(Clock::now());
            },
            kLeast);
        EXPECT_THAT(told_, ElementsAre(1u));
        EXPECT_EQ(threads(), 0u);
        for (unsigned int level = 2; level <= 50; ++level)
            dial_->turn(level);
        TreflectReleaseHandlerState const released;
        ASSERT_TRUE(comes(50));
        EXPECT_EQ(threads(), 1u);
        permitted([&] { dial_->turn(51); });
        ASSERT_TRUE(comes(51));
        permitted([&] {
            for (std::size_t i = 1; i < times.size(); ++i)
                EXPECT_GE(times[i] - times[i - 1], kLeast);
            // One that goes while a value is held back for it.
            std::vector<unsigned int> rarely;
            Level const other(
                value(), [&](unsigned int level) { rarely.push_back(level); },
                std::chrono::hours(1));
            dial_->turn(52);
            EXPECT_THAT(rarely, ElementsAre(51u));
        });
        ASSERT_TRUE(comes(52));
    }
    EXPECT_SOON(threads() == 0);
    // And another one is started when it is needed again.
    Level const again(value(), note(), milliseconds(1));
    dial_->turn(53);
    dial_->turn(54);
    TreflectReleaseHandlerState const released;
    EXPECT_TRUE(comes(54));
}

// ---- Over the borders of processes -------------------------------------------------------------

class RemoteWatch : public BrokerTest {
protected:
    void change(unsigned int level) {
        permitted([&] {
            lamp_->level = level;
            lamp_->changed("Level");
        });
    }
    std::size_t registrations() const {
        return permitted([&] { return lamp_->observations_().size(); });
    }

    Permitted<LampObject> lamp_ = makePermitted<LampObject>("lamp");
};

TEST_F(RemoteWatch, IsToldChangesAndSetsOfAllProcesses) {
    ReflectActor actor;
    ReflectActor other;
    EXPECT_EQ(actor.follow("w", "lamp", "Level"), "0");
    EXPECT_EQ(actor.follow("s", "lamp", "Serial"), "0");
    EXPECT_EQ(actor.follow("t", "lamp", "Label"), "1") << "no number";
    EXPECT_EQ(actor.values("w"), "1 ");
    change(5);
    EXPECT_EQ(actor.values("w"), "1 5 ") << "it has been told when the change returns";
    EXPECT_EQ(other.store("lamp", 6), "ok");
    EXPECT_EQ(actor.store("lamp", 7), "ok");
    EXPECT_EQ(other.store("lamp", 101), std::to_string(lamp::kTooBright));
    change(7);
    EXPECT_EQ(actor.values("w"), "1 5 6 7 ");
    permitted([&] {
        lamp_->serial = 4712;
        lamp_->changed("Serial");
    });
    EXPECT_EQ(actor.values("s"), "4711 4712 ");
    EXPECT_EQ(registrations(), 2u);
    actor.ask("unfollow w", "unfollowed");
    actor.ask("unfollow s", "unfollowed");
    EXPECT_EQ(registrations(), 0u);
    change(8);

    // The object elsewhere, and the watch here.
    other.ask("lamp far", "made");
    std::vector<unsigned int> told;
    auto const watch = permitted([&] {
        return Permitted<Level>(new Level(TreflectObject(oid("far")).attribute("Level"),
                                          [&](unsigned int level) { told.push_back(level); }));
    });
    other.ask("change far 9", "changed");
    EXPECT_EQ(actor.store("far", 10), "ok");
    permitted([&] { EXPECT_THAT(told, ElementsAre(1u, 9u, 10u)); });
    other.child().kill();
    other.child().waitForExit();
}

TEST_F(RemoteWatch, IsAnErrorWhenItsObjectDoesNotAnswerAndHasTimeToAsk) {
    ReflectActor actor;
    actor.ask("lamp far", "made");
    std::vector<unsigned int> told;
    auto const far =
        permitted([&] { return Permitted<TreflectObject>(new TreflectObject(oid("far"))); });
    // Asks the object for its class.
    TreflectAttribute const& level =
        permitted([&]() -> TreflectAttribute const& { return far->attribute("Level"); });
    auto const watch = [&] {
        return permitted([&] {
            return Permitted<Level>(
                new Level(level, [&](unsigned int now) { told.push_back(now); }));
        });
    };
    auto const hurried = [&] {
        TreflectDeadline const passed(milliseconds(0));
        return watch();
    }();
    EXPECT_FALSE(hurried->isError());
    actor.ask("change far 9", "changed");
    permitted([&] { EXPECT_THAT(told, ElementsAre(1u, 9u)); });
    actor.child().kill();
    actor.child().waitForExit();
    EXPECT_TRUE(watch()->isError());
    EXPECT_EQ(log_.count(4, "attribute \"Level\" cannot be watched: its object does not answer"),
              1u);
}

TEST_F(RemoteWatch, WhoseProcessIsKilledWhileItIsToldIsForgotten) {
    ReflectActor actor;
    ReflectActor second;
    for (bool const objectGoes : {false, true}) {
        ReflectActor& one = objectGoes ? second : actor;
        EXPECT_EQ(one.follow("w", "lamp", "Level"), "0");
        one.ask("hangs w", "will");
        LampObject* const lamp = lamp_.get();
        std::atomic<bool> isTold{false};
        std::thread changer([&] {
            permitted([&] {
                lamp->level = 20 + objectGoes;
                lamp->changed("Level");
            });
            isTold = true;
        });
        one.await("hangs");
        if (objectGoes)
            lamp_.reset();
        EXPECT_FALSE(isTold) << "nobody waits for that to destroy the object";
        one.child().kill();
        changer.join();
        if (objectGoes)
            lamp_ = makePermitted<LampObject>("lamp");
        EXPECT_EQ(registrations(), 0u);
        change(30);
    }
}

}  // namespace
