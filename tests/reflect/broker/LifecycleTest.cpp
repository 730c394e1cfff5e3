// How brokers are made, deleted and made anew, and how processes with brokers end.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "ReflectActor.h"
#include "Resources.h"
#include "Threads.h"
#include "Watcher.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

/** A deletion on a thread of its own, once it has taken the broker from the transport. */
class Deletion {
public:
    explicit Deletion(Transport::TerminationId broker, std::function<void()> atItsEnd = {})
        : atItsEnd_(std::move(atItsEnd)) {
        EXPECT_SOON(!Transport::TransportLayer::instance().exists(broker));
    }
    ~Deletion() { thread_.join(); }

    testsupport::Gate over;

private:
    std::function<void()> const atItsEnd_;
    std::thread thread_{[this] {
        pthread_setname_np(pthread_self(), "deletes");
        prepareOrbForDeletion();
        if (atItsEnd_)
            atItsEnd_();
        over.open();
    }};
};

class LifecycleTest : public BrokerTest {
protected:
    /** An object that is being called. */
    Permitted<Probe> heldProbe(RawPeer& caller) {
        auto probe = makePermitted<Probe>("slow");
        caller.sendCall(broker(), 1, probe->getInternalOID(), true, kProbeClass, kHold);
        EXPECT_TRUE(probe->entered().wait());
        return probe;
    }
};

TEST_F(LifecycleTest, logSinkMayAskForTheBrokerThatIsBeingMade) {
    struct Asker {
        std::thread::id maker = std::this_thread::get_id();
        std::vector<TreflectORB*> answers;  // maker's thread only
    } asker;
    Logging::setSink(
        [](Logging::Record const&, void* context) {
            auto& asking = *static_cast<Asker*>(context);
            if (std::this_thread::get_id() == asking.maker)
                asking.answers.push_back(TreflectORB::getInstance(NSID_NODE));
        },
        &asker);
    EXPECT_NE(TreflectORB::getInstance(NSID_NODE), nullptr);
    Logging::setSink(nullptr, nullptr);
    ASSERT_FALSE(asker.answers.empty());
    EXPECT_EQ(asker.answers.front(), nullptr) << "it is not there yet";
}

TEST_F(LifecycleTest, namespacesWithoutABroker) {
    EXPECT_EQ(TreflectORB::getInstance(static_cast<NamespaceId>(-1)), nullptr);
    EXPECT_EQ(TreflectORB::getInstance(static_cast<NamespaceId>(256)), nullptr);
    EXPECT_EQ(log_.count(3, "can not handle namespace id "), 2u);
    TreflectORB* const undefined = TreflectORB::getInstance(NSID_UNDEF);
    ASSERT_NE(undefined, nullptr);
    EXPECT_EQ(undefined->termId().groupId(), 0);
    EXPECT_TRUE(log_.contains("can not handle namespace id NSID_UNDEF"));
    TipprmiOID const oid("lamp", static_cast<NamespaceId>(7));
    EXPECT_EQ(orb().locateObject(oid).getInternalOID(), 0u) << "by a broker without a group";
}

TEST_F(LifecycleTest, deletionWithoutABrokerOnlyLogs) {
    TreflectORB::prepareForDeletion();
    log_.clear();
    prepareOrbForDeletion();
    EXPECT_EQ(log_.texts(), (std::vector<std::string>{"prepareOrbForDeletion() called",
                                                      "prepareOrbForDeletion() returns"}));
    EXPECT_EQ(log_.records()[0].source, "PrepareOrbForDeletion");
}

TEST_F(LifecycleTest, deletionEndsOutstandingCallsAndKeepsThePermission) {
    RawPeer peer(group());
    orb(NSID_NODE);
    constexpr std::size_t kCallers = 5;
    std::vector<std::thread> callers;
    for (std::size_t i = 0; i < kCallers; ++i)
        callers.emplace_back([&] {
            TreflectHandlerState const handlerState(true);
            EXPECT_FALSE(forwardCall(orb(), orb().convertId(peer.termId())).succeeded);
        });
    peer.await(kCallers - 1);
    {
        TreflectHandlerState const handlerState(true);
        prepareOrbForDeletion();
        EXPECT_TRUE(TreflectORB::hasRunPermission());
        EXPECT_EQ(TreflectORB::getRunPermissionCount(), 1u);
    }
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(log_.count(3, "aborted (Detection Rem.Disc.=true, TargetGone=false)"), kCallers);
}

