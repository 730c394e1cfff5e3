// Observers of calls: before and after, here and in other processes, and what becomes of those that
// are gone, throw, or are none.
#include <stdexcept>

#include "BrokerTest.h"
#include "Gauge.h"
#include "Probe.h"
#include "RawPeer.h"
#include "ReflectActor.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned int kBefore = TreflectObservable::kBeforeCalls;
constexpr unsigned int kAfter = TreflectObservable::kAfterCalls;

TreflectObserverClient clientOf(Watcher const& watcher) {
    return *watcher.getClient();
}

/** A gauge, and tests that hold the permission all the time. */
class LocalObserver : public PermittedTest {
protected:
    bool isObserved(unsigned int mc, unsigned int kind = kBefore) const {
        return kind == kBefore ? gauge_.preObserverAvailable(gauge::kClass, mc)
                               : gauge_.postObserverAvailable(gauge::kClass, mc);
    }
    void registerAt(unsigned int mc, Watcher const& watcher, unsigned int kind = kBefore) {
        gauge_.registerObserver(kind, gauge::kClass, mc, clientOf(watcher));
    }

    Gauge gauge_{"gauge"};
    GaugeClient const client_{&gauge_};
};

TEST_F(LocalObserver, IsToldTheArgumentsBeforeAndTheResultAfter) {
    Watcher before("before");
    Watcher after("after");
    EXPECT_FALSE(before.notified());
    EXPECT_EQ(before.getSource(), nullptr);
    std::vector<unsigned int> seen;  // the value while they are told
    before.react = after.react = [&] { seen.push_back(gauge_.value); };
    after.answer = false;  // of no account any more
    EXPECT_TRUE(client_.operation("setValue").preObserve(&before));
    EXPECT_TRUE(client_.operation("setValue").postObserve(&after));
    EXPECT_TRUE(client_.operation("getValue").postObserve(&after));

    EXPECT_TRUE(client_.set(5));
    EXPECT_THAT(seen, ElementsAre(1u, 5u));
    EXPECT_THAT(before.values, ElementsAre(5u));
    EXPECT_THAT(after.values, IsEmpty());
    EXPECT_TRUE(before.notified());
    EXPECT_EQ(client_.get().value(), 5u);
    EXPECT_THAT(after.values, ElementsAre(5u));

    // The same through streams, and a call that is refused.
    EXPECT_EQ(client_.attribute("Value").set(6u), 0);
    EXPECT_THAT(before.values, ElementsAre(6u));
    EXPECT_EQ(client_.attribute("Value").fetch<unsigned int>().value(), 6u);
    EXPECT_THAT(after.values, ElementsAre(6u));
    EXPECT_EQ(client_.set(101).code(), gauge::kTooMuch);
    EXPECT_THAT(seen, ElementsAre(1u, 5u, 5u, 5u, 6u, 6u, 6u, 6u));
    EXPECT_THAT(before.told, ElementsAre("gauge", "gauge", "gauge"));
}

/** A call written by hand. */
class ByHand : public ClientCallHookBaseV {
public:
    void callServer(TreflectServerObject&) const override { steps += "call "; }
    void fillParams(TipprmiSequence<TipprmiAny, 0u>& params) const override {
        steps += "fill" + std::to_string(params.getLength()) + " ";
        params[0].insert(42u);
    }
    void insertResult(TipprmiSequence<TipprmiAny, 0u>& params) const override {
        steps += "insert" + std::to_string(params.getLength()) + " ";
        TipprmiAny result;
        result.insert(43u);
        params.push_back(result);
    }
    char const* operationName() const override { return "byHand"; }

    mutable std::string steps;
};
class NothingIn : public InParamHook {
public:
    void marshall(TipprmiStream&) const override {}
};
class NothingOut : public OutParamHook {
public:
    void unmarshall(TipprmiStream&) const override {}
};

