// Calls that are answered before a deadline, or fail.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "BrokerTest.h"
#include "ReflectActor.h"
#include "ReflectiveClasses.h"
#include "Thing.h"
#include "Watcher.h"

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned int kThingClass = 0x7301;

class DeadlineTest : public BrokerTest {
protected:
    DeadlineTest() {
        actor_.ask("lamp far", "made");
        permission_.emplace(true);
        handle_ = TreflectObject(oid("far"));
        held_ = &handle_.attribute("Held");
        level_ = &handle_.attribute("Level");
    }
    Transport::TerminationId far() { return orb().convertId(handle_.getStub_()->orbId()); }
    TipprmiResult<unsigned int> fetchHeld() { return held_->fetch<unsigned int>(); }
    /** Has a call time out while its object holds it, and answers how many it took: where the
     * machine is so busy that the time has passed before the call is there, another one has twice
     * the time. */
    unsigned int timeOutWhileHeld() {
        unsigned int calls = 0;
        for (milliseconds time(50); time < testsupport::kPatience; time *= 2) {
            auto const start = steady_clock::now();
            {
                TreflectDeadline const within(time);
                EXPECT_EQ(TipprmiFailure::kTimedOut, fetchHeld().code());
            }
            EXPECT_GE(steady_clock::now() - start, time);
            ++calls;
            if (actor_.does("heldsoon far"))
                break;
        }
        return calls;
    }

    ReflectActor actor_;
    std::optional<TreflectHandlerState> permission_;
    TreflectObject handle_;
    TreflectAttribute* held_ = nullptr;   // answered when the actor is told to release it
    TreflectAttribute* level_ = nullptr;  // answered at once
};

TEST_F(DeadlineTest, EndsAWaitAndDropsTheLateAnswer) {
    unsigned int const calls = timeOutWhileHeld();
    EXPECT_TRUE(handle_.isConnected());
    EXPECT_EQ(1u, level_->fetch<unsigned int>().value()) << "an answer of its own";
    actor_.ask("letgo far", "gone");
    EXPECT_EQ(77u, fetchHeld().value());
    auto const dropped = [this] { return log_.count(3, "receives unexpected response"); };
    EXPECT_SOON(dropped() >= 1);
    EXPECT_LE(dropped(), calls);
    EXPECT_EQ(0u, log_.count("aborted"));
}

TEST_F(DeadlineTest, ThatIsFarOffChangesNothing) {
    actor_.ask("letgo far", "gone");
    TreflectDeadline const within(hours(24 * 365 * 200));
    EXPECT_GT(within.left(), hours(1));
    EXPECT_EQ(77u, fetchHeld().value());
}

TEST_F(DeadlineTest, IsTheEarliestOfThoseAround) {
    TreflectDeadline const outer(milliseconds(20));
    {
        TreflectDeadline const inner{hours(1)};
        EXPECT_LE(inner.left(), milliseconds(20));
        EXPECT_EQ(TipprmiFailure::kTimedOut, fetchHeld().code());
    }
    EXPECT_EQ(milliseconds(0), outer.left());
    EXPECT_EQ(TipprmiFailure::kTimedOut, fetchHeld().code());
    {
        TreflectDeadline::Suspension const none;
        EXPECT_TRUE(level_->fetch<unsigned int>());
    }
    actor_.ask("letgo far", "gone");
}

TEST_F(DeadlineTest, ThatHasPassedSendsNothing) {
    orb().getPerfCnts(broker());  // counts from now on
    {
        TreflectDeadline const within(milliseconds(-1));
        EXPECT_EQ(TipprmiFailure::kTimedOut, level_->store(9u).code());
        EXPECT_EQ(TipprmiFailure::kTimedOut,
                  tipprmiCall<void>(handle_, lamp::kClass, lamp::kLevel + 1, 9u).code());
        EXPECT_EQ("", orb().getPerfCnts(far()).actor);
        EXPECT_FALSE(TreflectObject(oid("nowhere")).isConnected());
        EXPECT_TRUE(tipprmiSend(handle_, device::kClass, device::kPing));
        LampObject const own("own");
        EXPECT_TRUE(TreflectObject(&own).attribute("Level").fetch<unsigned int>());
    }
    EXPECT_NE("", orb().getPerfCnts(far()).actor);
    TreflectORB::PerfCntInfo const counted = orb().getPerfCnts(broker());
    TreflectORB::PerfCnts calls;
    for (unsigned int i = 0; i < counted.counters.getLength(); ++i) {
        if (counted.counters[i].termination == far())
            calls = counted.counters[i];
    }
    EXPECT_EQ(calls.failed, 5u) << "two calls, a query, and two searches for an object";
    EXPECT_EQ(calls.sent, calls.failed + 2u) << "one that nobody answers, and a query";
    EXPECT_EQ(actor_.ask("level far", "level"), "1");
    EXPECT_SOON(actor_.ask("pings far", "pings") == "1") << "nobody waits for that";
}

