// The judge of the soak, before journals written by hand. Actor 1 publishes, actor 2 observes.
#include <gtest/gtest.h>

#include "Checker.h"

namespace {

using soak::Checker;
using soak::kGhost;
using soak::kHang;
using soak::kOnce;
using soak::Life;

/** Has both actors up, and gives the checker events, each with the actor's number in front and a
 * comma behind. */
class Court {
public:
    Court() {
        write(
            "1 1 begin, 2 1 begin, 1 2 start term1.1 broker1.1, 2 2 start term2.1 broker2.1, 1 3 "
            "up, 2 3 up,");
    }

    void write(std::string const& journal) {
        std::istringstream input(journal);
        unsigned int actor = 0;
        for (std::string line; input >> actor && std::getline(input, line, ',');) {
            Life const life{actor, 1};
            soak::Event const event(line);
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

constexpr char kFailed[] = "no call of an object that is there fails";

/** A creation at 30 and a deletion at 50, with observers of both that stay. */
TEST(Checker, countsWhatObserversThatStayAreTold) {
    // Of the first class no deletions are promised, of the second no creations.
    struct {
        std::string classIndex;
        int creations;
        int deletions;
        char const* verdict;
    } const cases[]{{"2", 1, 1, ""},    {"2", 0, 1, kOnce}, {"2", 2, 1, kOnce}, {"2", 1, 0, kOnce},
                    {"2", 1, 2, kOnce}, {"0", 1, 0, ""},    {"0", 1, 2, kOnce}, {"0", 0, 1, kOnce},
                    {"1", 0, 1, ""},    {"1", 1, 0, kOnce}};
    for (auto const& [index, creations, deletions, verdict] : cases) {
        Court court;
        court.write("2 4 met term1.1, 2 10 observe r1 " + index + " creations 0," +
                    "2 11 observing r1, 2 12 observe r2 " + index + " deletions 0," +
                    "2 13 observing r2, 1 30 create o.1.1.0.1 " + index + ",");
        for (int i = 0; i < creations; ++i)
            court.write("2 35 told r1 o.1.1.0.1,");
        court.write("1 40 created o.1.1.0.1, 1 50 delete o.1.1.0.1,");
        for (int i = 0; i < deletions; ++i)
            court.write("2 55 told r2 o.1.1.0.1,");
        court.write("1 60 deleted o.1.1.0.1,");
        EXPECT_EQ(court.verdict(), verdict) << index << " " << creations << " " << deletions;
    }
}

TEST(Checker, findsWhatIsBrokenAndNothingElse) {
    std::string const made = "1 30 create o.1.1.0.1 2, 1 40 created o.1.1.0.1,";
    std::string const gone = "1 60 delete o.1.1.0.1, 1 70 deleted o.1.1.0.1,";
    std::string const once = "2 45 told r1 o.1.1.0.1,";
    // Registrations during the creation, and before the brokers have met.
    std::string const meanwhile =
        "2 4 met term1.1, 2 20 observe r1 2 creations 1, 2 20 observe r2 2 creations 0," + made +
        "2 45 observing r1, 2 45 observing r2,";
    std::string const before =
        "2 10 observe r1 2 creations 1, 2 11 observing r1," + made + "2 45 met term1.1,";
    std::string const early = "2 10 observe r1 2 creations 0, 2 11 observing r1, 1 12 begin," +
                              made + "2 45 met term1.1,";
    std::string const ending = "2 9 observe r9 2 deletions 0, 2 10 observing r9," + early;
    // An object goes while an observer of deletions registers.
    std::string const overlapping =
        "2 4 met term1.1, 2 5 observe r1 2 creations 0, 2 41 observe r9 2 deletions 0, 2 43 "
        "observing r9, 1 30 create o.1.1.0.1 2, 1 36 created o.1.1.0.1, 1 42 delete o.1.1.0.1, "
        "1 43 deleted o.1.1.0.1,";
    std::string const known = "2 4 met term1.1, 2 10 observe r1 2 creations 1, 2 11 observing r1,";
    std::string const call = made + "2 9000000 call 8999000 ";
    struct {
        std::string journal;
        std::string verdict;
    } const cases[]{
        {meanwhile + once + gone, ""},
        {meanwhile + once + once + gone, kOnce},
        {meanwhile + gone, kOnce},
        {before + once + gone, ""},
        {before + once + once + gone, kOnce},
        {before + gone, kOnce},
        // A process that began after the registration is caught up with.
        {early + once + gone, ""},
        {early + gone, kOnce},
        {early + "1 42 delete o.1.1.0.1, 1 43 deleted o.1.1.0.1,", ""},
        // Who is there when its process hears of an object hears of its end.
        {ending + "2 44 told r1 o.1.1.0.1," + gone + "2 62 told r9 o.1.1.0.1,", ""},
        {ending + "2 44 told r1 o.1.1.0.1, 1 45 delete o.1.1.0.1, 1 46 deleted o.1.1.0.1,", kOnce},
        {ending + "1 42 delete o.1.1.0.1, 1 43 deleted o.1.1.0.1,", ""},
        {overlapping + "2 44 told r1 o.1.1.0.1,", kOnce},
        {overlapping + "2 44 told r1 o.1.1.0.1, 2 45 told r9 o.1.1.0.1,", ""},
        {overlapping + "2 40 told r1 o.1.1.0.1,", ""},
        {overlapping + "2 44 told r1 o.1.1.0.1, 1 46 killed,", ""},
        {overlapping + "2 44 told r1 o.1.1.0.1, 2 46 unobserve r9, 2 47 unobserved r9,", ""},
        {ending + gone + "2 62 told r9 o.1.1.0.1, 2 63 told r1 o.1.1.0.1,", kGhost},
        {made + gone + "2 80 observe r1 2 creations 1, 2 81 told r1 o.1.1.0.1,", kGhost},
        {early + "2 46 lost term1.1, 2 47 told r1 o.1.1.0.1,", kGhost},
        {early + once + gone + "2 80 lost term1.1, 2 81 met term1.1,",
         "no broker is told as come after it was told as gone"},
        {known + made + "2 35 unobserve r1, 2 36 unobserved r1," + gone, ""},
        {known + made + "2 35 killed," + gone, ""},
        {known + "1 30 create o.1.1.0.1 2, 1 35 killed,", ""},
        {known + "2 12 told r1 o.1.1.0.9,", "no observer is told of what is not there"},
        {known + "1 20 create o.1.1.0.1 1, 2 21 told r1 o.1.1.0.1,",
         "no observer is told of an object of another class"},
        {known + made + "2 41 unobserve r1, 2 42 told r1 o.1.1.0.1, 2 43 unobserved r1,", ""},
        {known + made + "2 41 unobserve r1, 2 43 unobserved r1, 2 44 told r1 o.1.1.0.1,",
         "no observer is told after its removal"},
        {call + "o.1.1.0.1 ok getName,", ""},
        {call + "o.1.1.0.1 vetoed getName,", ""},
        {call + "o.1.1.0.1 failed getName,", kFailed},
        {call + "o.9.1.0.1 failed getName,", ""},
        {call + "o.1.1.0.1 wrong:o.1.1.0.2 getName,", "no handle answers for the wrong object"},
        {call + "home.1 failed getName,", kFailed},
        {call + "home.1+home.2 failed relay,", kFailed},
        {call + "home.1+home.7 failed relay,", ""},
        {"2 10999999 call 1000000 home.1 ok getName, 2 10999999 did 1000000 make,", ""},
        {"2 11000001 call 1000000 home.1 ok getName,", kHang},
        {"2 11000001 did 1000000 make,", kHang},
        {"1 20000000 killed, 2 21900000 call 19000000 home.1 failed getName,", ""},
        {"1 20000000 killed, 2 22100000 call 19000000 home.1 failed getName,", kHang},
        {"2 10 fault of its own,", "what an actor sees itself"},
    };
    for (auto const& [journal, verdict] : cases) {
        Court court;
        court.write(journal);
        EXPECT_EQ(court.verdict(), verdict) << journal;
    }
}

TEST(Checker, countsOneWayCallsBetweenTheLiving) {
    Court court;
    court.write("2 10 sent broker1.1 7, 2 10 sent broker9.9 3,");
    EXPECT_EQ(court.checker.unbalanced().size(), 1u);
    for (std::string const came : {"6", "7", "8"}) {
        court.write("1 11 received 2.1 " + came + ",");
        EXPECT_EQ(court.checker.unbalanced().size(), came == "7" ? 0u : 1u) << came;
    }
    court.write("1 14 killed,");
    EXPECT_TRUE(court.checker.unbalanced().empty());
}

}  // namespace
