// Processes that see each other come, stop and die, through a rendezvous folder.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#include "PresenceActor.h"
#include "RendezvousFolder.h"
#include "Slowness.h"

namespace {

using testsupport::eventually;
using testsupport::kSlow;
using Actors = std::vector<std::unique_ptr<PresenceActor>>;

class PresenceTest : public testing::Test {
protected:
    /** Actors with a termination each, in the order of their process ids, all knowing all. */
    void startActors(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            actors_.push_back(std::make_unique<PresenceActor>());
        std::sort(actors_.begin(), actors_.end(),
                  [](auto& a, auto& b) { return a->child().pid() < b->child().pid(); });
        for (auto& actor : actors_)
            ids_.push_back(actor->start());
        for (auto& actor : actors_)
            ASSERT_TRUE(eventually([&] { return actor->known() == count; }));
    }

    /** Kills some actors and expects all those not `deaf` to be told. */
    void killAndExpectAllToBeTold(std::vector<std::size_t> const& victims,
                                  std::vector<std::size_t> const& deaf = {}) {
        for (std::size_t const victim : victims)
            actors_[victim]->child().kill();
        auto const isIn = [](auto const& list, std::size_t i) {
            return std::find(list.begin(), list.end(), i) != list.end();
        };
        for (std::size_t i = 0; i < actors_.size(); ++i) {
            if (isIn(victims, i) || isIn(deaf, i))
                continue;
            for (std::size_t const victim : victims)
                EXPECT_TRUE(actors_[i]->waitUntilTold("departed", ids_[victim]));
        }
    }

    std::string fileOf(std::string const& id) const {
        for (auto const& entry : std::filesystem::directory_iterator(folder_.path()))
            if (entry.path().filename().string().rfind(id, 0) == 0)
                return entry.path().string();
        return {};
    }