TEST_F(LocalObserver, IsToldByTheCallHelperInThisOrder) {
    ByHand const hook;
    auto const call = [&] {
        hook.steps.clear();
        ClientCallHelper(hook, NothingIn(), NothingOut(), *client_.getStub_(), &gauge_,
                         gauge::kClass, gauge::kReset, true);
        return hook.steps;
    };
    EXPECT_EQ(call(), "call ");
    Watcher before("before");
    Watcher after("after");
    for (Watcher* const watcher : {&before, &after})
        watcher->react = [&hook, watcher] {
            hook.steps += watcher->objectName() + std::to_string(watcher->values.at(0)) + " ";
        };
    after.answer = false;
    registerAt(gauge::kReset, after, kAfter);
    EXPECT_EQ(call(), "fill1 call insert0 after43 ") << "also without one before";
    registerAt(gauge::kReset, before);
    EXPECT_EQ(call(), "fill1 before42 call insert0 after43 ");
    before.answer = false;
    EXPECT_EQ(call(), "fill1 before42 ") << "neither performed nor told";
}

TEST_F(LocalObserver, ForbidsACallBeforeIt) {
    Watcher first("first");
    Watcher second("second");
    Watcher after("after");
    registerAt(gauge::kSet, first);
    registerAt(gauge::kSet, second);
    registerAt(gauge::kSet, after, kAfter);
    first.answer = false;
    EXPECT_EQ(client_.set(5).code(), TipprmiFailure::kVetoed);
    EXPECT_EQ(client_.attribute("Value").set(5u), TreflectAttribute::error);
    EXPECT_EQ(client_.attribute("Value").store(5u).code(), TipprmiFailure::kVetoed);
    EXPECT_EQ(gauge_.calls(), 0u);
    EXPECT_EQ(second.told.size(), 3u) << "asked all the same";
    EXPECT_THAT(after.told, IsEmpty());
    first.answer = true;
    EXPECT_TRUE(client_.set(5)) << "who answers no stays, and may answer yes";
    EXPECT_EQ(first.told.size(), 4u);
    EXPECT_EQ(after.told.size(), 1u);
}

// ---- Registrations -----------------------------------------------------------------------------

TEST_F(LocalObserver, IsToldAsOftenAsItIsRegistered) {
    Watcher twice("twice");
    registerAt(gauge::kSet, twice);
    registerAt(gauge::kSet, twice);
    for (std::size_t const told : {2, 3, 3, 3}) {
        EXPECT_TRUE(client_.set(5));
        EXPECT_EQ(twice.told.size(), told);
        client_.operation("setValue").removeObserver(&twice);
    }
}

TEST_F(LocalObserver, LosesTheFirstRegistrationOfEachKindAtOnce) {
    Watcher watcher("watcher");
    Watcher other("other");
    registerAt(gauge::kGet, other);
    registerAt(gauge::kReset, watcher);
    registerAt(gauge::kSet, watcher);
    registerAt(gauge::kReset, watcher, kAfter);
    registerAt(gauge::kSet, watcher, 77);  // any kind but the first is after calls
    // Whatever operation it is removed from.
    client_.operation("reset").removeObserver(&watcher);
    EXPECT_TRUE(isObserved(gauge::kGet));
    EXPECT_FALSE(isObserved(gauge::kSet));
    EXPECT_FALSE(isObserved(gauge::kSet, kAfter));
    EXPECT_TRUE(isObserved(gauge::kReset));
    EXPECT_TRUE(isObserved(gauge::kReset, kAfter));
    client_.removeObserver(nullptr, &watcher);
    EXPECT_FALSE(isObserved(gauge::kReset));
    EXPECT_FALSE(isObserved(gauge::kReset, kAfter));
}

