// Memory that runs out, at every single allocation of a call, a search, a notice and of two who
// meet for the first time. What is asked for just then may fail; nobody ends, hangs or loses
// anything for good.
#include <algorithm>

#include "Slowness.h"
#include "StationActor.h"

namespace {

/** Beyond what any of the scenarios allocates. */
constexpr unsigned long kMost = 5000;

class StarvedTest : public testing::TestWithParam<unsigned long> {
protected:
    StarvedTest() {
        EXPECT_TRUE(server.does("serve server"));
        EXPECT_TRUE(client.does("call server 10"));
        EXPECT_TRUE(client.does("watch"));
    }

    /** Does it again and again while the nth allocation of `starved` fails, until it does not come
     * to that; then the processes must get on again. */
    template <class Act, class Judge>
    void withEveryAllocation(StationActor& starved, Act const& act, Judge const& judge) {
        for (unsigned long n = 1; n < kMost; ++n) {
            SCOPED_TRACE(n);
            bool const reached = fails(starved, n, [&] { act(n); });
            judge(n);
            if (HasFailure() || !reached)
                break;
        }
    }
    /** Does it while the nth allocation of `starved` fails; whether it came to that. */
    template <class Act>
    bool fails(StationActor& starved, unsigned long n, Act const& act) {
        starved.does("starve " + std::to_string(n) + " " + std::to_string(GetParam()));
        act();
        return starved.does("feed");
    }
    void finish() {
        client.finish();
        server.finish();
    }

    testsupport::RendezvousFolder const folder;
    StationActor server;
    StationActor client;
};

std::string howMany(testing::TestParamInfo<unsigned long> const& more) {
    return more.param == 0 ? "OneAllocation" : "FourAllocations";
}

INSTANTIATE_TEST_SUITE_P(Of, StarvedTest, ::testing::Values(0, 3), howMany);

TEST_P(StarvedTest, callsAndSearchesFailOrSucceed) {
    for (std::string const command :
         {"call server 10", "call server 3000", "call server 716800", "flip server 10"})
        for (StationActor* const starved : {&server, &client})
            withEveryAllocation(
                *starved, [&](unsigned long) { client.does(command); },
                [&](unsigned long) { EXPECT_TRUE(client.does(command)) << command; });
    finish();
}

TEST_P(StarvedTest, noticesAreMissedOrTold) {
    for (StationActor* const starved : {&server, &client})
        withEveryAllocation(
            *starved, [&](unsigned long n) { server.does("make hungry" + std::to_string(n)); },
            [&](unsigned long n) {
                std::string const name =
                    (starved == &server ? "fed.s" : "fed.c") + std::to_string(n);
                EXPECT_TRUE(server.does("make " + name));
                EXPECT_TRUE(client.does("await " + name));
                EXPECT_TRUE(server.does("unmake " + name));
            });
    finish();
}

/** So many processes are started at the same time: they take their time to come up. */
constexpr unsigned long kAtOnce = 8;

class StarvedMeetingTest : public StarvedTest {
protected:
    enum class Starved { server, stranger };

    /** Has each stranger meet the server once while the next allocation of one of them fails. */
    void meet(Starved who) {
        bool more = true;
        for (unsigned long n = 1; more && n < kMost && !HasFailure();) {
            std::vector<std::unique_ptr<StationActor>> strangers;
            for (unsigned long i = 0; i < kAtOnce; ++i) {
                strangers.push_back(std::make_unique<StationActor>());
                strangers.back()->tell("serve own" + std::to_string(i));
            }
            for (auto const& stranger : strangers)
                EXPECT_EQ(stranger->await("done"), "1");
            for (auto const& stranger : strangers) {
                SCOPED_TRACE(n);
                StationActor& starved = who == Starved::server ? server : *stranger;
                more = more && fails(starved, n++, [&] { stranger->does("call server 10"); });
                EXPECT_TRUE(stranger->does("call server 10"));
            }
        }
        finish();
    }
};

INSTANTIATE_TEST_SUITE_P(Of, StarvedMeetingTest, ::testing::Values(0, 3), howMany);

TEST_P(StarvedMeetingTest, strangersFailOrMeetAStarvedServer) {
    meet(Starved::server);
}

TEST_P(StarvedMeetingTest, starvedStrangersFailOrMeetAServer) {
    meet(Starved::stranger);
}

/** Between two of the starts. */
constexpr unsigned long kStep = testsupport::kSlow ? 64 : 16;

TEST(StarvedStartTest, aProcessStartsOnceThereIsMemory) {
    testsupport::RendezvousFolder const folder;
    bool more = true;
    for (unsigned long n = 1; more && n < kMost && !testing::Test::HasFailure();
         n += testsupport::kSlow ? 5 : 1) {
        SCOPED_TRACE(n);
        StationActor actor;
        actor.does("starve " + std::to_string(n) + " 0");
        actor.does("serve own");
        more = actor.does("feed");
        EXPECT_TRUE(actor.does("serve now"));
        actor.finish();
    }
}

/** All begin at once, and look for each other at once. */
TEST(StarvedStartTest, allFindEachOtherOnceThereIsMemory) {
    bool more = true;
    for (unsigned long n = 1; more && n < kMost && !testing::Test::HasFailure(); n += kStep) {
        SCOPED_TRACE(n);
        testsupport::RendezvousFolder const folder;
        std::vector<std::unique_ptr<StationActor>> actors;
        for (unsigned long i = 0; i < kAtOnce; ++i)
            actors.push_back(std::make_unique<StationActor>());
        auto const all = [&actors](std::string const& command) {
            unsigned long number = 0;
            for (auto const& actor : actors)
                actor->tell(command + std::to_string(number++ % kAtOnce) + " 10");
            unsigned long successes = 0;
            for (auto const& actor : actors)
                successes += actor->await("done") == "1";
            return successes;
        };
        auto const next = [&] { std::rotate(actors.begin(), actors.begin() + 1, actors.end()); };
        for (unsigned long i = 0; i < kAtOnce; ++i)
            actors[i]->does("starve " + std::to_string(n + i) + " 0");
        all("serve own");
        next();
        all("call own");
        more = false;
        for (auto const& actor : actors)
            more |= actor->does("feed");
        // What was made without a broker, or without a name, belongs to none.
        next();
        EXPECT_EQ(all("serve now"), kAtOnce);
        next();
        // Those that have come meanwhile are noticed in moments.
        EXPECT_SOON(all("flip now") == kAtOnce);
        for (auto const& actor : actors)
            actor->finish();
    }
}

}  // namespace
