// What a process tells of itself, and what others learn of it.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <thread>

#include "BrokerTest.h"
#include "PumpObject.h"
#include "ReflectActor.h"
#include "Resources.h"
#include "Threads.h"
#include "Watcher.h"
#include "reflect/broker/BrokerRequest.h"
#include "reflect/broker/BrokerView.h"
#include "reflect/broker/OngoingRequest.h"
#include "reflect/process/Learning.h"
#include "reflect/process/ProcessPublication.h"
#include "reflect/process/ProcessServer.h"

extern "C" __attribute__((weak)) std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using namespace processobject;
using testsupport::eventually;

/** A process that publishes its process object by its environment alone. */
class TellingActor : public ReflectActor {
public:
    TellingActor() : ReflectActor(Environment{{"REFLECTORB_PROCESS_OBJECT", "1"}}) {}

    std::string identifier() const {
        return "process/reflect_actor." + std::to_string(child().pid());
    }
};

/** The bytes that are in use. A sanitizer, which has a heap of its own, tells those. */
std::size_t heap() {
    std::size_t const used = mallinfo2().uordblks;
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes()
                                                   : used;
}

TreflectOrbId homeOf(TreflectObject const& object) {
    return object.getStub_()->orbId();
}

class ProcessObject : public PermittedTest {
protected:
    /** Waits with the permission given up. */
    template <class Condition>
    static bool inTime(Condition const& condition) {
        TreflectReleaseHandlerState const released;
        return eventually([&] { return permitted(condition); });
    }
    std::string ask(std::string const& command, std::string const& answer) {
        TreflectReleaseHandlerState const released;
        return actor_.ask(command, answer);
    }
    /** In a thread that has ended then, and what it keeps of freed memory is free. */
    template <class Act>
    static void inThread(Act const& act) {
        TreflectReleaseHandlerState const released;
        std::thread([&act] { permitted(act); }).join();
    }
    TreflectProcessClient find() {
        ask("lamp actor.lamp", "made");
        return TreflectProcessClient(oid(actor_.identifier()));
    }

    TellingActor actor_;
};

TEST_F(ProcessObject, TellsWhatTheProcessIsKnowsAndServes) {
    TreflectProcessClient const process = find();
    Identity const identity = process.getIdentity().value();
    EXPECT_EQ(identity.actor, "reflect_actor");
    EXPECT_EQ(identity.pid, static_cast<unsigned int>(actor_.child().pid()));
    EXPECT_FALSE(identity.user.empty());
    EXPECT_EQ(identity.version.substr(0, 2), "0.");
    EXPECT_THAT(identity.commandLine, Contains(HasSubstr("reflect_actor")));
    ASSERT_THAT(identity.brokers, ElementsAre(homeOf(process).value()));

    Usage const usage = process.getUsage().value();
    EXPECT_GE(usage.objects, 3u);  // the lamp, and itself under two identifiers
    EXPECT_GT(usage.threads, 1u);
    EXPECT_GT(usage.memory, 1 << 16);
    EXPECT_GT(usage.descriptors, 3u);
    EXPECT_GE(usage.mostDescriptors, usage.descriptors);

    unsigned int const broker = identity.brokers[0];
    std::vector<ServedObject> const all = process.objects(broker, 0, 100).value();
    EXPECT_EQ(all.size(), usage.objects);
    EXPECT_THAT(all, Contains(AllOf(Field(&ServedObject::identifier, "actor.lamp"),
                                    Field(&ServedObject::className, "Lamp"))));
    EXPECT_EQ(process.objects(broker, all[0].id, 1).value()[0].id, all[1].id);
    EXPECT_THAT(process.objects(broker + 1, 0, 100).value(), IsEmpty());

    std::vector<KnownClass> const classes = process.classes().value();
    EXPECT_THAT(classes, Contains(Field(&KnownClass::id, kClass)));
    auto const described = process.describe(combi::kClass).value();
    ASSERT_EQ(described.size(), 4u);  // with its bases
    TreflectMetaObject const* const combi =
        InterfaceRepository::instance()->findInterface(combi::kClass);
    EXPECT_EQ(described[0].outline(), TreflectClassDescription::of(*combi).outline());
    EXPECT_EQ(process.describeNamed("Combi").value()[0].hash, described[0].hash);
    EXPECT_EQ(process.describeNamed("Comet").code(), kUnknownClass);
}

