// Callers and workers that take in by themselves what comes from a peer: whatever happens while one
// sleeps at its bell, nobody hangs, and nothing is lost.
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "BrokerTest.h"
#include "Probe.h"
#include "RawPeer.h"
#include "ReflectActor.h"
#include "Threads.h"
#include "transport.h"

namespace {

using std::chrono::milliseconds;

/** The system call that a thread of this process sleeps in, by the folder of the thread; else -1.
 */
long systemCall(std::filesystem::path const& thread) {
    long call = -1;
    std::ifstream(thread / "syscall") >> call;
    return call;
}

bool waitsForDescriptors(long call) {
    return call == SYS_epoll_pwait
#ifdef SYS_epoll_pwait2
           || call == SYS_epoll_pwait2
#endif
#ifdef SYS_epoll_wait
           || call == SYS_epoll_wait
#endif
        ;
}

bool waitsForOthers(long call) {
    return call == SYS_futex
#ifdef SYS_futex_time64
           || call == SYS_futex_time64
#endif
        ;
}

/** Calls `look` with the folder of each thread of this process that has this name. */
template <class Look>
void forThreads(std::string const& name, Look const& look) {
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string found;
        std::getline(std::ifstream(task.path() / "comm"), found);
        if (found == name)
            look(task.path());
    }
}

bool workerSleepsAtBells() {
    bool sleeps = false;
    forThreads("ReflectWorker",
               [&](auto const& thread) { sleeps |= waitsForDescriptors(systemCall(thread)); });
    return sleeps;
}

