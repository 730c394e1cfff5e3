// The judge of the soak, before journals written by hand. Actor 1 publishes, actor 2 observes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Checker.h"

namespace {

using soak::Checker;
using soak::Life;
using Journal = std::vector<std::string>;

/** Has both actors up, and gives the checker lines with the actor's number in front. */
class Court {
public:
    Court() {
        write({"1 2 start term1.1 broker1.1", "2 2 start term2.1 broker2.1", "1 3 up", "2 3 up"});
    }

    void write(Journal const& lines) {
        for (std::string const& line : lines) {
            Life const life{static_cast<unsigned int>(line[0] - '0'), 1};
            soak::Event const event = soak::parsed(line.substr(2));
            if (event.verb == "killed")
                checker.killed(life, event.at);
            else
                checker.take(life, event);
        }
    }
    /** What is broken once all is judged; empty if nothing is. */
    std::string verdict() {
        checker.fence(1'000'000'000);
        std::string all;
        for (soak::Fault const& fault : checker.faults())
            all += (all.empty() ? "" : "; ") + fault.invariant;
        return all;
    }

    Checker checker{soak::Limits()};
};

constexpr char kOnce[] = "every event is told exactly once per registration";
constexpr char kAtLeastOnce[] = "existing objects are told at least once";
constexpr char kHang[] = "no call hangs longer than its rule allows";
constexpr char kFailed[] = "no call of an object that is there fails";

/** A creation at 30 and a deletion at 50, with observers of both that stay. */
TEST(Checker, countsWhatObserversThatStayAreTold) {
    // Of the first class no deletions are promised, of the second no creations.
    struct {
        char const* classIndex;
        unsigned int creations;
        unsigned int deletions;
        char const* verdict;
    } const cases[]{{"2", 1, 1, ""},    {"2", 0, 1, kOnce}, {"2", 2, 1, kOnce}, {"2", 1, 0, kOnce},
                    {"2", 1, 2, kOnce}, {"0", 1, 0, ""},    {"0", 1, 2, kOnce}, {"0", 0, 1, kOnce},
                    {"1", 0, 1, ""},    {"1", 1, 0, kOnce}};
    for (auto const& [classIndex, creations, deletions, verdict] : cases) {
        std::string const index = classIndex;
        Court court;
        court.write({"2 4 met term1.1", "2 10 observe r1 " + index + " creations 0",
                     "2 11 observing r1", "2 12 observe r2 " + index + " deletions 0",
                     "2 13 observing r2", "1 30 create o.1.1.0.1 " + index});
        court.write(Journal(creations, "2 35 told r1 o.1.1.0.1"));
        court.write({"1 40 created o.1.1.0.1", "1 50 delete o.1.1.0.1"});
        court.write(Journal(deletions, "2 55 told r2 o.1.1.0.1"));
        court.write({"1 60 deleted o.1.1.0.1"});
        EXPECT_EQ(court.verdict(), verdict) << index << " " << creations << " " << deletions;
    }
}

struct Case {
    char const* name;
    Journal journal;
    std::string verdict;
};

Case const kCases[]{
    {"a creation that overlaps a registration is told at least once if that was wanted",
     {"2 4 met term1.1", "2 20 observe r1 2 creations 1", "2 20 observe r2 2 creations 0",
      "1 30 create o.1.1.0.1 2", "2 31 told r1 o.1.1.0.1", "2 32 told r1 o.1.1.0.1",
      "1 40 created o.1.1.0.1", "2 45 observing r1", "2 45 observing r2", "1 60 delete o.1.1.0.1",
      "1 70 deleted o.1.1.0.1"},
     ""},
    {"and this one is not",
     {"2 4 met term1.1", "2 20 observe r1 2 creations 1", "1 30 create o.1.1.0.1 2",
      "1 40 created o.1.1.0.1", "2 45 observing r1", "1 60 delete o.1.1.0.1",
      "1 70 deleted o.1.1.0.1"},
     kAtLeastOnce},
    {"a creation before the brokers have met is told at least once",
     {"2 10 observe r1 2 creations 1", "2 11 observing r1", "1 30 create o.1.1.0.1 2",
      "2 31 told r1 o.1.1.0.1", "2 32 told r1 o.1.1.0.1", "1 40 created o.1.1.0.1",
      "2 45 met term1.1", "1 50 delete o.1.1.0.1", "1 51 deleted o.1.1.0.1"},
     ""},
    {"and this one is not",
     {"2 10 observe r1 2 creations 1", "2 11 observing r1", "1 30 create o.1.1.0.1 2",
      "1 40 created o.1.1.0.1", "2 45 met term1.1", "1 50 delete o.1.1.0.1",
      "1 51 deleted o.1.1.0.1"},
     kAtLeastOnce},
    {"nothing is asked of those who leave or die meanwhile",
     {"2 4 met term1.1", "2 10 observe r1 2 creations 1", "2 11 observing r1",
      "2 12 observe r2 2 creations 1", "2 13 observing r2", "1 30 create o.1.1.0.1 2",
      "2 35 unobserve r1", "2 36 unobserved r1", "2 37 killed", "1 40 created o.1.1.0.1",
      "1 50 delete o.1.1.0.1", "1 60 deleted o.1.1.0.1"},
     ""},
    {"a creation whose publisher dies meanwhile is told or not",
     {"2 4 met term1.1", "2 10 observe r1 2 creations 1", "2 11 observing r1",
      "1 30 create o.1.1.0.1 2", "1 35 killed"},
     ""},
    {"told of nothing",
     {"2 10 observe r1 2 creations 0", "2 12 told r1 o.1.1.0.9"},
     "no observer is told of what is not there"},
    {"told of another class",
     {"2 10 observe r1 2 creations 0", "1 20 create o.1.1.0.1 1", "2 21 told r1 o.1.1.0.1"},
     "no observer is told of an object of another class"},
    {"told during its removal, and after it",
     {"2 10 observe r1 2 creations 0", "1 30 create o.1.1.0.2 2", "2 31 unobserve r1",
      "2 32 told r1 o.1.1.0.2", "2 33 unobserved r1", "2 34 told r1 o.1.1.0.2"},
     "no observer is told after its removal"},
    {"calls that may end so",
     {"1 1000000 create o.1.1.0.1 2", "1 1000001 created o.1.1.0.1",
      "2 9000000 call 8999000 o.1.1.0.1 ok getName",
      "2 9000000 call 8999000 o.1.1.0.1 vetoed getName",
      "2 9000000 call 8999000 o.9.1.0.1 failed getName",
      "2 9000000 call 8999000 home.1+home.7 failed relay"},
     ""},
    {"an answer of another object",
     {"1 1000000 create o.1.1.0.1 2", "1 1000001 created o.1.1.0.1",
      "2 9000000 call 8999000 o.1.1.0.1 wrong:o.1.1.0.2 getName"},
     "no handle answers for the wrong object"},
    {"a call of what is there",
     {"1 1000000 create o.1.1.0.1 2", "1 1000001 created o.1.1.0.1",
      "2 9000000 call 8999000 o.1.1.0.1 failed getName"},
     kFailed},
    {"a call of an actor that is up", {"2 9000000 call 8999000 home.1 failed getName"}, kFailed},
    {"a call of two that are up", {"2 9000000 call 8999000 home.1+home.2 failed relay"}, kFailed},
    {"just in time",
     {"2 10999999 call 1000000 home.1 ok getName", "2 10999999 did 1000000 make",
      "1 20000000 killed", "2 21900000 call 19000000 home.1 failed getName"},
     ""},
    {"a slow call", {"2 11000001 call 1000000 home.1 ok getName"}, kHang},
    {"a slow action", {"2 11000001 did 1000000 make"}, kHang},
    {"long after a kill",
     {"1 20000000 killed", "2 22100000 call 19000000 home.1 failed getName"},
     kHang},
    {"what an actor sees itself", {"2 10 fault of its own"}, "what an actor sees itself"},
};

TEST(Checker, findsWhatIsBrokenAndNothingElse) {
    for (Case const& one : kCases) {
        Court court;
        court.write(one.journal);
        EXPECT_EQ(court.verdict(), one.verdict) << one.name;
    }
}

TEST(Checker, countsOneWayCallsBetweenTheLiving) {
    Court court;
    court.write({"2 10 sent broker1.1 7", "2 10 sent broker9.9 3"});
    EXPECT_EQ(court.checker.unbalanced().size(), 1u);
    for (std::string const came : {"6", "7", "8"}) {
        court.write({"1 11 received 2.1 " + came});
        EXPECT_EQ(court.checker.unbalanced().size(), came == "7" ? 0u : 1u) << came;
    }
    court.write({"1 14 killed"});
    EXPECT_TRUE(court.checker.unbalanced().empty());
}

}  // namespace