TEST_F(ProcessObject, IsAnObjectLikeAnyOtherAndFoundByItsBrokerAlone) {
    TreflectProcessClient const process = find();
    TreflectProcessObject::metaClass();
    TreflectObject const other = TreflectProcessClient::of(homeOf(process));
    unsigned int threshold = 0;
    EXPECT_EQ(other.attribute("LogThreshold").get(threshold), 0);
    EXPECT_EQ(threshold, 5u);
    TreflectOperation& getUsage = other.attribute("Usage").operGet();
    auto const results = getUsage.invoke({});
    ASSERT_TRUE(results);
    EXPECT_THAT(getUsage.meta()->resultTypes()[0].print(results.value()[0]).value(),
                HasSubstr("objects: "));
    EXPECT_EQ(
        getUsage.meta()->containingMetaObject()->metaOperation("objects")->parameters().at("in2"),
        "unsigned most");
}

TEST_F(ProcessObject, KeepsTheLastRecordsOfTheLogWhoseThresholdCanBeSet) {
    TreflectProcessClient const process = find();
    EXPECT_EQ(process.setLogThreshold(7).code(), kNoThreshold);
    EXPECT_TRUE(process.setLogThreshold(6));
    EXPECT_EQ(process.getLogThreshold().value(), 6);
    TreflectObject const lamp(oid("actor.lamp"));
    tipprmiCall<void>(lamp, lamp::kClass, 4710);  // which it does not serve
    std::vector<LogRecord> const before = process.log(0).value();
    ASSERT_FALSE(before.empty());
    tipprmiCall<void>(lamp, lamp::kClass, 4711);
    std::vector<LogRecord> const after = process.log(before.back().number).value();
    EXPECT_THAT(after, Contains(AllOf(Field(&LogRecord::text, "Unknown method code 4711"),
                                      Field(&LogRecord::source, "IPPRMI_objectSkeleton"))));
    EXPECT_EQ(after.front().number, before.back().number + 1);
    EXPECT_THAT(process.log(~std::uint64_t{0}).value(), IsEmpty());
}

TEST_F(ProcessObject, TellsWhoWatchesOfNewRecordsAndOfAStormInFewNotices) {
    TreflectProcessClient const process = find();
    TreflectProcessObject::metaClass();
    auto const tellers = [pid = static_cast<pid_t>(process.getIdentity().value().pid)] {
        return testsupport::statesOfThreads("ReflectWatch", pid);
    };
    ASSERT_EQ(tellers(), "");
    std::vector<LogRecord> told;
    auto const isTold = [&](char const* text) {
        return [&told, text] { return !told.empty() && told.back().text == text; };
    };
    auto watch = std::make_unique<TreflectWatch<LogRecord>>(
        process.attribute("LastRecord"), [&](LogRecord const& record) { told.push_back(record); });
    ASSERT_FALSE(watch->isError());
    for (int i = 0; i < 2; ++i) {  // the second time it waits for a record
        ask("log 1", "logged");
        EXPECT_TRUE(inTime(isTold("record 1")));
        told.clear();
    }
    auto const start = OSWrap::Clock::getObsTime();
    ask("log 2000", "logged");
    EXPECT_TRUE(inTime(isTold("record 2000")));
    EXPECT_EQ(tellers().size(), 1U);
    auto const tenths = (OSWrap::Clock::getObsTime() - start).totalNanoseconds() / 100'000'000;
    EXPECT_LE(static_cast<long long>(told.size()), tenths + 2) << "a tenth of a second apart";
    EXPECT_EQ(process.log(told.back().number - 2).value().at(0).text, "record 1999");
    EXPECT_EQ(process.getLastRecord().value().number, told.back().number);
    watch.reset();
    EXPECT_TRUE(inTime([&] { return tellers().empty(); })) << "no thread is kept for it";
}