TEST_F(LocalObserver, LosesTheFirstRegistrationWhenAnotherFails) {
    auto watcher = std::make_unique<Watcher>("watcher");
    registerAt(gauge::kGet, *watcher);
    registerAt(gauge::kReset, *watcher);
    registerAt(gauge::kSet, *watcher, kAfter);
    watcher.reset();
    EXPECT_TRUE(client_.reset());
    EXPECT_EQ(gauge_.value, 0u);
    EXPECT_FALSE(isObserved(gauge::kGet));
    EXPECT_TRUE(isObserved(gauge::kReset));
    EXPECT_FALSE(isObserved(gauge::kSet, kAfter));
    EXPECT_TRUE(client_.reset());
    EXPECT_FALSE(isObserved(gauge::kReset));
}

TEST_F(LocalObserver, MayChangeTheRegistrationsWhenItIsTold) {
    Watcher first("first");
    Watcher second("second");
    Watcher late("late");
    registerAt(gauge::kSet, first);
    registerAt(gauge::kSet, second);
    first.react = [&] {
        gauge_.unRegisterObserver(clientOf(first));
        gauge_.unRegisterObserver(clientOf(second));
        registerAt(gauge::kSet, late);
    };
    auto const told = [&] {
        return std::vector<std::size_t>{first.told.size(), second.told.size(), late.told.size()};
    };
    EXPECT_TRUE(client_.set(5));
    EXPECT_THAT(told(), ElementsAre(1u, 1u, 0u)) << "nothing changes for this call";
    EXPECT_TRUE(client_.set(5));
    EXPECT_THAT(told(), ElementsAre(1u, 1u, 1u));
}

TEST_F(LocalObserver, MayDestroyWhatItWatches) {
    for (bool const directly : {true, false}) {
        for (unsigned int const kind : {kBefore, kAfter}) {
            auto object = std::make_unique<Gauge>("brief");
            GaugeClient const client(object.get());
            TreflectAttribute& value = client.attribute("Value");
            Watcher watcher("watcher");
            auto other = std::make_unique<Watcher>("other");
            object->registerObserver(kind, gauge::kClass, gauge::kSet, clientOf(watcher));
            object->registerObserver(kind, gauge::kClass, gauge::kSet, clientOf(*other));
            watcher.answer = directly;
            watcher.react = [&] {
                other.reset();
                object.reset();
            };
            TipprmiResult<void> const stored = directly ? client.set(5) : value.store(5u);
            EXPECT_EQ(static_cast<bool>(stored), kind == kAfter);
            EXPECT_EQ(stored.code(), TipprmiFailure::kNotServed);
            EXPECT_FALSE(client.set(5));
            EXPECT_EQ(watcher.told.size(), 1u);
        }
    }
}

TEST_F(LocalObserver, IsDroppedWhenItThrowsAndTheCallGoesOn) {
    std::string const line = "observer told of classCode=0x52430010,methodCode=2 threw";
    Watcher first("first");
    Watcher second("second");
    for (unsigned int const kind : {kBefore, kAfter}) {
        registerAt(gauge::kSet, first, kind);
        registerAt(gauge::kSet, second, kind);
    }
    first.react = [] { throw std::runtime_error("on purpose"); };
    EXPECT_TRUE(client_.set(5));
    EXPECT_EQ(log_.count(3, line + " on purpose"), 1u);
    EXPECT_EQ(log_.find(line)->source, "REFLECT_observable");
    EXPECT_TRUE(client_.set(6));
    EXPECT_EQ(first.told.size(), 1u);
    EXPECT_EQ(second.told.size(), 4u);

    registerAt(gauge::kSet, first);
    first.react = [] { throw 7; };
    EXPECT_EQ(client_.attribute("Value").set(7u), 0);
    EXPECT_EQ(gauge_.value, 7u);
    EXPECT_EQ(log_.count(line), 2u);

    // One that gives the permission away has it back for the others.
    second.react = [] { TreflectORB::releaseRunPermission(); };
    EXPECT_TRUE(client_.set(8));
    EXPECT_TRUE(TreflectORB::hasRunPermission());
    // One that keeps a level does not have the thread keep the permission wherever it waits.
    second.react = [] { TreflectORB::getRunPermission(); };
    EXPECT_TRUE(client_.set(9));
    EXPECT_EQ(TreflectORB::getRunPermissionCount(), 1u);
}

