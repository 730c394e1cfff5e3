// Calls between real processes.
#include <thread>
#include <vector>

#include "BrokerActor.h"
#include "BrokerTest.h"
#include "Permitted.h"
#include "Probe.h"
#include "Threads.h"

namespace {

class RemoteCallTest : public BrokerTest {
protected:
    /** A call from the test's thread, in handler state for its length. */
    static ProbeClient::Answer call(std::string const& name, unsigned int mc,
                                    unsigned int number = 0) {
        return permitted([&] { return ProbeClient(oid(name)).call(mc, number); });
    }
};

TEST_F(RemoteCallTest, serverThatMisusesThePermissionHarmsNobody) {
    BrokerActor actor;
    actor.publish("far");
    for (unsigned int method : {kTakeTwice, kReleaseAll, kTakeTwice}) {
        EXPECT_EQ(call("far", method).exceptionType, 0u);
        EXPECT_EQ(call("far", kEcho, 5).number, 5u);
    }
}

TEST_F(RemoteCallTest, burstStartsWorkersAndLeavesThreeIdle) {
    constexpr std::size_t kBurst = 12;
    BrokerActor actor;
    actor.publish("far");
    std::vector<std::thread> callers;
    for (std::size_t i = 0; i < kBurst; ++i)
        callers.emplace_back([] { call("far", kHold); });
    auto const workers = [&actor] {
        return testsupport::statesOfThreads("ReflectWorker", actor.child().pid()).size();
    };
    EXPECT_TRUE(testsupport::eventually([&] { return workers() >= kBurst; }));
    EXPECT_LE(workers(), kBurst + 1);
    actor.ask("release", "released");
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_TRUE(testsupport::eventually([&] { return workers() == 3; }));
    EXPECT_EQ(call("far", kEcho, 5).number, 5u);
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