/** A reaction that logs, in the process whose log it watches. */
TEST_F(ProcessObject, IsNotToldOfWhatTellingLogs) {
    TreflectProcessObject const published;
    TreflectObject const process(oid(TreflectProcessObject::identifier()));
    TreflectProcessObject::metaClass();
    int told = 0;
    TreflectWatch<LogRecord> const watch(process.attribute("LastRecord"), [&](LogRecord const&) {
        ++told;
        REFLECTORB_LOG(4, "test", "told %d times", told);
    });
    int const begun = told;
    auto const logged = [&] {
        std::thread([] { REFLECTORB_LOG(4, "test", "another thread's"); }).join();
    };
    logged();
    EXPECT_TRUE(inTime([&] { return told == begun + 1; }));
    logged();
    EXPECT_TRUE(inTime([&] { return told == begun + 2; }));
    // Until the next record of another thread, nothing is to be told.
    EXPECT_TRUE(inTime([&] {
        auto const wake = Logging::RecentRecords::wakeAtNext(nullptr);
        return wake && !Logging::RecentRecords::wakeAtNext(wake);
    }));
    EXPECT_EQ(told, begun + 2);
}

TEST_F(ProcessObject, TellsWhatItsThreadsWaitForAndWhoObservesWhat) {
    TreflectProcessClient const process = find();
    LampObject held("held");
    {
        TreflectReleaseHandlerState const released;
        actor_.tell("setheld held");
        ASSERT_TRUE(held.entered().wait());
    }
    std::vector<Call> calls;
    EXPECT_TRUE(inTime([&] {
        calls = process.getCalls().value();
        return !calls.empty() && calls[0].milliseconds > 0;
    }));
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].what, "call");
    EXPECT_EQ(calls[0].target, orb().orbId().value());
    EXPECT_EQ(calls[0].object, held.getInternalOID());
    EXPECT_EQ(calls[0].operation, "setHeld");
    EXPECT_NE(calls[0].thread, 0u);
    Permission const permission = process.getPermission().value();
    EXPECT_NE(permission.holder, 0u);
    EXPECT_NE(permission.holder, calls[0].thread);
    held.release();
    {
        TreflectReleaseHandlerState const released;
        EXPECT_EQ(actor_.await("set"), "0");
    }
    EXPECT_THAT(process.getCalls().value(), IsEmpty());

    Watcher before("before");
    Watcher made("made");
    TreflectObject const lamp(oid("actor.lamp"));
    lamp.operation("setLevel").preObserve(&before);
    const_cast<TreflectMetaClass&>(lampMeta).observeCreations(&made, false);
    std::vector<Observation> const told = process.getObservations().value();
    EXPECT_THAT(told, Contains(AllOf(Field(&Observation::object, "actor.lamp"),
                                     Field(&Observation::operation, "setLevel"),
                                     Field(&Observation::observer, "before"),
                                     Field(&Observation::broker, orb().orbId().value()))));
    EXPECT_THAT(told, Contains(AllOf(Field(&Observation::when, When::Creations),
                                     Field(&Observation::className, "Lamp"),
                                     Field(&Observation::broker, orb().orbId().value()))));
}

TEST_F(ProcessObject, ReadsCountersWithoutStartingThemAfresh) {
    TreflectProcessClient const process = find();
    ask("store nobody 1", "stored");
    auto const sentHere = [&] {
        unsigned int sent = 0;
        auto const told = process.getTraffic();
        for (Traffic const& traffic : told.value())
            sent += traffic.destination == orb().orbId().value() ? traffic.sent : 0;
        return sent;
    };
    unsigned int const sent = sentHere();
    EXPECT_GT(sent, 0u);
    EXPECT_EQ(sentHere(), sent);
}