TEST_F(LocalObserver, WhoIsNoneIsDroppedAndForbidsNothing) {
    LampObject const lamp("here");
    Probe probe("probe");
    for (TreflectObject const& other :
         {TreflectObject(&lamp), TreflectObject(&probe), TreflectObject(oid("nowhere")),
          TreflectObject(), TreflectObject(&gauge_)}) {
        for (unsigned int const kind : {kBefore, kAfter})
            gauge_.registerObserver(kind, gauge::kClass, gauge::kSet,
                                    TreflectObserverClient(other));
        EXPECT_TRUE(client_.set(5));
        EXPECT_FALSE(isObserved(gauge::kSet));
        EXPECT_FALSE(isObserved(gauge::kSet, kAfter)) << "one pass drops both registrations";
    }
    EXPECT_EQ(log_.count(4, "Unmarshall error on cc=0x641E8FCD, mc=0"), 5u);
}

TEST_F(LocalObserver, CannotBeRegisteredWithoutOperationOrObserver) {
    Watcher watcher("watcher");
    TreflectMetaOperation const* const operation = client_.operation("setValue").meta();
    log_.clear();
    client_.registerObserver(0, nullptr, &watcher);
    client_.registerObserver(0, operation, nullptr);
    client_.removeObserver(operation, nullptr);
    EXPECT_EQ(log_.texts(),
              (std::vector<std::string>{
                  "TreflectObjectStub::registerObserver FAILED: oper, oper->meta() or obs is NULL",
                  "TreflectObjectStub::registerObserver FAILED: oper, oper->meta() or obs is NULL",
                  "TreflectObjectStub::removeObserver FAILED: observer is NULL"}));
    EXPECT_EQ(log_.count(3, ""), 3u);
    EXPECT_EQ(log_.find("FAILED")->source, "REFLECT_objectStub");
    EXPECT_FALSE(isObserved(gauge::kSet));
}

// ---- Over the borders of processes -------------------------------------------------------------

class RemoteObserver : public BrokerTest {
protected:
    bool isObserved() const {
        constexpr unsigned int setLevel = lamp::kLevel + 1;
        return permitted([&] {
            return lamp_->preObserverAvailable(lamp::kClass, setLevel) ||
                   lamp_->postObserverAvailable(lamp::kClass, setLevel);
        });
    }
    unsigned int storeHere(unsigned int level) const {
        return permitted([&] {
            TipprmiResult<void> const stored =
                TreflectObject(lamp_.get()).attribute("Level").store(level);
            return stored ? 1000u : stored.code();
        });
    }
    static constexpr unsigned int kStored = 1000;
    unsigned int lostGuards() {
        return TreflectObject(lamp_.get()).operation("setLevel").removeLostGuards();
    }

    Permitted<LampObject> const lamp_ = makePermitted<LampObject>("lamp");
};

TEST_F(RemoteObserver, IsToldOfCallsFromAllProcessesAndMayForbidThem) {
    ReflectActor actor;
    ReflectActor caller;
    actor.observe("w", "lamp", "setLevel", "before");
    EXPECT_EQ(storeHere(5), kStored);
    EXPECT_EQ(actor.told("w"), "1 5 lamp");
    EXPECT_EQ(caller.store("lamp", 6), "ok");
    EXPECT_EQ(actor.told("w"), "2 6 lamp");
    EXPECT_EQ(actor.store("lamp", 7), "ok") << "from the observer's own process";
    EXPECT_EQ(actor.told("w"), "3 7 lamp");
    EXPECT_EQ(permitted([&] { return lamp_->level; }), 7u);

    actor.ask("answers w no", "will");
    std::string const vetoed = std::to_string(TipprmiFailure::kVetoed);
    EXPECT_EQ(storeHere(8), TipprmiFailure::kVetoed);
    EXPECT_EQ(caller.store("lamp", 8), vetoed);
    EXPECT_EQ(actor.store("lamp", 8), vetoed);
    EXPECT_EQ(permitted([&] { return lamp_->level; }), 7u);
    EXPECT_EQ(actor.told("w"), "6 8 lamp");

    actor.ask("unobserve w lamp setLevel", "unobserved");
    EXPECT_EQ(caller.store("lamp", 8), "ok");
    EXPECT_FALSE(isObserved());
    EXPECT_EQ(actor.told("w"), "6 8 lamp");
}