TEST_F(DeadlineTest, ThatHasPassedCostsOneTurnOfThePermission) {
    auto const isQueued = [](long thread) {
        std::vector<long> const queue = TreflectORB::handlerThreads().glimpse().queue;
        return std::find(queue.begin(), queue.end(), thread) != queue.end();
    };
    auto const comesToQueue = [&](std::atomic<long>& thread) { EXPECT_SOON(isQueued(thread)); };
    std::atomic<long> caller{gettid()};
    std::atomic<long> ahead{0};
    std::atomic<long> behind{0};
    std::atomic<bool> hadItsTurn{false};
    std::thread latter;
    // Has its turn when the call gives up the permission, and lets one queue behind the caller.
    std::thread former([&] {
        ahead = gettid();
        TreflectHandlerState const permission(true);
        comesToQueue(caller);
        latter = std::thread([&] {
            behind = gettid();
            TreflectHandlerState const last(true);
            hadItsTurn = true;
        });
        comesToQueue(behind);
    });
    comesToQueue(ahead);
    {
        TreflectDeadline const passed(milliseconds(-1));
        EXPECT_EQ(TipprmiFailure::kTimedOut, level_->store(9u).code());
    }
    EXPECT_FALSE(hadItsTurn);
    TreflectReleaseHandlerState const released;
    former.join();
    latter.join();
}

TEST_F(DeadlineTest, DoesNotBoundWhatObserversDo) {
    std::vector<bool> answered;
    Watcher watcher("watcher",
                    [&] { answered.push_back(static_cast<bool>(level_->fetch<unsigned int>())); });
    LampObject const own("own");
    TreflectObject const ownHandle(&own);
    Thing const thing("thing", kThingClass);
    EXPECT_TRUE(ownHandle.operation("setLevel").preObserve(&watcher));
    EXPECT_TRUE(thingClass(kThingClass).observeCreations(&watcher, false));
    TreflectDeadline const passed(milliseconds(0));
    EXPECT_TRUE(ownHandle.attribute("Level").store(5u));
    thing.come();
    EXPECT_EQ(answered, (std::vector<bool>{true, true}));
    EXPECT_EQ(TipprmiFailure::kTimedOut, level_->fetch<unsigned int>().code());
}

/** Asks an object of another process on behalf of its caller. */
class Asking : public LampObject {
public:
    Asking(std::string const& name, TreflectAttribute& asked) : LampObject(name), asked_(asked) {}
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (mc == device::kPing)
            code = asked_.fetch<unsigned int>().code();
        return LampObject::dispatch(withResponse, cc, mc, in, out);
    }
    unsigned int code = 0;

private:
    TreflectAttribute& asked_;
};

TEST_F(DeadlineTest, HoldsForNestedCalls) {
    Asking const own("own", *held_);
    TreflectObject const ownHandle(&own);
    {
        TreflectDeadline const within(milliseconds(30));
        EXPECT_EQ(0, ownHandle.operation("ping").call());
    }
    EXPECT_EQ(TipprmiFailure::kTimedOut, own.code);
    actor_.ask("letgo far", "gone");
}

TEST_F(DeadlineTest, LosesNoObserversAndNoChildren) {
    LampObject const own("own");
    TreflectObject const ownHandle(&own);
    released([&] { actor_.observe("watcher", "own", "setLevel", "before"); });
    {
        TreflectDeadline const passed(milliseconds(0));
        EXPECT_TRUE(ownHandle.attribute("Level").store(5u));
        LampObject const child("child", &handle_);
        TreflectDeadline::Suspension const none;
        EXPECT_EQ(1u, handle_.getChilds().getLength());
    }
    EXPECT_EQ(0u, handle_.getChilds().getLength());
    released([&] { EXPECT_EQ(actor_.told("watcher"), "1 5 own"); });
}

}  // namespace