TEST_F(ProcessObject, IsThereOnlyWhereItIsWantedAndSmall) {
    ReflectActor plain;
    {
        TreflectReleaseHandlerState const released;
        plain.ask("lamp plain.lamp", "made");
    }
    TreflectOrbId const telling = homeOf(find());
    EXPECT_TRUE(inTime([&] { return orb().getBrokers().size() == 3; }));
    TreflectObject const own{TipprmiOID(TreflectProcessObject::identifier(), NSID_UNIT)};
    EXPECT_FALSE(own.isConnected());
    for (TreflectORB::BrokerInfo const& broker : orb().getBrokers()) {
        bool const isTelling = broker.orbId == telling;
        EXPECT_EQ(TreflectProcessClient::of(broker.orbId).isConnected(), isTelling);
    }
    // The members of the program's own classes come with the first question for them.
    for (unsigned int const id : InterfaceRepository::instance()->getIfIds())
        InterfaceRepository::instance()->findInterface(id);
    // Workers come and go with any call.
    auto const threads = [] {
        return testsupport::Resources::of(getpid()).threads -
               static_cast<long>(testsupport::statesOfThreads("ReflectWorker").size());
    };
    long const threadsBefore = threads();
    std::size_t const before = heap();
    {
        std::optional<TreflectProcessObject> first;
        std::optional<TreflectProcessObject> second;
        inThread([&] {
            first.emplace();
            second.emplace();
            InterfaceRepository::instance()->findInterface(kClass);
        });
        std::size_t const made = heap();
        EXPECT_LT(made, before + 100 * 1024);
        TreflectProcessClient const process(oid(TreflectProcessObject::identifier()));
        inThread([&] {
            auto const classes = process.classes();
            for (KnownClass const& known : classes.value())
                EXPECT_TRUE(process.describe(known.id));
        });
        EXPECT_LT(heap(), made + 24 * 1024);  // buffers of calls
        EXPECT_EQ(process.getIdentity().value().pid, static_cast<unsigned int>(getpid()));
        EXPECT_TRUE(inTime([&] { return threads() <= threadsBefore; })) << "none of its own";
        prepareOrbForDeletion();
        EXPECT_TRUE(TreflectProcessClient::of(orb().orbId()).isConnected());
    }
    EXPECT_FALSE(TreflectProcessClient::of(orb().orbId()).isConnected());
    {
        TreflectProcessObject const again;
        EXPECT_TRUE(TreflectProcessClient::of(orb().orbId()).isConnected());
    }
}

TEST_F(ProcessObject, IsFoundOnceByEachBrokerThatIsThere) {
    TreflectProcessObject const object;
    TreflectORB& before = orb();
    auto const door = [this] {
        TreflectOrbId const id = orb().orbId();
        return orb().resolve(orb().convertId(id), ProcessServer::identifierAt(id));
    };
    unsigned int const found = door();
    processobject::brokerPublished(before);
    EXPECT_NE(found, 0u);
    EXPECT_EQ(door(), found);
    prepareOrbForDeletion();
    ASSERT_NE(&orb(), &before);
    processobject::brokerPublished(before);  // too late
    EXPECT_NE(door(), 0u);
}

// ---- Learning -----------------------------------------------------------------------------------

class Learned : public ProcessObject {
protected:
    Learned() { TreflectMetaClass::learn(true); }
    ~Learned() override { TreflectMetaClass::learn(false); }
};

TEST_F(Learned, ClassIsUsedByNamesAsIfItWereKnown) {
    find();
    ask("pump pump 1", "made");
    TreflectObject const pump(oid("pump"));
    TreflectMetaObject const* const meta = pump.meta();
    ASSERT_TRUE(meta);
    EXPECT_EQ(meta->name(), "Pump");
    EXPECT_TRUE(meta->isA(&deviceMeta));  // which is the same here and there
    EXPECT_EQ(pump.meta(), meta);

    double pressure = 0;
    EXPECT_EQ(pump.attribute("Pressure").get(pressure), 0);
    EXPECT_EQ(pressure, 1.5);
    EXPECT_EQ(pump.attribute("Pressure").set(2.5), 0);
    unsigned int level = 0;
    EXPECT_EQ(pump.attribute("Lamp").attribute("Level").get(level), 0);
    EXPECT_EQ(level, 1u);
    TreflectOperation& start = pump.operation("start");
    ASSERT_FALSE(start.isError());
    TipprmiSequence<TipprmiAny, 0u> arguments;
    arguments.setLength(1);
    ASSERT_TRUE(
        start.meta()->argumentTypes()[0].parse("{rate: 3, why: [\"a\", \"b\"]}", arguments[0]));
    auto const results = start.invoke(arguments);
    ASSERT_TRUE(results);
    EXPECT_EQ(start.meta()->resultTypes()[0].print(results.value()[0]).value(), "\"3ab\"");
    // This process does not say that it knows the class.
    EXPECT_THAT(InterfaceRepository::instance()->getIfIds(), Not(Contains(pump::kClass)));
}