/** How often those threads have gone to sleep. */
long sleepsOf(std::string const& name) {
    constexpr char const* kMark = "voluntary_ctxt_switches:";
    long sum = 0;
    forThreads(name, [&](auto const& thread) {
        std::ifstream status(thread / "status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind(kMark, 0) == 0)
                sum += std::stol(line.substr(std::strlen(kMark)));
    });
    return sum;
}

class OwnReadingTest : public BrokerTest {
protected:
    using Answer = ProbeClient::Answer;

    OwnReadingTest() {
        peer_.publish("far");
        callAlone();
    }
    ~OwnReadingTest() override {
        if (peerLives_)
            peer_.tell("release far");
    }

    static Answer call(unsigned int method, unsigned int number = 0, milliseconds within = {}) {
        return permitted([&] {
            std::optional<TreflectDeadline> deadline;
            if (within.count() != 0)
                deadline.emplace(within);
            return ProbeClient(oid("far")).call(method, number);
        });
    }
    /** After some of these, callers of the peer are known to come alone. */
    static void callAlone() {
        for (unsigned int i = 0; i < 8; ++i)
            EXPECT_EQ(call(kEcho, i).number, i);
    }
    /** One call is held by the peer, and its caller sleeps at the bell. Where the receiving thread
     * was at the ring when it came it does not, and another one tries. */
    void hold() {
        long call = -1;
        for (int tries = 1; !waitsForDescriptors(call); ++tries) {
            ASSERT_LE(tries, 50) << "the receiving thread never leaves the ring";
            if (held_) {
                held_->cancel();
                held_->join();
            }
            startCaller();
            std::string const held = std::to_string(tries);
            ASSERT_TRUE(testsupport::eventually(
                [&] { return peer_.ask("holding far", "holding") == held; }));
            std::string const thread = "/proc/self/task/" + std::to_string(caller_);
            ASSERT_TRUE(testsupport::eventually([&] {
                call = systemCall(thread);
                return waitsForDescriptors(call) || waitsForOthers(call);
            }));
        }
    }
    void startCaller() {
        left_ = false;
        held_.emplace([this] {
            caller_ = static_cast<pid_t>(::syscall(SYS_gettid));
            testsupport::Mark const mark{left_};
            TreflectHandlerState const handlerState(true);
            answer_ = ProbeClient(oid("far")).call(kHold, 7);
            order_.push_back(1);
        });
    }
    Answer letGo() {
        peer_.tell("release far");
        held_->join();
        return answer_;
    }

    ReflectActor peer_;
    bool peerLives_ = true;
    std::atomic<pid_t> caller_{0};
    std::atomic<bool> left_{false};
    Answer answer_;
    std::vector<int> order_;  // guarded by the run permission
    std::optional<testsupport::TestThread> held_;
};

TEST_F(OwnReadingTest, answersWakeTheCallerItself) {
    hold();
    EXPECT_EQ(letGo().number, 7u);
    callAlone();
}

TEST_F(OwnReadingTest, aCancelledCallerLeavesTheRingToOthers) {
    hold();
    held_->cancel();
    EXPECT_TRUE(held_->join());
    EXPECT_TRUE(left_);
    callAlone();
    peer_.tell("release far");  // an answer nobody waits for
    callAlone();
}

TEST_F(OwnReadingTest, theEndOfThePeerEndsTheCall) {
    hold();
    peerLives_ = false;
    peer_.child().kill();
    held_->join();
    EXPECT_EQ(answer_.exceptionType, 1u);
    EXPECT_EQ(call(kEcho).exceptionType, 1u);
}

TEST_F(OwnReadingTest, aStoppedPeerCostsTheCallersDeadline) {
    permitted([&] {
        ProbeClient client(oid("far"));
        EXPECT_EQ(client.call(kEcho, 1).number, 1u);
        ASSERT_TRUE(peer_.child().stopWholly());
        TreflectDeadline const within(milliseconds(200));
        EXPECT_EQ(client.call(kEcho).exceptionCode,
                  static_cast<unsigned int>(TipprmiFailure::kTimedOut));
    });
    peer_.child().signal(SIGCONT);
    callAlone();
}

TEST_F(OwnReadingTest, deletionOfTheBrokerEndsTheCall) {
    hold();
    prepareOrbForDeletion();
    held_->join();
    EXPECT_EQ(answer_.exceptionType, 1u);
}

TEST_F(OwnReadingTest, theCallerTakesItsTurnWhenItsAnswerComes) {
    hold();
    std::thread later;
    {
        TreflectHandlerState const handlerState(true);
        peer_.tell("release far");
        ASSERT_TRUE(queueGrowsTo(1));
        later = std::thread([&] { permitted([&] { order_.push_back(2); }); });
        ASSERT_TRUE(queueGrowsTo(2));
    }
    later.join();
    held_->join();
    EXPECT_EQ(answer_.number, 7u);
    EXPECT_EQ(order_, (std::vector<int>{1, 2}));
}

TEST_F(OwnReadingTest, callsOfThePeerAreServedMeanwhile) {
    auto const near = makePermitted<Probe>("near");
    peer_.ask("call near 1", "called");
    callAlone();
    hold();
    peer_.tell("hold near");
    ASSERT_TRUE(testsupport::eventually([&] { return near->held() == 1; })) << "by a worker";
    for (unsigned int i = 0; i < 20; ++i)
        EXPECT_EQ(peer_.ask("call near " + std::to_string(i), "called"), "1 " + std::to_string(i));
    EXPECT_EQ(near->held(), 1u) << "others have served them";
    EXPECT_EQ(letGo().number, 7u);
    near->release();
    prepareOrbForDeletion();  // waits for its worker
}

TEST_F(OwnReadingTest, callsGoToAndFroWhileBothSidesRead) {
    auto const near = makePermitted<Probe>("near");
    permitted([&] { near->partner(oid("far")); });
    peer_.ask("partner far near", "partner");
    for (unsigned int depth = 1; depth <= 20; ++depth) {
        callAlone();
        EXPECT_EQ(call(kToAndFro, depth).number, depth);
    }
    callAlone();
    hold();
    EXPECT_EQ(call(kToAndFro, 9).number, 9u);
    EXPECT_EQ(letGo().number, 7u);
}

TEST_F(OwnReadingTest, manyCallersOfOneChannelGetTheirAnswers) {
    hold();
    constexpr unsigned int kCallers = 64;
    std::atomic<unsigned int> right{0};
    testsupport::TestThreads callers(kCallers, [&](std::size_t number) {
        for (unsigned int i = 0; i < 20; ++i)
            right += call(kEcho, static_cast<unsigned int>(number) + i).number == number + i;
    });
    callers.join();
    EXPECT_EQ(right, kCallers * 20);
    EXPECT_EQ(letGo().number, 7u);
}

TEST_F(OwnReadingTest, aFloodDoesNotKeepTheCallerBeyondItsDeadline) {
    auto const near = makePermitted<Probe>("near");
    peer_.ask("call near 1", "called");
    callAlone();
    peer_.tell("flood near 50 1");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(call(kHold, 0, milliseconds(50)).exceptionCode,
                  static_cast<unsigned int>(TipprmiFailure::kTimedOut));
    peer_.tell("calm");
    EXPECT_EQ(call(kEcho, 3).number, 3u);
}

TEST_F(OwnReadingTest, aForkedChildCallsNobodyAndDisturbsNothing) {
    hold();
    EXPECT_TRUE(testsupport::holdsInForkedChild([] { return call(kEcho).exceptionType == 1; }));
    EXPECT_EQ(letGo().number, 7u);
}

TEST_F(OwnReadingTest, withoutPollingAllIsTheSame) {
    Transport::Setup::polling(false);
    for (int i = 0; i < 50; ++i)
        callAlone();
    hold();
    EXPECT_EQ(letGo().number, 7u);
    Transport::Setup::polling(true);
}

/** A worker sleeps at the bells, for what the peer calls next. */
class OwnServingTest : public OwnReadingTest {
protected:
    OwnServingTest() { serveAlone(peer_); }

    static void serveAlone(ReflectActor& caller) {
        int number = 0;
        bool sleeps = false;
        for (int rounds = 0; rounds < 100 && !sleeps; ++rounds) {
            for (int end = number + 20; number < end; ++number)
                EXPECT_EQ(caller.ask("callagain near " + std::to_string(number), "called"),
                          "1 " + std::to_string(number));
            sleeps = testsupport::eventually(workerSleepsAtBells, milliseconds(100));
        }
        EXPECT_TRUE(sleeps);
    }

    void makeIdleWorkers() {
        constexpr unsigned int kWorkers = 3;
        for (unsigned int i = 0; i < kWorkers; ++i)
            peer_.tell("hold near");
        ASSERT_SOON(near_->held() == kWorkers);
        near_->release();
        ASSERT_SOON(near_->held() == 0);
    }
    void serveWhileOthersCall() {
        for (int i = 0; i < 20; ++i)
            EXPECT_EQ(peer_.ask("call near 3", "called"), "1 3");
        prepareOrbForDeletion();
        EXPECT_SOON(testsupport::statesOfThreads("ReflectWorker").empty());
    }

    Permitted<Probe> const near_ = makePermitted<Probe>("near");
    /** Notes the numbers that it is called with. */
    Permitted<Acting> const recorder_ =
        makePermitted<Acting>("recorder", [this](unsigned int, auto& in, auto& out) {
            unsigned int number = 0;
            in >> number;
            order_.push_back(static_cast<int>(number));
            out << TipprmiExceptionContainer() << number;
            return true;
        });
};

TEST_F(OwnServingTest, requestsWakeTheWorkerAlone) {
    ReflectActor other;
    serveAlone(other);
    long const before = sleepsOf("Receiver");
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ((i % 2 == 0 ? peer_ : other).ask("callagain near 7", "called"), "1 7");
        ASSERT_SOON(workerSleepsAtBells());
    }
    EXPECT_EQ(sleepsOf("Receiver"), before);
}

