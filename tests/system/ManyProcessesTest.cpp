// Several processes that call each other in all directions at once.
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
    /** All hold handles on all, which they find once they have noticed those that came up last. */
    void keepAll() {
        for (auto& actor : actors_)
            for (std::string const& name : names_)
                EXPECT_SOON(actor->does("keep " + name));
    }
    /** All call all, themselves included, in several threads each. */
    void expectThatAllCallAll(unsigned int threads) {
        std::string const count = std::to_string(scaled(300));
        keepAll();
        for (auto& actor : actors_)
            for (std::string const& name : names_)
                for (unsigned int i = 0; i < threads; ++i)
                    actor->tell("useoften " + name + " " + count);
        for (auto& actor : actors_)
            for (std::size_t i = 0; i < names_.size() * threads; ++i)
                EXPECT_EQ(actor->await("failed"), "0");
    }
    void finish() {
        for (auto& actor : actors_)
            actor->finish();
    }

    std::vector<std::unique_ptr<StationActor>> actors_;
    std::vector<std::string> names_;
};

/** Where there is a build of another word size, beside programs of that. */
TEST_F(ManyProcessesTest, allCallAllAtOnce) {
#ifdef STATION_PEER_BUILD
    Command const other = testsupport::peerProgramCommand("station_actor");
    ASSERT_FALSE(other.empty()) << "the build in REFLECTORB_PEER_DIR has no station_actor";
#else
    Command const other = testsupport::programCommand("station_actor");
#endif
    start();
    start(other);
    keepAll();
    // One after the other: behind a body beyond what may wait of its process no call of that is
    // taken.
    for (std::size_t const sender : {0u, 1u}) {
        std::string const flip = sender == 0 ? "flip station2 " : "flip station1 ";
        for (unsigned int const size : {0u, 1u, 87u, 88u, 89u, 4096u, 16384u, 65537u, 12u << 20})
            EXPECT_TRUE(actors_[sender]->does(flip + std::to_string(size))) << size;
        EXPECT_FALSE(actors_[sender]->does(flip + std::to_string(16u << 20))) << "no message";
    }
    expectThatAllCallAll(12);
    start();
    start(other);
    start();
    expectThatAllCallAll(2);
    finish();
}

TEST_F(ManyProcessesTest, stoppedProcessDelaysItsOwnCallersOnly) {
    for (int i = 0; i < 4; ++i)
        start();
    StationActor& stopped = *actors_[0];
    keepAll();
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
    EXPECT_SOON(stopped.number("total station1", "total") == 2000);
    finish();
}

}  // namespace