TEST_F(Learned, ClassIsThatOfEachObjectsOwnProcess) {
    ask("pump one 1", "made");
    TellingActor other;
    {
        TreflectReleaseHandlerState const released;
        other.ask("pump two 2", "made");
    }
    TreflectObject const one(oid("one"));
    TreflectObject const two(oid("two"));
    ASSERT_TRUE(one.meta() && two.meta());
    EXPECT_NE(one.meta(), two.meta());
    EXPECT_TRUE(one.meta()->metaOperation_("start"));
    EXPECT_FALSE(two.meta()->metaOperation_("start"));
    std::string unit;
    EXPECT_EQ(two.attribute("Unit").get(unit), 0);
    EXPECT_EQ(unit, "bar");
    EXPECT_EQ(log_.count(4, "is not that of broker"), 1u);
    EXPECT_EQ(log_.count(5, "    - operation start"), 1u);
    EXPECT_EQ(log_.count(5, "    + operation getUnit"), 1u);
}

TEST_F(Learned, ClassesOfABrokerThatHasGoneAreForgotten) {
    auto actor = std::make_unique<TellingActor>();
    {
        TreflectReleaseHandlerState const released;
        actor->ask("pump going 1", "made");
    }
    TreflectOrbId const broker = homeOf(TreflectObject(oid("going")));
    auto const isKnown = [&] {
        handlerthreads::trustPermission();
        return Learning::instance().find(pump::kClass, broker) != nullptr;
    };
    EXPECT_TRUE(isKnown());
    {
        TreflectReleaseHandlerState const released;
        actor.reset();
    }
    EXPECT_TRUE(inTime([&] { return !isKnown(); }));
}

/** Another thread, to which the waits of the one that made it give the run permission. It stops a
 * process whenever that is asked, to see what for, and ends it when it has answered what it was to
 * be. */
class EndAfterAnswer {
public:
    EndAfterAnswer(testsupport::ChildProgram& process, TreflectOrbId broker, int method)
        : process_(process), broker_(broker), method_(method) {
        EXPECT_TRUE(process_.stopWholly());
        thread_ = std::thread([this] {
            TreflectHandlerState const permission(true);
            while (!endsAfterThis()) {
                EXPECT_TRUE(process_.stopWholly());
                TreflectReleaseHandlerState const asksOn;
            }
        });
    }
    ~EndAfterAnswer() {
        TreflectReleaseHandlerState const released;
        thread_.join();
    }

private:
    bool endsAfterThis() {
        std::optional<int> asked;
        EXPECT_TRUE(eventually([&] {
            for (OngoingRequest::Glimpse const& seen : BrokerView::all().at(0).requests()) {
                if (seen.thread == asking_)
                    asked = seen.methodCode;
            }
            return asked.has_value();
        }));
        process_.signal(SIGCONT);
        // Whose answer is there queues for the permission.
        EXPECT_TRUE(eventually([&] {
            auto const queue = TreflectORB::handlerThreads().glimpse().queue;
            return std::find(queue.begin(), queue.end(), asking_) != queue.end();
        }));
        if (asked && *asked != method_)
            return false;
        process_.kill();
        TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
        EXPECT_TRUE(eventually([&] { return !exists(orb.convertId(broker_)); }));
        return true;
    }

    testsupport::ChildProgram& process_;
    TreflectOrbId const broker_;
    int const method_;
    long const asking_ = gettid();
    std::thread thread_;
};

TEST_F(Learned, NothingIsKeptOfABrokerThatGoesBeforeItsAnswerIsRead) {
    handlerthreads::trustPermission();
    TellingActor actor;
    {
        TreflectReleaseHandlerState const released;
        actor.ask("pump going 1", "made");
    }
    TreflectOrbId const broker = homeOf(TreflectObject(oid("going")));
    EndAfterAnswer const end(actor.child(), broker, kDescribe);
    EXPECT_FALSE(Learning::instance().find(pump::kClass, broker));
}

TEST_F(Learned, NothingIsLearnedUnlessThatIsWantedAndToldOf) {
    ReflectActor plain;
    {
        TreflectReleaseHandlerState const released;
        plain.ask("pump silent 3", "made");
    }
    ask("pump told 4", "made");
    TreflectObject const silent(oid("silent"));
    TreflectObject const told(oid("told"));
    EXPECT_EQ(silent.meta(), &deviceMeta);  // its base, which is known here
    TreflectMetaClass::learn(false);
    EXPECT_EQ(told.meta(), &deviceMeta);
    EXPECT_EQ(log_.count(3, "CANNOT BE FOUND"), 2u);
    TreflectMetaClass::learn(true);
    EXPECT_EQ(told.meta()->name(), "Pump");
}

}  // namespace