TEST_F(OwnServingTest, whatComesFromTheProcessItselfWakesTheWorkerToo) {
    RawPeer local(group());
    ASSERT_SOON(workerSleepsAtBells());
    local.sendCall(orb().termId(), 1, near_->getInternalOID(), true, kProbeClass, kEcho);
    EXPECT_EQ(local.await(0).transactionId(), 1u);
}

TEST_F(OwnServingTest, aWorkerThatIsHeldKeepsNobodyWaiting) {
    peer_.tell("hold near");
    ASSERT_SOON(near_->held() == 1);
    serveAlone(peer_);  // until another one sleeps at the bells
    EXPECT_EQ(near_->held(), 1u);
    near_->release();
    EXPECT_SOON(near_->held() == 0);
    serveAlone(peer_);
    prepareOrbForDeletion();
}

TEST_F(OwnServingTest, theEndOfThePeerLeavesTheWorkerToOthers) {
    ReflectActor other;
    peerLives_ = false;
    peer_.child().kill();
    serveAlone(other);
}

TEST_F(OwnServingTest, deletionEndsTheWorkerThatSleeps) {
    prepareOrbForDeletion();
    EXPECT_SOON(testsupport::statesOfThreads("ReflectWorker").empty());
}

TEST_F(OwnServingTest, deletionEndsWhileOneCalls) {
    peer_.ask("callforever near 1", "calling");
    serveWhileOthersCall();
}

