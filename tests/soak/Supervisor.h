// Runs the actors: has them act in stretches, kills and restarts some meanwhile, and has the
// checker judge when all rest.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Checker.h"
#include "ChildProgram.h"

namespace soak {

struct Options {
    unsigned int seconds = 60;
    unsigned int seed = 0;
    unsigned int actors = 12;
    std::string folder;  // for journals, logs and stacks
};

/** One thread, which the actors do not outlive. */
class Supervisor {
public:
    explicit Supervisor(Options const& options);

    /** False when something was found, which has been printed. */
    bool run();

private:
    /** What a process uses when nobody acts. */
    struct Usage {
        long kilobytes = 0;
        long descriptors = 0;
        long threads = 0;
    };
    struct Slot {
        unsigned int actor = 0;
        unsigned int life = 0;
        std::unique_ptr<testsupport::ChildProgram> child;
        std::optional<JournalReader> journal;
        bool up = false;
        long long deadline = 0;  // for coming up
        std::deque<Usage> usage;

        Life current() const { return {actor, life}; }
    };
    /** What befalls an actor in a stretch. A victim that is stopped before it is killed has many
     * calls waiting for it. In microseconds from the beginning of the stretch. */
    struct Stroke {
        unsigned int actor = 0;
        long long stop = 0;
        long long kill = 0;
        long long restart = 0;
        enum { acting, stopped, killed, restarted } state = acting;
    };

    unsigned int dice(unsigned int sides);
    void start(Slot& slot);
    void kill(Slot& slot);
    void stretch();
    std::vector<Stroke> plan(long long length);
    void strike(Stroke& stroke, long long time);
    void settle();
    bool order(std::string const& what);
    void letEverybodyMeet();
    void balanceOneWayCalls();
    void measure();
    void compare(Slot const& slot);
    void finish();

    void watchProcesses(bool acting);
    void awaitStarts();
    /** Gives the checker all that was written since the last time, in the order of time. */
    void readJournals();
    void reportHang(Slot& slot, std::string const& what);
    void keepStacks(Slot const& slot);
    void keepLog(Slot const& slot);
    void printFaults();
    void printEvidence(Fault const& fault);
    void printTally() const;
    bool failed() const { return !checker_.faults().empty(); }

    Options const options_;
    std::mt19937 random_;
    Checker checker_;
    std::vector<Slot> slots_;
    std::vector<std::pair<Life, JournalReader>> leftJournals_;  // of processes that were killed
    unsigned int stretches_ = 0;
    unsigned int orders_ = 0;
    unsigned int kills_ = 0;
};

}  // namespace soak
