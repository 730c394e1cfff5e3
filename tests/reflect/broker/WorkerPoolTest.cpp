// The workers of a broker and the run permission: who is served when.
#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "Threads.h"

namespace {

std::string statesOfWorkers() {
    return testsupport::statesOfThreads("ReflectWorker");
}

class WorkerPoolTest : public BrokerTest {
protected:
    static constexpr unsigned int kBurst = 12;

    ~WorkerPoolTest() override {
        probe_->release();
        TreflectORB::prepareForDeletion();
    }

    /** A burst of calls starts a worker each; those that stay are asleep at the queue. */
    void makeIdleWorkers() {
        for (unsigned int i = 1; i <= kBurst; ++i) {
            peer_.sendCall(orb().termId(), i, probe_->getInternalOID(), true, kProbeClass, kHold);
            ASSERT_SOON(probe_->held() == i);
        }
        EXPECT_LE(statesOfWorkers().size(), kBurst + 1);
        probe_->release();
        peer_.await(kBurst - 1);
        ASSERT_SOON(statesOfWorkers() == "SSS" && TreflectORB::getRunPermissionOwner() == 0);
    }
    void send(int number, bool oneWay = false) {
        peer_.sendCall(orb().termId(), static_cast<unsigned int>(number),
                       recorder_->getInternalOID(), !oneWay, kProbeClass, number);
    }
    /** Sends a call that an idle worker takes and queues for the permission with. */
    void park(int number) {
        unsigned long const before = TreflectORB::handlerThreads().getPermissionWaiters();
        send(number);
        ASSERT_TRUE(queueGrowsTo(before + 1));
    }

    RawPeer peer_{group()};
    Permitted<Probe> const probe_ = makePermitted<Probe>("probe");
    std::vector<int> served_;  // numbers of calls in their order; guarded by the run permission
    /** Each seventh one lets others have the permission before it ends. */
    Permitted<Acting> const recorder_ =
        makePermitted<Acting>("recorder", [this](unsigned int method, auto&, auto& out) {
            served_.push_back(static_cast<int>(method));
            if (method % 7 == 0)
                released(std::this_thread::yield);
            out << TipprmiExceptionContainer();
            return true;
        });
};

TEST_F(WorkerPoolTest, messagesAndCallersAreServedInTheOrderOfTheirArrival) {
    makeIdleWorkers();
    std::thread caller;
    {
        TreflectHandlerState const handlerState(true);
        park(1);
        park(2);
        caller = std::thread([&] {
            TreflectHandlerState const inner(true);
            served_.push_back(100);
        });
        ASSERT_TRUE(queueGrowsTo(3));
        park(3);
        // Nobody is idle: these wait in the broker's queue for whoever is ready first.
        park(4);  // the one that queues is the worker that it asks for
        send(5);
    }
    caller.join();
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_EQ(peer_.await(kBurst + i).transactionId(), i + 1) << "answered in this order";
    permitted([&] { EXPECT_EQ(served_, (std::vector<int>{1, 2, 100, 3, 4, 5})); });
}

// Beside threads that keep the processors busy, and so bring workers out of step, and one that asks
// for the permission as well.
TEST_F(WorkerPoolTest, burstsOfOneWayCallsAreServedInTheOrderInWhichTheyWereSent) {
    constexpr int kBursts = 100;
    constexpr int kLength = 50;
    makeIdleWorkers();
    std::atomic<bool> over{false};
    testsupport::TestThreads others(4, [&over](std::size_t number) {
        while (!over)
            if (number == 3)
                permitted([] {});
    });
    for (int number = 0; number < kBursts * kLength && !HasFailure();) {
        for (int i = 0; i < kLength; ++i)
            send(number++, true);
        EXPECT_SOON(permitted([&] { return served_.size(); }) == static_cast<std::size_t>(number));
    }
    over = true;
    others.join();
    permitted([&] {
        auto const late = std::is_sorted_until(served_.begin(), served_.end());
        EXPECT_EQ(late, served_.end()) << *late << " after " << *(late - 1);
    });
}

TEST_F(WorkerPoolTest, workersThatAreStartedDirectlyBelongToThePool) {
    for (int i = 0; i < 6; ++i)
        orb().startReflectWorker();
    EXPECT_SOON(statesOfWorkers() == "SSS")
        << "it keeps three that are idle, not " << statesOfWorkers().size();
    peer_.sendCall(orb().termId(), 1, probe_->getInternalOID(), true, kProbeClass, kEcho);
    EXPECT_EQ(peer_.await(0).transactionId(), 1u);
    prepareOrbForDeletion();
    EXPECT_SOON(statesOfWorkers().empty());
}

TEST_F(WorkerPoolTest, deletionServesThoseThatQueueForThePermissionAndEndsAllWorkers) {
    makeIdleWorkers();
    {
        TreflectHandlerState const handlerState(true);
        for (int number : {1, 2, 3, 4})
            park(number);
        send(5);
        send(6);
        prepareOrbForDeletion();
        EXPECT_TRUE(TreflectORB::hasRunPermission());
        EXPECT_EQ(TreflectORB::getRunPermissionCount(), 1u);
        EXPECT_EQ(TreflectORB::handlerThreads().getPermissionWaiters(), 0u);
    }
    EXPECT_SOON(statesOfWorkers().empty());
    ASSERT_GE(served_.size(), 3u);
    for (std::size_t i = 0; i < served_.size(); ++i)
        EXPECT_EQ(served_[i], static_cast<int>(i + 1));
}

}  // namespace