TEST_F(OwnServingTest, deletionEndsWhileManyCall) {
    peer_.ask("callforever near 8", "calling");
    serveWhileOthersCall();
}

TEST_F(OwnServingTest, theWorkerTakesItsTurnWhenItsMessageComes) {
    makeIdleWorkers();  // one that is started meanwhile would ask for the permission as well
    peer_.ask("callforever recorder 1", "calling");
    EXPECT_SOON(permitted([&] { return order_.size(); }) > 100);
    std::thread later;
    std::size_t served = 0;
    {
        TreflectHandlerState const handlerState(true);
        ASSERT_TRUE(queueGrowsTo(1));
        served = order_.size();
        later = std::thread([&] { permitted([&] { order_.push_back(-1); }); });
        ASSERT_TRUE(queueGrowsTo(2));
    }
    later.join();
    EXPECT_SOON(permitted([&] { return order_.size(); }) > served + 2);
    prepareOrbForDeletion();
    auto const number = static_cast<int>(served);
    EXPECT_EQ(order_[served], number);
    EXPECT_EQ(order_[served + 1], -1);
    EXPECT_EQ(order_[served + 2], number + 1);
}

// The worker, the receiving thread and other workers take over from each other all the time.
TEST_F(OwnServingTest, messagesAreServedInTheOrderInWhichTheyWereSentWhoeverReads) {
    constexpr std::size_t kOneWay = 30;
    constexpr std::size_t kCalls = 12;
    constexpr std::size_t kBursts = 100;
    peer_.tell("flood recorder " + std::to_string(kOneWay) + " " + std::to_string(kCalls));
    EXPECT_SOON(permitted([&] { return order_.size(); }) >= kBursts * (kOneWay + kCalls));
    peer_.tell("calm");
    EXPECT_EQ(peer_.ask("call recorder 5", "called"), "1 5");
    permitted([&] {
        order_.pop_back();
        for (std::size_t i = 0; i < order_.size(); ++i)
            ASSERT_EQ(order_[i], i % (kOneWay + kCalls) < kOneWay ? 1 : 2) << i;
    });
}

TEST_F(OwnServingTest, aForkedChildDisturbsNothing) {
    EXPECT_TRUE(testsupport::holdsInForkedChild([] { return call(kEcho).exceptionType == 1; }));
    serveAlone(peer_);
}

TEST_F(OwnServingTest, withoutPollingAllIsTheSame) {
    Transport::Setup::polling(false);
    for (int i = 0; i < 5; ++i)
        serveAlone(peer_);
    Transport::Setup::polling(true);
}

}  // namespace
