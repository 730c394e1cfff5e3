// Several processes that call each other in all directions at once.
#include <memory>

#include "Slowness.h"
#include "StationActor.h"

namespace {

using testsupport::scaled;

class ManyProcessesTest : public StationTest {
protected:
    using Command = std::vector<std::string>;

    void start(Command const& command = testsupport::programCommand("station_actor")) {
        actors_.push_back(std::make_unique<StationActor>(StationActor::Environment{}, command));
        names_.push_back("station" + std::to_string(actors_.size()));
        actors_.back()->publishStation(names_.back());
    }
    /** All call all, themselves included, while further stations come and go. */
    void storm(unsigned int rounds, unsigned int threads) {
        std::string names;
        for (std::string const& name : names_)
            names += " " + name;
        for (std::size_t i = 0; i < actors_.size(); ++i) {
            actors_[i]->tell("churn " + names_[i] + ".brief " + std::to_string(rounds));
            actors_[i]->tell("storm " + std::to_string(i) + " " + std::to_string(rounds) + " " +
                             std::to_string(threads) + names);
        }
        unsigned long added = 0;
        for (auto& actor : actors_) {
            std::istringstream words(actor->await("stormed"));
            unsigned long faults = 1;
            unsigned long sent = 0;
            words >> faults >> sent;
            EXPECT_EQ(faults, 0u);
            added += sent;
        }
        EXPECT_GT(added, 0u);
        expectTotal(added);
    }
    void finish() {
        for (auto& actor : actors_)
            actor->finish();
    }

    std::vector<std::unique_ptr<StationActor>> actors_;
    std::vector<std::string> names_;

private:
    /** One-way calls may still be on their way. */
    void expectTotal(unsigned long added) {
        auto const total = [&] {
            unsigned long sum = 0;
            for (std::size_t i = 0; i < actors_.size(); ++i)
                sum += actors_[i]->number("total " + names_[i], "total");
            return sum;
        };
        EXPECT_TRUE(testsupport::eventually([&] { return total() == added; }))
            << total() << " of " << added;
    }
};

TEST_F(ManyProcessesTest, allCallAllNestedAndOneWayWhileObjectsComeAndGo) {
    for (int i = 0; i < 5; ++i)
        start();
    storm(scaled(300), 3);
    finish();
}

TEST_F(ManyProcessesTest, twoProcessesCallEachOtherFromManyThreads) {
    for (int i = 0; i < 2; ++i)
        start();
    storm(scaled(150), 24);
    finish();
}

TEST_F(ManyProcessesTest, stoppedProcessDelaysItsOwnCallersOnly) {
    for (int i = 0; i < 4; ++i)
        start();
    StationActor& stopped = *actors_[0];
    for (std::size_t i = 1; i < actors_.size(); ++i)
        for (std::string const& name : names_)
            EXPECT_EQ(actors_[i]->ask("keep " + name, "kept"), "1");
    EXPECT_TRUE(stopped.child().stopWholly());
    // Two wait for the stopped one, among their other calls.
    for (std::size_t i : {1u, 2u}) {
        actors_[i]->tell("useoften station1 10");
        actors_[i]->await("calling");
    }
    for (std::size_t i : {1u, 2u, 3u})
        for (unsigned int round = 0; round < scaled(50); ++round)
            for (std::string const name : {"station2", "station3", "station4"})
                ASSERT_EQ(actors_[i]->ask("use " + name, "used"), "1");
    // Nor does it hold up those who await no answer.
    EXPECT_EQ(actors_[3]->ask("add station1 2000", "added"), "2000");
    for (std::size_t i : {1u, 2u})
        for (std::string const& line : actors_[i]->child().lines())
            EXPECT_NE(line.substr(0, 6), "failed");
    stopped.child().signal(SIGCONT);
    for (std::size_t i : {1u, 2u})
        EXPECT_EQ(actors_[i]->await("failed"), "0");
    EXPECT_TRUE(
        testsupport::eventually([&] { return stopped.number("total station1", "total") == 2000; }));
    finish();
}

#ifdef STATION_PEER_BUILD
/** Beside programs of the build of another word size. */
TEST_F(ManyProcessesTest, processesOfDifferentWordSizeUnderstandEachOther) {
    Command const other = testsupport::peerProgramCommand("station_actor");
    ASSERT_FALSE(other.empty()) << "the build in REFLECTORB_PEER_DIR has no station_actor";
    start();
    start(other);
    actors_[0]->tell("check station2");
    actors_[1]->tell("check station1");
    for (auto& actor : actors_)
        EXPECT_EQ(actor->await("checked"), "");
    start();
    start(other);
    storm(scaled(200), 4);
    finish();
}
#endif

TEST_F(ManyProcessesTest, everyTypeGoesThereAndBack) {
    start();
    start();
    EXPECT_EQ(actors_[0]->ask("check station2", "checked"), "");
    finish();
}

}  // namespace
