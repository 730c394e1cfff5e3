// Calls between real processes.
#include <dirent.h>
#include <signal.h>

#include <fstream>
#include <thread>
#include <vector>

#include "BrokerActor.h"
#include "BrokerTest.h"
#include "Probe.h"

namespace {

/** Number of threads of a process that have this name. */
int threadsNamed(pid_t pid, std::string const& name) {
    std::string const folder = "/proc/" + std::to_string(pid) + "/task";
    int count = 0;
    DIR* const tasks = opendir(folder.c_str());
    while (dirent const* const task = readdir(tasks)) {
        std::ifstream file(folder + "/" + task->d_name + "/comm");
        std::string comm;
        if (std::getline(file, comm) && comm == name)
            ++count;
    }
    closedir(tasks);
    return count;
}

class RemoteCallTest : public BrokerTest {
protected:
    /** A call from the test's thread, in handler state for its length. */
    ProbeClient::Answer call(std::string const& name, unsigned int mc, unsigned int number = 0,
                             std::string const& text = "") {
        TreflectHandlerState const handlerState(true);
        return ProbeClient(TipprmiOID(name, NSID_UNIT)).call(mc, number, text);
    }
    std::vector<std::thread> callFromThreads(int threads, std::string const& name,
                                             unsigned int mc) {
        std::vector<std::thread> callers;
        for (int i = 0; i < threads; ++i)
            callers.emplace_back([this, name, mc] { call(name, mc); });
        return callers;
    }
};

TEST_F(RemoteCallTest, argumentsGoAndResultsComeBack) {
    BrokerActor actor;
    actor.publish("far");
    for (unsigned int i = 0; i < 200; ++i) {
        std::string const text(i * 50, 'x');
        ProbeClient::Answer const answer = call("far", kEcho, i, text);
        ASSERT_EQ(answer.exceptionType, 0u);
        ASSERT_EQ(answer.number, i);
        ASSERT_EQ(answer.text, text);
    }
}

TEST_F(RemoteCallTest, brokersCallEachOtherNestedAndAtOnce) {
    BrokerActor actor;
    actor.publish("far");
    Probe* near = nullptr;
    {
        TreflectHandlerState const handlerState(true);
        near = new Probe("near");
    }
    EXPECT_EQ(call("far", kCallBack, 1, "near").number, 2u);
    constexpr int kThreads = 4;
    std::vector<std::thread> callers;
    for (int i = 0; i < kThreads; ++i)
        callers.emplace_back([this] {
            for (unsigned int n = 0; n < 100; ++n)
                EXPECT_EQ(call("far", kCallBack, n, "near").number, n + 1);
        });
    for (unsigned int n = 0; n < 100; ++n)
        EXPECT_EQ(actor.ask("call near " + std::to_string(n), "called"), "1 " + std::to_string(n));
    for (std::thread& caller : callers)
        caller.join();
    TreflectHandlerState const handlerState(true);
    delete near;
}

TEST_F(RemoteCallTest, oneWayCallsAllArriveAndAreNotAnswered) {
    BrokerActor actor;
    actor.publish("far");
    TreflectHandlerState const handlerState(true);
    ProbeClient far{TipprmiOID("far", NSID_UNIT)};
    constexpr unsigned int kCalls = 1000;
    for (unsigned int i = 0; i < kCalls; ++i)
        EXPECT_TRUE(far.send(kNote));
    EXPECT_TRUE(testsupport::eventually(
        [&] { return actor.ask("noted far", "noted") == std::to_string(kCalls); }));
    EXPECT_FALSE(log_.contains("unexpected response"));
}

TEST_F(RemoteCallTest, objectThatThrowsRefusesOrEndsItsThreadFailsTheCallOnly) {
    BrokerActor actor;
    actor.publish("far");
    for (unsigned int method : {kThrowError, kThrowNumber, kRefuse, kEndThread}) {
        ProbeClient::Answer const answer = call("far", method);
        EXPECT_EQ(answer.exceptionType, 1u) << method;
        EXPECT_EQ(answer.exceptionCode, 0u) << method;
        EXPECT_EQ(call("far", kEcho, 5).number, 5u) << "after " << method;
    }
}

TEST_F(RemoteCallTest, serverThatMisusesThePermissionHarmsNobody) {
    BrokerActor actor;
    actor.publish("far");
    for (unsigned int method : {kTakeTwice, kReleaseAll, kTakeTwice}) {
        EXPECT_EQ(call("far", method).exceptionType, 0u);
        EXPECT_EQ(call("far", kEcho, 5).number, 5u);
    }
}

TEST_F(RemoteCallTest, burstStartsWorkersAndLeavesThreeIdle) {
    constexpr int kBurst = 12;
    BrokerActor actor;
    actor.publish("far");
    std::vector<std::thread> callers = callFromThreads(kBurst, "far", kHold);
    pid_t const pid = actor.child().pid();
    EXPECT_TRUE(
        testsupport::eventually([&] { return threadsNamed(pid, "ReflectWorker") >= kBurst; }));
    EXPECT_LE(threadsNamed(pid, "ReflectWorker"), kBurst + 1);
    actor.ask("release", "released");
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_TRUE(testsupport::eventually([&] { return threadsNamed(pid, "ReflectWorker") == 3; }));
    EXPECT_EQ(call("far", kEcho, 5).number, 5u);
}

TEST_F(RemoteCallTest, killedTargetEndsItsCallsAtOnce) {
    BrokerActor actor;
    actor.publish("far");
    std::vector<std::thread> callers = callFromThreads(3, "far", kHold);
    EXPECT_TRUE(testsupport::eventually(
        [&] { return threadsNamed(actor.child().pid(), "ReflectWorker") >= 3; }));
    auto const start = std::chrono::steady_clock::now();
    actor.child().kill();
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(call("far", kEcho).exceptionType, 1u);
    EXPECT_EQ(call("far", kEcho).exceptionCode, 0u);
}

TEST_F(RemoteCallTest, deletionOfTheTargetsBrokerEndsItsCalls) {
    BrokerActor actor;
    actor.publish("far");
    EXPECT_EQ(call("far", kDeleteBrokers).exceptionType, 1u)
        << "the worker that deletes its broker cannot answer any more";
    EXPECT_TRUE(actor.child().waitForErrorLine("prepareOrbForDeletion() returns"));
    EXPECT_EQ(actor.ask("call nobody 1", "called"), "0 0") << "made anew";
    actor.publish("again");
    EXPECT_EQ(call("again", kEcho, 5).number, 5u);
}

}  // namespace
