// Who is told of what, by which thread, and when a listener can be sure to be told no more.
#include "platform/transport/local/PresenceTable.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "LogCapture.h"
#include "Threads.h"
#include "Waiting.h"

namespace {

using testsupport::eventually;
using testsupport::Gate;
using Transport::PresenceTable;
using Transport::TerminationId;
using Transport::Visibility;

/** Writes down what it is told, then does what the test wants done inside the call. */
class Listener final : public Transport::PresenceListener {
public:
    std::function<void(TerminationId)> onArrival = [](TerminationId) {};
    std::function<void(TerminationId)> onDeparture = [](TerminationId) {};

    std::vector<int> told() const {
        std::lock_guard<std::mutex> const lock(mutex_);
        return told_;
    }
    /** Arrivals are positive, departures negative. */
    bool waitFor(std::vector<int> const& expected) const {
        return eventually([&] { return told() == expected; });
    }

private:
    void arrived(TerminationId id) override {
        note(static_cast<int>(id.value()));
        onArrival(id);
    }
    void departed(TerminationId id) override {
        note(-static_cast<int>(id.value()));
        onDeparture(id);
    }
    void note(int what) {
        std::lock_guard<std::mutex> const lock(mutex_);
        told_.push_back(what);
    }

    mutable std::mutex mutex_;
    std::vector<int> told_;  // guarded by mutex_
};

/** Holds up arrivals at a listener. */
struct BlockedInside {
    explicit BlockedInside(Listener& listener) {
        listener.onArrival = [this](TerminationId) {
            inside.open();
            release.wait();
        };
    }
    Gate inside;
    Gate release;
};

/** Whether the table has no threads in this process. */
bool noLanes() {
    return (testsupport::statesOfThreads("TrArrivals") +
            testsupport::statesOfThreads("TrDepartures"))
        .empty();
}

class PresenceTableTest : public testing::Test {
protected:
    void come(unsigned id, Visibility visibility = Visibility::Member) {
        table_.admit(TerminationId(id), {"file", 1, visibility});
    }
    void go(unsigned id) {
        PresenceTable::Departures gone;
        table_.drop(TerminationId(id), gone);
        table_.tell(gone);
    }