    testsupport::RendezvousFolder folder_;
    Actors actors_;
    std::vector<std::string> ids_;
};

TEST_F(PresenceTest, arrivalsAndOrderlyDeparturesAreToldToAllGroups) {
    PresenceActor first(PresenceActor::Environment{{"TRANSPORT_SLOT", "1"}});
    PresenceActor second(PresenceActor::Environment{{"TRANSPORT_SLOT", "2"}});
    std::string const a = first.start(1);
    std::string const b = second.start(2);
    std::string const c = second.start(3);
    for (std::string const& id : {a, b, c}) {
        EXPECT_TRUE(first.waitUntilTold("arrived", id));
        EXPECT_TRUE(second.waitUntilTold("arrived", id));
    }
    EXPECT_EQ(a.substr(0, 4) + b.substr(0, 4) + c.substr(0, 4), "010102020302");
    EXPECT_NE(fileOf(c).find("group3.slot2.pid"), std::string::npos) << fileOf(c);
    second.stop(b);
    EXPECT_TRUE(first.waitUntilTold("departed", b));
    EXPECT_TRUE(second.waitUntilTold("departed", b));
    EXPECT_EQ(first.timesTold("arrived", a), 1u);
    EXPECT_EQ(second.timesTold("arrived", c), 2u) << "once for each of its terminations";
    EXPECT_EQ(fileOf(b), "");
    EXPECT_TRUE(eventually([&] { return first.known() == 2 && second.known() == 2; }));
}

TEST_F(PresenceTest, stoppedNeighboursHideNobodysDeath) {
    startActors(6);
    for (std::size_t const stopped : {2u, 3u})
        EXPECT_TRUE(actors_[stopped]->child().stopWholly());
    killAndExpectAllToBeTold({4}, {2, 3});
    for (std::size_t const stopped : {2u, 3u}) {
        actors_[stopped]->child().signal(SIGCONT);
        EXPECT_TRUE(actors_[stopped]->waitUntilTold("departed", ids_[4]));
    }
}

TEST_F(PresenceTest, withoutProcessHandlesDeathsAreSeenByLookingFromTimeToTime) {
    for (int i = 0; i < 3; ++i) {
        actors_.push_back(std::make_unique<PresenceActor>());
        if (actors_.back()->ask("withoutHandles", "without") != "yes")
            GTEST_SKIP() << "the kernel or the emulator cannot filter system calls";
        ids_.push_back(actors_.back()->start());
    }
    for (auto& actor : actors_)
        ASSERT_TRUE(eventually([&] { return actor->known() == 3; }));
    killAndExpectAllToBeTold({1});
}

TEST_F(PresenceTest, processThatBecomesAnotherProgramIsSeenOnceAChannelHasEnded) {
    startActors(4);
    actors_[1]->child().writeLine("exec");
    std::string const name = "/proc/" + std::to_string(actors_[1]->child().pid()) + "/comm";
    ASSERT_TRUE(eventually([&] {
        std::string comm;
        std::getline(std::ifstream(name), comm);
        return comm == "sleep";
    }));
    actors_[0]->ask("suspect " + ids_[2], "suspected");  // is well
    actors_[0]->ask("suspect " + ids_[1], "suspected");
    for (std::size_t const i : {0u, 2u, 3u})
        EXPECT_TRUE(actors_[i]->waitUntilTold("departed", ids_[1]));
    EXPECT_EQ(actors_[0]->known(), 3u);
    EXPECT_EQ(fileOf(ids_[1]), "");
}

TEST_F(PresenceTest, deathsAtTheSameTimeAreAllSeenAlsoOfAWholeNeighbourhood) {
    startActors(10);
    killAndExpectAllToBeTold({2, 3, 4, 5, 6, 7});
}

TEST_F(PresenceTest, whatACrashHasLeftIsRemovedAndNeverTold) {
    startActors(2);
    for (auto& actor : actors_)
        EXPECT_TRUE(actor->child().stopWholly());  // so that neither cleans up behind the other
    for (auto& actor : actors_)
        actor->child().kill();
    for (auto& actor : actors_)
        ASSERT_EQ(actor->child().exitCode(), -SIGKILL);
    std::string const visible = fileOf(ids_[0]);
    std::string const hidden = folder_.path() + "/.new-030112ab.group3.slot1.pid1.x";
    ASSERT_NE(visible, "");
    std::filesystem::rename(fileOf(ids_[1]), hidden);
    PresenceActor fresh;
    std::string const id = fresh.start();
    EXPECT_EQ(fresh.known(), 1u);
    EXPECT_FALSE(std::filesystem::exists(visible));
    EXPECT_FALSE(std::filesystem::exists(hidden));
    EXPECT_NE(id, ids_[0]);
    EXPECT_NE(id, ids_[1]);
    EXPECT_EQ(fresh.timesTold("arrived", ids_[0]), 0u);
}

TEST_F(PresenceTest, foreignFilesInTheFolderAreLeftAlone) {
    for (char const* name : {"/note.txt", "/03010001.plain", "/zzzzzzzz.x"})
        std::ofstream(folder_.path() + name) << "x";
    std::filesystem::create_directory(folder_.path() + "/03010002.folder");
    startActors(2);
    for (char const* name : {"/note.txt", "/03010001.plain", "/zzzzzzzz.x"})
        EXPECT_TRUE(std::filesystem::exists(folder_.path() + name)) << name;
}

TEST_F(PresenceTest, damageToTheSharedFileStopsNobody) {
    startActors(3);
    std::string const shared = folder_.path() + "/presence";
    for (std::size_t const size : {0u, 3u}) {
        ASSERT_EQ(truncate(shared.c_str(), static_cast<off_t>(size)), 0);
        actors_.push_back(std::make_unique<PresenceActor>());
        ids_.push_back(actors_.back()->start());
        for (auto& actor : actors_)
            ASSERT_TRUE(eventually([&] { return actor->known() == actors_.size(); })) << size;
    }
    std::ofstream(shared, std::ios::in | std::ios::binary) << std::string(8, '\xFF');
    killAndExpectAllToBeTold({1});
    PresenceActor another;
    EXPECT_NE(another.start(), "00000000");
    EXPECT_TRUE(eventually([&] { return another.known() == actors_.size(); }));
}

TEST_F(PresenceTest, ownEntryThatSomebodyRemovesIsReported) {
    startActors(2);
    std::filesystem::remove(fileOf(ids_[0]));
    PresenceActor another;
    another.start();
    EXPECT_TRUE(actors_[0]->child().waitForErrorLine("Somebody has removed"));
    EXPECT_TRUE(actors_[1]->waitUntilTold("departed", ids_[0]));
}

TEST_F(PresenceTest, nameIdsAreNotGivenAgainSoon) {
    startActors(2);
    std::vector<std::string> ids = ids_;
    for (int i = 0; i < 100; ++i) {
        PresenceActor& actor = *actors_[static_cast<std::size_t>(i) % 2];
        ids.push_back(actor.start());
        actor.stop(ids.back());
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end());
}

TEST_F(PresenceTest, forkedChildDoesNothingAndItsEndHarmsNobody) {
    startActors(2);
    EXPECT_EQ(actors_[0]->ask("fork", "forked"), "0");
    PresenceActor another;  // its start has everybody scan and a neighbour check the locks
    another.start();
    EXPECT_TRUE(eventually([&] { return another.known() == 3; }));
    EXPECT_EQ(actors_[1]->timesTold("departed", ids_[0]), 0u);
}

TEST_F(PresenceTest, programThatForksBeforeItsFirstTerminationIsLikeAnyOther) {
    startActors(1);
    PresenceActor daemon;
    EXPECT_EQ(daemon.ask("identity", "identity"), "1 1 presence_actor");
    daemon.ask("daemonize", "daemonized");
    std::string const id = daemon.start();
    EXPECT_TRUE(actors_[0]->waitUntilTold("arrived", id));
    EXPECT_EQ(daemon.known(), 2u);
    daemon.child().writeLine("quit");
    EXPECT_TRUE(actors_[0]->waitUntilTold("departed", id));
}

TEST_F(PresenceTest, descriptorsAreNotPassedOnToPrograms) {
    PresenceActor before;
    std::string const without = before.ask("inheritable", "inheritable");
    before.start();
    PresenceActor other;
    other.start();
    ASSERT_TRUE(eventually([&] { return before.known() == 2; }));
    EXPECT_EQ(before.ask("inheritable", "inheritable"), without);
}

TEST_F(PresenceTest, manyTerminationsComingAndGoingAtOnceAreAllSeenByAll) {
    std::size_t const processes = kSlow ? 5 : 20;
    std::size_t const each = kSlow ? 4 : 10;
    for (std::size_t i = 0; i < processes; ++i)
        actors_.push_back(std::make_unique<PresenceActor>());
    for (auto& actor : actors_)
        actor->child().writeLine("churn " + std::to_string(each) + " 10");
    for (auto& actor : actors_)
        ASSERT_TRUE(actor->child().waitForLine("churned", std::chrono::seconds(60)));
    auto const allAgree = [&](std::size_t count) {
        std::string const expected = actors_[0]->view();
        return std::stoul(expected) == count && expected.find(" agree 0") != expected.npos &&
               std::all_of(actors_.begin(), actors_.end(),
                           [&](auto& actor) { return actor->view() == expected; });
    };
    EXPECT_TRUE(eventually([&] { return allAgree(processes * each); })) << actors_[0]->view();
    for (std::size_t i = 1; i < actors_.size(); i += 2)
        actors_[i]->child().kill();
    for (std::size_t i = actors_.size(); i-- > 0;)
        if (i % 2 == 1)
            actors_.erase(actors_.begin() + static_cast<std::ptrdiff_t>(i));
    EXPECT_TRUE(eventually([&] { return allAgree(actors_.size() * each); })) << actors_[0]->view();
}

}  // namespace