TEST_F(LifecycleTest, brokersComeAndGoWhileThreadsCall) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i)
        callers.emplace_back([&] {
            while (!stop) {
                TreflectHandlerState const handlerState(true);
                ProbeClient client{TipprmiOID("nobody", NSID_UNIT)};
                client.call(kEcho, 1);
            }
        });
    for (int i = 0; i < 5; ++i) {
        orb();
        std::thread other([] { TreflectORB::prepareForDeletion(); });
        TreflectORB::prepareForDeletion();
        other.join();
    }
    stop = true;
    for (std::thread& caller : callers)
        caller.join();
}

/** A call to nobody in particular. */
bool callFails(TreflectORB& orb) {
    ProbeClient::Answer const answer = forwardCall(orb, TreflectOrbId(9, 1, NSID_UNIT));
    return !answer.succeeded && answer.exceptionType == 1;
}

TEST_F(LifecycleTest, aDeletedBrokerFailsWhateverIsAskedOfItThroughAnOldPointer) {
    TreflectORB& old = orb();
    TreflectORB::prepareForDeletion();
    orb();
    TreflectORB::prepareForDeletion();
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(callFails(old));
    EXPECT_LE(log_.count(3, "could not find destination"), 10u) << "others could fill the log";
    {
        TreflectHandlerState const handlerState(true);
        std::thread([&] { EXPECT_TRUE(callFails(old)); }).join();
        EXPECT_TRUE(callFails(old));
        EXPECT_TRUE(TreflectORB::hasRunPermission());
    }
    EXPECT_EQ(old.locateObject(oid("nobody")).getInternalOID(), 0u);
    EXPECT_EQ(old.getPerfCnts(old.termId()).actor, "");
    for (auto const& other : old.getPerfCnts())
        EXPECT_EQ(other.info.actor, "");
    auto const observer = makePermitted<Watcher>();
    EXPECT_FALSE(old.observeCreations(kProbeClass, *observer, true));
    EXPECT_FALSE(old.observeDeletions(kProbeClass, *observer));
    old.removeObserver(kProbeClass, *observer);
    old.startReflectWorker();
    old.display(0);
    auto const probe = makePermitted<Probe>("late");
    permitted([&] { probe->connect(&old, oid("late")); });
    EXPECT_EQ(probe->orbId(), TreflectOrbId()) << "nobody would ever reach it there";
}

TEST_F(LifecycleTest, deletionDoesNotWaitForCallsThatCameLater) {
    RawPeer peer(group());
    auto const probe = heldProbe(peer);
    struct Inside {
        testsupport::Gate reached, left;
    } inside;
    TreflectORB& closed = orb();
    Deletion deletion(closed.termId());
    // The log takes its time, in the middle of a call that fails.
    Logging::setSink(
        [](Logging::Record const& record, void* context) {
            if (!std::strstr(record.text, "could not find destination"))
                return;
            static_cast<Inside*>(context)->reached.open();
            static_cast<Inside*>(context)->left.wait();
        },
        &inside);
    std::thread caller([&] { EXPECT_TRUE(callFails(closed)); });
    EXPECT_TRUE(inside.reached.wait());
    probe->release();
    EXPECT_TRUE(deletion.over.wait(seconds(10)));
    inside.left.open();
    caller.join();
    Logging::setSink(nullptr, nullptr);
}

TEST_F(LifecycleTest, deletedBrokersKeepNoDescriptors) {
    orb();
    TreflectORB::prepareForDeletion();
    auto const openDescriptors = [] { return testsupport::Resources::of(getpid()).descriptors; };
    long const before = openDescriptors();
    for (int life = 0; life < 3; ++life) {
        orb();
        TreflectORB::prepareForDeletion();
    }
    // The threads that have been stopped close theirs soon.
    EXPECT_SOON(openDescriptors() <= before);
}

TEST_F(LifecycleTest, deletionWaitsForTheRequestThatIsBeingServed) {
    RawPeer peer(group());
    auto const probe = heldProbe(peer);
    Deletion deletion(broker(), [&] { EXPECT_EQ(probe->held(), 0u) << "it is still served"; });
    // The deletion waits, and not for the receiving thread: that of the peer is left.
    EXPECT_SOON(deletion.over.isOpen() || (testsupport::statesOfThreads("Receiver").size() == 1 &&
                                           !testsupport::statesOfThreads("OrbObsWorker").empty() &&
                                           testsupport::statesOfThreads("deletes") == "S"));
    EXPECT_EQ(TreflectORB::getInstance(NSID_NODE), nullptr) << "none is made meanwhile";
    probe->release();
}