    // Never freed: a detached thread may look at it for a moment after the last detach.
    PresenceTable& table_ = *keptTables().emplace_back(new PresenceTable);

private:
    static std::vector<PresenceTable*>& keptTables() {
        static auto& tables = *new std::vector<PresenceTable*>;
        return tables;
    }
};

TEST_F(PresenceTableTest, silentOnesAreThereAndOnlyTheirDepartureIsTold) {
    Listener early;
    table_.attach(early);
    come(1, Visibility::Silent);
    Listener late;
    table_.attach(late);
    come(2);
    EXPECT_TRUE(table_.exists(TerminationId(1)));
    EXPECT_EQ(table_.members(), std::vector{TerminationId(2)});
    EXPECT_TRUE(early.waitFor({2}) && late.waitFor({2}));
    go(1);
    EXPECT_TRUE(early.waitFor({2, -1}) && late.waitFor({2, -1}));
    for (Listener* listener : {&early, &late})
        table_.detach(*listener);
}

TEST_F(PresenceTableTest, aProcessHasNoMoreThanItCouldHave) {
    testsupport::LogCapture const log;
    unsigned const most = PresenceTable::kMostOfProcess;
    for (unsigned id = 1; id <= most + 10; ++id)
        come(id);
    EXPECT_TRUE(table_.exists(TerminationId(most)));
    EXPECT_EQ(table_.ids().size(), most);
    EXPECT_TRUE(log.contains("process 1 has more than 131072 terminations"));
    EXPECT_TRUE(table_.admit(TerminationId(most + 1), {"file", 2})) << "of another process";
    for (unsigned const id : {7u, 7u, most + 1})
        go(id);
    come(most + 2);
    come(most + 3);
    EXPECT_TRUE(table_.exists(TerminationId(most + 2))) << "in the place of one that has gone";
    EXPECT_FALSE(table_.exists(TerminationId(most + 3))) << "there was one such place";
}

TEST_F(PresenceTableTest, departureDoesNotWaitBehindSlowArrivalAndDropsThoseNotBegun) {
    Listener listener;
    BlockedInside blocked(listener);
    table_.attach(listener);
    come(1);
    ASSERT_TRUE(blocked.inside.wait());
    come(2);
    come(3);
    go(2);
    go(1);
    EXPECT_TRUE(listener.waitFor({1, -2, -1})) << "arrival of 1 has begun, that of 2 never will";
    blocked.release.open();
    EXPECT_TRUE(listener.waitFor({1, -2, -1, 3}));
    table_.detach(listener);
}

TEST_F(PresenceTableTest, arrivalBeginsBeforeItsDeparture) {
    Listener listener;
    table_.attach(listener);
    for (unsigned id = 1; id <= 2000; ++id) {
        come(id);
        if (id % 2 == 0)
            std::this_thread::yield();
        go(id);
    }
    EXPECT_TRUE(eventually([&] {
        auto const told = listener.told();
        return std::count_if(told.begin(), told.end(), [](int id) { return id < 0; }) == 2000;
    }));
    std::vector<bool> gone(2001);
    for (int const what : listener.told()) {
        if (what < 0)
            gone[static_cast<std::size_t>(-what)] = true;
        else
            EXPECT_FALSE(gone[static_cast<std::size_t>(what)]) << what;
    }
    table_.detach(listener);
}

TEST_F(PresenceTableTest, successorUnderTheSameIdArrivesWhenTheDepartureHasBeenTold) {
    Listener listener;
    Gate inside;
    Gate release;
    listener.onDeparture = [&](TerminationId) {
        inside.open();
        release.wait();
    };
    table_.attach(listener);
    come(1);
    ASSERT_TRUE(listener.waitFor({1}));
    PresenceTable::Departures gone;
    table_.drop(TerminationId(1), gone);
    EXPECT_TRUE(table_.isLeaving(TerminationId(1)));
    come(1);
    EXPECT_FALSE(table_.exists(TerminationId(1))) << "nobody could tell them apart";
    table_.tell(gone);
    inside.wait();
    come(1);
    EXPECT_TRUE(table_.exists(TerminationId(1)));
    come(2);
    EXPECT_TRUE(listener.waitFor({1, -1, 2})) << "has nothing to wait for";
    release.open();
    EXPECT_TRUE(listener.waitFor({1, -1, 2, 1}));
    table_.detach(listener);
}

TEST_F(PresenceTableTest, detachWaitsForTheRunningCallAndNoneFollows) {
    Listener listener;
    BlockedInside blocked(listener);
    table_.attach(listener);
    come(1);
    come(2);
    ASSERT_TRUE(blocked.inside.wait());
    Gate detached;
    std::thread other([&] {
        pthread_setname_np(pthread_self(), "detaches");
        table_.detach(listener);
        detached.open();
    });
    EXPECT_SOON(testsupport::statesOfThreads("detaches") == "S");
    EXPECT_FALSE(detached.wait(std::chrono::milliseconds(0)));
    blocked.release.open();
    EXPECT_TRUE(detached.wait());
    other.join();
    come(3);
    go(1);
    EXPECT_EQ(listener.told(), std::vector<int>{1});
    EXPECT_SOON(noLanes()) << "threads end with the last one";
}

TEST_F(PresenceTableTest, listenerDetachesItselfInsideACallAndAnotherOneGoesOn) {
    Listener leaving;
    Listener staying;
    leaving.onArrival = [&](TerminationId) { table_.detach(leaving); };
    table_.attach(leaving);
    come(1);
    EXPECT_TRUE(leaving.waitFor({1}));
    table_.attach(staying);
    come(2);
    EXPECT_TRUE(staying.waitFor({1, 2}));
    EXPECT_EQ(leaving.told(), std::vector<int>{1});
    table_.detach(staying);
}

TEST_F(PresenceTableTest, bothCallsOfAListenerMayDetachItAtTheSameTime) {
    Listener listener;
    Gate arrivalInside;
    Gate departureInside;
    listener.onArrival = [&](TerminationId id) {
        if (id.value() == 1)
            return;
        arrivalInside.open();
        departureInside.wait();
        table_.detach(listener);
    };
    listener.onDeparture = [&](TerminationId) {
        departureInside.open();
        arrivalInside.wait();
        table_.detach(listener);
    };
    table_.attach(listener);
    come(1);
    ASSERT_TRUE(listener.waitFor({1}));
    come(2);
    go(1);
    EXPECT_SOON(noLanes());
    table_.detach(listener);
}

}  // namespace