TEST_F(RemoteObserver, IsNotKeptOutByOthersWhoRegisterManyInItsName) {
    ReflectActor actor;
    TreflectOrbId const broker =
        orb().convertId(Transport::TerminationId(actor.create("own", "7001").termination));
    RawPeer other(group(), [](RawPeer& self, TreflectMessage& message) {
        if (message.type() == TreflectMessage::tResolve)
            wire::answer(self, message, wire::number(0));
    });
    std::string const elsewhere = wire::number(1) + wire::number(lamp::kClass) +
                                  wire::number(0x777) + wire::handle(0xFA2, broker);
    auto const registers = [&](unsigned int id) {
        other.sendCall(orb().termId(), id, lamp_->getInternalOID(), true, 0, 1000, elsewhere);
        return wire::data(wire::awaitResponse(other, id));
    };
    for (unsigned int id = 1; id <= 1024; ++id)
        ASSERT_EQ(registers(id), wire::kEmptyContainer);
    EXPECT_EQ(registers(1025), wire::kNotServed);
    actor.observe("w", "lamp", "setLevel", "before");
    EXPECT_EQ(storeHere(5), kStored);
    EXPECT_EQ(actor.told("w"), "1 5 lamp");
}

TEST_F(RemoteObserver, WhoseProcessWasKilledIsDroppedAndForbidsNothing) {
    auto actor = std::make_unique<ReflectActor>();
    actor->observe("w", "lamp", "setLevel", "before");
    actor->observe("x", "lamp", "setLevel", "after");
    actor->ask("answers w no", "will");
    EXPECT_EQ(storeHere(5), TipprmiFailure::kVetoed);
    actor->child().kill();
    actor->child().waitForExit();
    EXPECT_TRUE(isObserved());
    EXPECT_EQ(storeHere(5), kStored);
    EXPECT_FALSE(isObserved());
    std::size_t const errors = log_.count("Unmarshall error on cc=0x641E8FCD, mc=0");
    EXPECT_EQ(errors, 2u);
    EXPECT_EQ(storeHere(6), kStored);
    EXPECT_EQ(log_.count("Unmarshall error on cc=0x641E8FCD, mc=0"), errors);
}

TEST_F(RemoteObserver, ThatGuardsForbidsWhenItHasGoneUntilItIsRemoved) {
    auto actor = std::make_unique<ReflectActor>();
    EXPECT_EQ(actor->ask("guard w lamp setLevel", "guarding"), "1");
    EXPECT_EQ(actor->ask("guard w lamp setLevel", "guarding"), "1") << "in its own place";
    EXPECT_EQ(storeHere(5), kStored);
    EXPECT_EQ(actor->told("w"), "1 5 lamp");
    actor->ask("answers w no", "will");
    EXPECT_EQ(storeHere(6), TipprmiFailure::kVetoed);
    EXPECT_EQ(permitted([&] { return lostGuards(); }), 0u);

    actor->child().kill();
    actor->child().waitForExit();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(storeHere(6), TipprmiFailure::kVetoed);
    EXPECT_TRUE(log_.find("is forbidden: its guard does not answer"));
    EXPECT_EQ(permitted([&] { return lamp_->level; }), 5u);

    // The next one of that identifier takes its place.
    actor = std::make_unique<ReflectActor>();
    EXPECT_EQ(actor->ask("guard w lamp setLevel", "guarding"), "1");
    EXPECT_EQ(storeHere(7), kStored);
    actor->child().kill();
    actor->child().waitForExit();
    EXPECT_EQ(storeHere(8), TipprmiFailure::kVetoed);
    EXPECT_EQ(permitted([&] { return lostGuards(); }), 1u);
    EXPECT_EQ(storeHere(8), kStored);
    EXPECT_FALSE(isObserved());
}

