// Visits the house of house.cpp: calls its objects by client classes and by name, walks the tree,
// watches and forbids calls, and hears of lamps and brokers that come and go. docs/guide.md
// explains it.
#include <handler_threads.h>
#include <logging.h>
#include <transport.h>

#include <cstdio>

#include "home.h"

namespace {

// ---- Calls -------------------------------------------------------------------------------------

void callByClientClass(LampClient const& lamp) {
    TipprmiResult<unsigned int> const level = lamp.getLevel();
    if (level)
        std::printf("level %u\n", level.value());

    auto const result = lamp.setLevel(101);
    if (auto const* const refusal = result.raised<lamp::TooBright>())
        std::printf("101 is too bright, the limit is %u\n", refusal->limit);

    if (lamp.blink(3, "somebody rings").valueOr(false))
        std::puts("it has blinked");
}

void useByName(TreflectObject const& lamp) {
    unsigned int level = 0;
    if (lamp.attribute("Level").get(level) == 0)
        lamp.attribute("Level").set(level + 1);

    TreflectAttribute& steps = lamp.attribute("Steps");
    steps.set(lamp::Steps{25, 50, 75});
    TipprmiResult<lamp::Steps> const read = steps.fetch<lamp::Steps>();
    std::printf("%zu steps\n", read.value().size());  // none if it failed; read.code() says why
    unsigned int second = 0;
    if (steps[1].get(second) == 0)  // reads one of them
        std::printf("the second is %u\n", second);

    lamp.operation("nextStep").call();
}

/** Calls an operation of which only the meta information is known, with arguments as text. */
void callWithText(TreflectObject const& lamp) {
    TreflectOperation& blink = lamp.operation("blink");
    if (blink.isError())
        return;
    std::vector<TreflectParameterType> const in = blink.meta()->argumentTypes();
    TipprmiSequence<TipprmiAny, 0u> arguments;
    arguments.setLength(2);
    if (!in[0].parse("0x2", arguments[0]) || !in[1].parse("\"for fun\"", arguments[1]))
        return;

    TipprmiResult<TipprmiSequence<TipprmiAny, 0u>> results = blink.invoke(arguments);
    if (!results)
        return;                                     // results.code() says why
    TipprmiAny const& answer = results.value()[0];  // one any for each result
    std::printf("blink answers %s\n", blink.meta()->resultTypes()[0].print(answer).value().c_str());
}

void walk(TreflectObject const& object) {
    TreflectMetaObject const* const meta = object.meta();
    std::printf("%s is a %s\n", object.getAbsName().c_str(), meta ? meta->name().c_str() : "?");
    for (TreflectObject const& child : object.getChilds())
        walk(child);
}

// ---- Observers ---------------------------------------------------------------------------------

/** Told before calls of setLevel. */
class Guard final : public TreflectObserver {
public:
    bool update() override {
        unsigned int wanted = 0;
        return argument(0, wanted) && wanted <= 50;  // false forbids the call
    }
};

/** Told after calls of nextStep. */
class Reader final : public TreflectObserver {
public:
    bool update() override {
        unsigned int level = 0;
        if (argument(0, level))
            std::printf("%s is now at %u\n", getSource()->getAbsName().c_str(), level);
        return true;
    }
};

void watchCalls(LampClient const& lamp) {
    Guard guard;
    Reader reader;
    TreflectOperation& setLevel = lamp.operation("setLevel");
    TreflectOperation& nextStep = lamp.operation("nextStep");
    setLevel.preObserve(&guard);
    nextStep.postObserve(&reader);

    if (lamp.setLevel(60).code() == TipprmiFailure::kVetoed)
        std::puts("60 is forbidden");
    lamp.nextStep();

    setLevel.removeObserver(&guard);
    nextStep.removeObserver(&reader);
}

void watchLevel(LampClient const& lamp) {
    TreflectWatch<unsigned int> const watch(
        lamp.attribute("Level"), [](unsigned int level) { std::printf("at %u\n", level); });
    lamp.nextStep();    // the lamp tells that it has changed
    lamp.setLevel(20);  // and this is told anyway
}

void callInTime(LampClient const& lamp) {
    TreflectDeadline const within(std::chrono::milliseconds(50));
    if (lamp.getLevel().code() == TipprmiFailure::kTimedOut)
        std::puts("the lamp takes its time");
}

/** Hears of lamps of all processes that are made, or destroyed. */
class LampWatch final : public TreflectObserver {
public:
    explicit LampWatch(char const* what) : what_(what) {}

    bool update() override {
        std::printf("%s has %s\n", getSource()->identifier().getIdString(), what_);
        std::fflush(stdout);
        return true;
    }

private:
    char const* const what_;
};

/** Hears of brokers that come and go. */
class BrokerWatch final : public TreflectOrbObserverIf {
public:
    void notify(Transport::TerminationId const& broker, Appear_t const& what) override {
        std::printf("broker 0x%08X %s\n", broker.value(), what == kAppear ? "is up" : "has gone");
        std::fflush(stdout);
    }
};

void showBrokers(TreflectORB const& orb) {
    for (TreflectORB::BrokerInfo const& broker : orb.getBrokers())
        std::printf("%s has sent to %u others\n",
                    broker.answered ? broker.info.actor.c_str() : "no answer",
                    broker.info.counters.getLength());
}

void waitForEnter() {
    TreflectReleaseHandlerState const outside;  // while we wait, notices may come in
    std::puts("waiting, press Enter to end");
    std::fflush(stdout);
    std::getchar();
}

void followWhatComesAndGoes(HouseClient const& house) {
    LampWatch come("come");
    LampWatch gone("gone");
    TreflectMetaObject* const lamps = InterfaceRepository::instance()->findInterface(lamp::kClass);
    lamps->observeCreations(&come, true);  // and at once of those that exist
    lamps->observeDeletions(&gone);

    BrokerWatch brokers;
    TreflectORB* const orb = TreflectORB::getInstance(NSID_UNIT);
    orb->registerOrbCreation(&brokers, false);  // true: and at once of those that are there
    orb->registerOrbDeletion(&brokers);

    house.addLamp("kitchen");
    house.removeLamp("kitchen");
    showBrokers(*orb);
    waitForEnter();

    orb->unregisterOrbNotifications(&brokers);
    lamps->removeObserver(&come);
    lamps->removeObserver(&gone);
}

}  // namespace

int main() {
    Transport::Setup::actor("visitor");
    Logging::setThreshold(3);  // errors only
    TreflectHandlerState const inside(true);
    HouseClient const house(TipprmiOID(house::name, NSID_UNIT));
    if (!house.isConnected()) {
        std::puts("nobody serves the house");
        return 1;
    }
    LampClient const hall = house.getChild("hall").as<LampClient>();
    callByClientClass(hall);
    useByName(hall);
    callWithText(hall);
    walk(house);
    watchCalls(hall);
    watchLevel(hall);
    callInTime(hall);
    followWhatComesAndGoes(house);
    return 0;
}
