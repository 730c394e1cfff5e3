// The workers of a broker and the run permission: who is served when.
#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "Threads.h"

namespace {

std::string statesOfWorkers() {
    return testsupport::statesOfThreads("ReflectWorker");
}

/** Notes the numbers of its calls in the order in which they are served. */
class Recorder : public TipprmiObjectSkeleton {
public:
    Recorder() : TipprmiObjectSkeleton(TipprmiOID("recorder", NSID_UNIT)) {}

    bool dispatch(bool, unsigned int, unsigned int mc, TipprmiStream&,
                  TipprmiStream& out) override {
        add(static_cast<int>(mc));
        prepareResponseStream_(out);
        return true;
    }
    void add(int number) {
        std::lock_guard<std::mutex> const lock(mutex_);
        numbers_.push_back(number);
    }
    std::vector<int> numbers() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return numbers_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<int> numbers_;  // guarded by mutex_
};

class WorkerPoolTest : public BrokerTest {
protected:
    static constexpr unsigned int kIdle = 3;

    WorkerPoolTest() : peer_(group()) {
        TreflectHandlerState const handlerState(true);
        probe_ = std::make_unique<Probe>("probe");
        recorder_ = std::make_unique<Recorder>();
    }
    ~WorkerPoolTest() override {
        probe_->release();
        TreflectORB::prepareForDeletion();
        TreflectHandlerState const handlerState(true);
        probe_.reset();
        recorder_.reset();
    }

    /** As many workers as stay when there is nothing to do, all asleep at the queue. */
    void makeIdleWorkers() {
        for (unsigned int i = 1; i <= kIdle; ++i) {
            peer_.sendCall(orb().termId(), i, probe_->getInternalOID(), true, kProbeClass, kHold);
            ASSERT_TRUE(testsupport::eventually([&] { return probe_->held() == i; }));
        }
        probe_->release();
        peer_.await(kIdle - 1);
        ASSERT_TRUE(testsupport::eventually([] {
            return statesOfWorkers() == "SSS" && TreflectORB::getRunPermissionOwner() == 0;
        }));
    }
    void send(int number) {
        peer_.sendCall(orb().termId(), static_cast<unsigned int>(number),
                       recorder_->getInternalOID(), true, kProbeClass, number);
    }
    bool queueGrowsTo(unsigned long threads) {
        return testsupport::eventually(
            [threads] { return TreflectORB::handlerThreads().getPermissionWaiters() == threads; });
    }
    /** Sends a call that an idle worker takes and queues for the permission with. */
    void park(int number) {
        unsigned long const before = TreflectORB::handlerThreads().getPermissionWaiters();
        send(number);
        ASSERT_TRUE(queueGrowsTo(before + 1));
    }

    RawPeer peer_;
    std::unique_ptr<Probe> probe_;
    std::unique_ptr<Recorder> recorder_;
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
            recorder_->add(100);
        });
        ASSERT_TRUE(queueGrowsTo(3));
        park(3);
        // Nobody is idle: these wait in the broker's queue for whoever is ready first.
        park(4);  // the one that queues is the worker that it asks for
        send(5);
    }
    caller.join();
    EXPECT_TRUE(testsupport::eventually([&] { return recorder_->numbers().size() == 6; }));
    EXPECT_EQ(recorder_->numbers(), (std::vector<int>{1, 2, 100, 3, 4, 5}));
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_EQ(peer_.await(kIdle + i).transactionId(), i + 1) << "answered in this order";
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
    EXPECT_TRUE(testsupport::eventually([] { return statesOfWorkers().empty(); }));
    std::vector<int> served = recorder_->numbers();
    ASSERT_GE(served.size(), 3u);
    // The last two were taken by two workers, which may have queued either way round.
    if (served.size() == 6)
        std::sort(served.begin() + 4, served.end());
    for (std::size_t i = 0; i < served.size(); ++i)
        EXPECT_EQ(served[i], static_cast<int>(i + 1));
}

TEST_F(WorkerPoolTest, callersGetTheirTurnBesideASteadyStreamOfRequests) {
    constexpr int kRequests = 3000;
    std::atomic<bool> over{false};
    std::atomic<unsigned int> turns{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 2; ++i)
        callers.emplace_back([&] {
            while (!over) {
                TreflectHandlerState const handlerState(true);
                ++turns;
            }
        });
    for (int number = 1; number <= kRequests; ++number)
        send(number);
    unsigned int const before = turns;
    for (std::size_t i = 0; i < kRequests; ++i)
        ASSERT_NE(peer_.await(i).size(), 0u) << i;
    EXPECT_TRUE(testsupport::eventually([&] { return turns > before + 10; }));
    over = true;
    for (std::thread& caller : callers)
        caller.join();
    std::vector<int> served = recorder_->numbers();
    std::sort(served.begin(), served.end());
    ASSERT_EQ(served.size(), static_cast<std::size_t>(kRequests));
    for (int i = 0; i < kRequests; ++i)
        ASSERT_EQ(served[static_cast<std::size_t>(i)], i + 1) << "each of them once";
}

TEST_F(WorkerPoolTest, brokersAreDeletedAndMadeAmidAStreamOfRequests) {
    for (int round = 0; round < 5; ++round) {
        std::atomic<bool> over{false};
        Transport::TerminationId const broker = orb().termId();
        unsigned int const ioid = recorder_->getInternalOID();
        std::thread sender([&] {
            for (unsigned int id = 1; !over; ++id)
                peer_.sendCall(broker, id, ioid, id % 2 == 0, kProbeClass, 1);
        });
        std::size_t const before = peer_.count();
        EXPECT_TRUE(testsupport::eventually([&] { return peer_.count() > before + 20; }));
        TreflectORB::prepareForDeletion();
        over = true;
        sender.join();
        EXPECT_TRUE(testsupport::eventually([] { return statesOfWorkers().empty(); }));
        TreflectHandlerState const handlerState(true);
        recorder_->connect(nullptr, TipprmiOID("recorder", NSID_UNIT));
    }
}

}  // namespace