TEST_F(RemoteObserver, ThatGuardsAndThrowsOrIsDestroyedForbids) {
    auto guard = makePermitted<Watcher>("guard");
    permitted([&] {
        TreflectObject const lamp(lamp_.get());
        EXPECT_TRUE(lamp.operation("setLevel").guard(guard.get()));
        EXPECT_FALSE(lamp.operation("setLevel").guard(nullptr));
        EXPECT_FALSE(TreflectObject::errorOperation.guard(guard.get()));
        guard->react = [] { throw std::runtime_error("no"); };
    });
    EXPECT_EQ(storeHere(5), TipprmiFailure::kVetoed);
    permitted([&] { guard->react = nullptr; });
    EXPECT_EQ(storeHere(5), kStored) << "it is still registered";
    guard.reset();
    EXPECT_EQ(storeHere(6), TipprmiFailure::kVetoed);
    EXPECT_EQ(permitted([&] { return lostGuards(); }), 1u);
    EXPECT_EQ(storeHere(6), kStored);

    guard = makePermitted<Watcher>("guard");
    permitted([&] {
        TreflectObject const lamp(lamp_.get());
        EXPECT_TRUE(lamp.operation("setLevel").guard(guard.get()));
        lamp.operation("setLevel").removeObserver(guard.get());
    });
    EXPECT_FALSE(isObserved());
}

TEST_F(RemoteObserver, ThatGuardsStaysAGuardWhenAnotherRegistrationOfItEnds) {
    auto actor = std::make_unique<ReflectActor>();
    EXPECT_EQ(actor->ask("guard w lamp setLevel", "guarding"), "1");
    actor->observe("w", "lamp", "getLevel", "after");
    actor->child().kill();
    actor->child().waitForExit();
    permitted([&] {
        EXPECT_TRUE(TreflectObject(lamp_.get()).attribute("Level").fetch<unsigned int>());
        EXPECT_FALSE(lamp_->postObserverAvailable(lamp::kClass, lamp::kLevel)) << "it has ended";
    });
    EXPECT_EQ(storeHere(5), TipprmiFailure::kVetoed);
    EXPECT_EQ(permitted([&] { return lostGuards(); }), 1u);

    auto guard = makePermitted<Watcher>("guard", [] { throw std::runtime_error("no"); });
    permitted([&] {
        TreflectObject const lamp(lamp_.get());
        EXPECT_TRUE(lamp.operation("setLevel").guard(guard.get()));
        EXPECT_TRUE(lamp.operation("setLevel").preObserve(guard.get()));
    });
    EXPECT_EQ(storeHere(5), TipprmiFailure::kVetoed) << "and the other registration has ended";
    guard.reset();
    EXPECT_EQ(storeHere(5), TipprmiFailure::kVetoed);
    EXPECT_EQ(permitted([&] { return lostGuards(); }), 1u);
    EXPECT_EQ(storeHere(5), kStored);
}

TEST_F(RemoteObserver, WhoseProcessIsKilledWhileItIsToldLetsTheCallGoOn) {
    ReflectActor actor;
    actor.observe("w", "lamp", "setLevel", "before");
    actor.ask("answers w hang", "will");
    std::thread caller([&] { EXPECT_EQ(storeHere(5), kStored); });
    actor.await("hangs");
    // Others are served meanwhile.
    permitted([&] { EXPECT_EQ(TreflectObject(lamp_.get()).getRelName(), "lamp"); });
    actor.child().kill();
    caller.join();
    EXPECT_FALSE(isObserved());
    EXPECT_EQ(permitted([&] { return lamp_->level; }), 5u);
}

}  // namespace