TEST_F(LifecycleTest, deletionOfOneBrokerDoesNotWaitForAResponseThroughAnother) {
    RawPeer caller(group());
    RawPeer silent(group(NSID_NODE));
    auto const between = makePermitted<Acting>("between", [&](auto&&...) {
        TreflectORB& node = *TreflectORB::getInstance(NSID_NODE);
        return forwardCall(node, node.convertId(silent.termId())).succeeded;
    });
    caller.sendCall(orb().termId(), 1, between->getInternalOID(), true, 2, 3);
    silent.await(0);
    auto const start = steady_clock::now();
    prepareOrbForDeletion();
    EXPECT_LT(steady_clock::now() - start, seconds(20)) << "it took the end of the wait";
    EXPECT_EQ(log_.count(3, "aborted (Detection Rem.Disc.=true, TargetGone=false)"), 1u);
}

TEST_F(LifecycleTest, brokersMayBeDeletedByACallThatTheyServe) {
    ReflectActor actor;
    actor.publish("far");
    auto const call = [](char const* name, unsigned int method) {
        return permitted([&] { return ProbeClient(oid(name)).call(method, 5); });
    };
    EXPECT_EQ(call("far", kDeleteBrokers).exceptionType, 1u)
        << "the worker that deletes its broker cannot answer any more";
    EXPECT_TRUE(actor.child().waitForErrorLine("prepareOrbForDeletion() returns"));
    EXPECT_EQ(actor.ask("call nobody 1", "called"), "0 0") << "made anew";
    actor.publish("again");
    EXPECT_EQ(call("again", kEcho).number, 5u);
}

TEST_F(LifecycleTest, forkedChildLeavesTheBrokersAlone) {
    orb();
    pid_t const child = fork();
    if (child == 0) {
        TreflectORB::prepareForDeletion();
        bool const same = TreflectORB::getInstance(NSID_NODE) == nullptr;
        _exit(same ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    RawPeer peer(group());
    peer.sendCall(orb().termId(), 1, 2, true, 3, 4);
    EXPECT_EQ(peer.await(0).transactionId(), 1u) << "the parent's broker still answers";
}

/** Ways to end a process with brokers. */
class ProcessEndTest : public BrokerTest {
protected:
    /** How the actor ended; it must not take long. */
    int endOf(ReflectActor& actor) {
        auto const start = steady_clock::now();
        int const code = actor.child().exitCode();
        EXPECT_LT(steady_clock::now() - start, seconds(15));
        return code;
    }
    /** Starts a call to the actor that nobody waits for. */
    void send(unsigned int method, unsigned int number) {
        permitted([&] { ProbeClient(oid("far")).send(method, number); });
    }
    /** Returns when the calls that were sent so far are being served. */
    void awaitService() {
        permitted([] { EXPECT_EQ(ProbeClient(oid("far")).call(kEcho).exceptionType, 0u); });
    }
};

TEST_F(ProcessEndTest, byReturnAndByExitWhateverIsBeingServed) {
    struct {
        unsigned int method;
        char const* command;
    } const cases[]{
        {kEcho, "exit 4"}, {kExit, ""}, {kHold, "return 4"}, {kHoldPermission, "return 4"}};
    for (auto const& [method, command] : cases) {
        ReflectActor actor(testsupport::ChildProgram::longEnd());
        actor.publish("far");
        send(method, 4);
        if (method == kHold)
            awaitService();
        actor.tell(command);
        EXPECT_EQ(endOf(actor), 4) << method;
    }
}

TEST_F(ProcessEndTest, whileItsThreadsCallAndServe) {
    ReflectActor server(testsupport::ChildProgram::longEnd());
    server.publish("far");
    ReflectActor caller(testsupport::ChildProgram::longEnd());
    caller.publish("other");
    caller.tell("callforever far 4");
    server.tell("callforever other 4");
    caller.await("calling");
    server.await("calling");
    caller.tell("return 6");
    EXPECT_EQ(endOf(caller), 6);
    server.tell("return 7");
    EXPECT_EQ(endOf(server), 7);
}

TEST_F(ProcessEndTest, whileAnotherThreadDeletesTheBrokers) {
    ReflectActor actor(testsupport::ChildProgram::longEnd());
    actor.publish("far");
    send(kHold, 0);
    awaitService();
    actor.ask("deleteaside", "deleting");
    actor.tell("return 10");
    EXPECT_EQ(endOf(actor), 10);
    EXPECT_TRUE(actor.child().waitForErrorLine("gave up waiting for a thread"));
}

}  // namespace
