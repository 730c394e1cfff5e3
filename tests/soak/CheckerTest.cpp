// The judge of the soak, before journals written by hand. Actor 1 publishes, actor 2 observes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Checker.h"

namespace {

using soak::Checker;
using soak::Life;

constexpr Life kPublisher{1, 1};
constexpr Life kSubscriber{2, 1};

class CheckerTest : public ::testing::Test {
protected:
    CheckerTest() {
        for (Life const life : {kPublisher, kSubscriber}) {
            checker_.started(life, 1);
            write(life, "2 start term" + life.text() + " broker" + life.text());
            write(life, "3 up");
        }
    }
    /** The subscriber's broker has caught up with the publisher's from the beginning. */
    void meet() { write(kSubscriber, "4 met term1.1"); }
    void write(Life life, std::string const& line) { checker_.take(life, soak::parsed(line)); }
    void publisher(std::vector<std::string> const& lines) {
        for (std::string const& line : lines)
            write(kPublisher, line);
    }
    void subscriber(std::vector<std::string> const& lines) {
        for (std::string const& line : lines)
            write(kSubscriber, line);
    }
    /** What is broken once all is judged; empty if nothing is. */
    std::string verdict() {
        checker_.fence(1'000'000'000);
        return faults();
    }
    std::string faults() const {
        std::string all;
        for (soak::Fault const& fault : checker_.faults())
            all += (all.empty() ? "" : "; ") + fault.invariant;
        return all;
    }

    Checker checker_{soak::Limits()};
};

constexpr char kOnce[] = "every event is told exactly once per registration";
constexpr char kAtLeastOnce[] = "existing objects are told at least once";
constexpr char kHang[] = "no call hangs longer than its rule allows";

/** A creation at 30 and a deletion at 50, with observers of both that stay. */
struct Telling {
    char const* name;
    unsigned int classIndex;
    unsigned int creations;
    unsigned int deletions;
    char const* verdict;
};
std::string nameOfCase(::testing::TestParamInfo<Telling> const& telling) {
    return telling.param.name;
}
void PrintTo(Telling const& telling, std::ostream* out) {
    *out << telling.name;
}
class TellingTest : public CheckerTest, public ::testing::WithParamInterface<Telling> {};

TEST_P(TellingTest, isCounted) {
    Telling const& telling = GetParam();
    std::string const index = std::to_string(telling.classIndex);
    meet();
    subscriber({"10 observe r1 " + index + " creations 0", "11 observing r1",
                "12 observe r2 " + index + " deletions 0", "13 observing r2"});
    publisher({"30 create o.1.1.0.1 " + index});
    for (unsigned int i = 0; i < telling.creations; ++i)
        subscriber({"35 told r1 o.1.1.0.1"});
    publisher({"40 created o.1.1.0.1", "50 delete o.1.1.0.1"});
    for (unsigned int i = 0; i < telling.deletions; ++i)
        subscriber({"55 told r2 o.1.1.0.1"});
    publisher({"60 deleted o.1.1.0.1"});
    EXPECT_EQ(verdict(), telling.verdict);
}

// Of the first class no deletions are promised, of the second no creations.
INSTANTIATE_TEST_SUITE_P(Checker, TellingTest,
                         ::testing::Values(Telling{"allOnce", 2, 1, 1, ""},
                                           Telling{"creationMissed", 2, 0, 1, kOnce},
                                           Telling{"creationTwice", 2, 2, 1, kOnce},
                                           Telling{"deletionMissed", 2, 1, 0, kOnce},
                                           Telling{"deletionTwice", 2, 1, 2, kOnce},
                                           Telling{"cancelledDeletion", 0, 1, 0, ""},
                                           Telling{"cancelledDeletionTwice", 0, 1, 2, kOnce},
                                           Telling{"uncancelledCreation", 0, 0, 1, kOnce},
                                           Telling{"cancelledCreation", 1, 0, 1, ""},
                                           Telling{"uncancelledDeletion", 1, 1, 0, kOnce}),
                         nameOfCase);

TEST_F(CheckerTest, creationThatOverlapsARegistrationIsToldAtLeastOnceIfThatWasWanted) {
    meet();
    subscriber({"20 observe r1 2 creations 1", "20 observe r2 2 creations 0"});
    publisher({"30 create o.1.1.0.1 2"});
    subscriber({"31 told r1 o.1.1.0.1", "32 told r1 o.1.1.0.1"});
    publisher({"40 created o.1.1.0.1"});
    subscriber({"45 observing r1", "45 observing r2"});
    publisher({"60 delete o.1.1.0.1", "70 deleted o.1.1.0.1"});
    EXPECT_EQ(verdict(), "");
    subscriber({"120 observe r3 2 creations 1"});
    publisher({"130 create o.1.1.0.2 2", "140 created o.1.1.0.2"});
    subscriber({"141 told r1 o.1.1.0.2", "141 told r2 o.1.1.0.2", "145 observing r3"});
    publisher({"160 delete o.1.1.0.2", "170 deleted o.1.1.0.2"});
    EXPECT_EQ(verdict(), kAtLeastOnce);
}

TEST_F(CheckerTest, creationBeforeTheBrokersHaveMetIsToldAtLeastOnce) {
    subscriber({"10 observe r1 2 creations 1", "11 observing r1"});
    publisher({"30 create o.1.1.0.1 2"});
    subscriber({"31 told r1 o.1.1.0.1", "32 told r1 o.1.1.0.1"});
    publisher({"40 created o.1.1.0.1", "42 create o.1.1.0.2 2", "43 created o.1.1.0.2"});
    subscriber({"45 met term1.1"});
    publisher({"50 delete o.1.1.0.1", "51 deleted o.1.1.0.1"});
    EXPECT_EQ(verdict(), "");
    publisher({"60 delete o.1.1.0.2", "61 deleted o.1.1.0.2"});
    EXPECT_EQ(verdict(), kAtLeastOnce);
}

TEST_F(CheckerTest, nothingIsAskedOfThoseWhoLeaveOrDieMeanwhile) {
    meet();
    subscriber({"10 observe r1 2 creations 1", "11 observing r1", "12 observe r2 2 creations 1",
                "13 observing r2"});
    publisher({"30 create o.1.1.0.1 2"});
    subscriber({"35 unobserve r1", "36 unobserved r1"});
    checker_.killed(kSubscriber, 37);
    publisher({"40 created o.1.1.0.1", "50 delete o.1.1.0.1", "60 deleted o.1.1.0.1"});
    EXPECT_EQ(verdict(), "");
}

TEST_F(CheckerTest, creationWhosePublisherDiesMeanwhileIsToldOrNot) {
    meet();
    subscriber({"10 observe r1 2 creations 1", "11 observing r1"});
    publisher({"30 create o.1.1.0.1 2"});
    checker_.killed(kPublisher, 35);
    EXPECT_EQ(verdict(), "");
}

TEST_F(CheckerTest, strangeNoticesAreFaults) {
    meet();
    subscriber({"10 observe r1 2 creations 0", "11 observing r1", "12 told r1 o.1.1.0.9"});
    EXPECT_EQ(faults(), "no observer is told of what is not there");
    publisher({"20 create o.1.1.0.1 1"});
    subscriber({"21 told r1 o.1.1.0.1"});
    EXPECT_EQ(checker_.faults().back().invariant,
              "no observer is told of an object of another class");
    publisher({"30 create o.1.1.0.2 2"});
    subscriber({"31 unobserve r1", "32 told r1 o.1.1.0.2"});
    EXPECT_EQ(checker_.faults().size(), 2u);
    subscriber({"33 unobserved r1", "34 told r1 o.1.1.0.2"});
    EXPECT_EQ(checker_.faults().back().invariant, "no observer is told after its removal");
}

TEST_F(CheckerTest, callsAreJudgedByTheirTargetsLife) {
    publisher({"1000000 create o.1.1.0.1 2", "1000001 created o.1.1.0.1"});
    std::string const object = "9000000 call 8999000 o.1.1.0.1 ";
    subscriber({object + "ok getName", object + "vetoed getName"});
    subscriber({"9000000 call 8999000 o.9.1.0.1 failed getName"});
    subscriber({"9000000 call 8999000 home.1+home.7 failed relay"});
    EXPECT_EQ(faults(), "");
    subscriber({object + "wrong:o.1.1.0.2 getName"});
    EXPECT_EQ(faults(), "no handle answers for the wrong object");
    for (std::string const target : {"o.1.1.0.1", "home.1", "home.1+home.2"}) {
        subscriber({"9000000 call 8999000 " + target + " failed getName"});
        EXPECT_EQ(checker_.faults().back().invariant, "no call of an object that is there fails");
    }
    EXPECT_EQ(checker_.faults().size(), 4u);
}

TEST_F(CheckerTest, callsAndActionsAreJudgedByTheirDuration) {
    subscriber({"10999999 call 1000000 home.1 ok getName", "10999999 did 1000000 make"});
    EXPECT_EQ(faults(), "");
    subscriber({"11000001 call 1000000 home.1 ok getName"});
    EXPECT_EQ(faults(), kHang);
    subscriber({"11000001 did 1000000 make"});
    EXPECT_EQ(checker_.faults().size(), 2u);
    checker_.killed(kPublisher, 20'000'000);
    subscriber({"21900000 call 19000000 home.1 failed getName"});
    EXPECT_EQ(checker_.faults().size(), 2u);
    subscriber({"22100000 call 19000000 home.1 failed getName"});
    EXPECT_EQ(checker_.faults().size(), 3u);
    EXPECT_EQ(checker_.faults().back().invariant, kHang);
    EXPECT_EQ(checker_.tally().callsAcrossKill, 2u);
}

TEST_F(CheckerTest, oneWayCallsBetweenTheLivingAreCounted) {
    subscriber({"10 sent broker1.1 7", "10 sent broker9.9 3"});
    EXPECT_EQ(checker_.unbalanced().size(), 1u);
    publisher({"11 received 2.1 6"});
    EXPECT_EQ(checker_.unbalanced().size(), 1u);
    publisher({"12 received 2.1 7"});
    EXPECT_TRUE(checker_.unbalanced().empty());
    publisher({"13 received 2.1 8"});
    EXPECT_EQ(checker_.unbalanced().size(), 1u);
    checker_.killed(kPublisher, 14);
    EXPECT_TRUE(checker_.unbalanced().empty());
}

TEST_F(CheckerTest, whatAnActorSeesItselfIsAFault) {
    subscriber({"10 fault home.1 refused an even level"});
    ASSERT_EQ(checker_.faults().size(), 1u);
    EXPECT_EQ(checker_.faults()[0].text, "actor 2.1: home.1 refused an even level");
}

}  // namespace
