// Lets a dozen processes publish, delete, observe and call each other while some of them are killed
// and started again, and checks that what must hold holds.
//
//   soak [--seconds N] [--seed N] [--actors N] [--observers N] [--stretch MILLISECONDS]
//
// With --observers the first so many actors only observe, and all others only publish.
//
// The same seed makes the same decisions, as far as the order of threads lets it. It has the actors
// act in stretches, kills and restarts some meanwhile, and has the checker judge when all rest.
#include <csignal>
#include <random>

#include "Checker.h"
#include "RendezvousFolder.h"
#include "Resources.h"
#include "Slowness.h"
#include "Trial.h"

namespace soak {
namespace {

using testsupport::ChildProgram;
using testsupport::kSlow;
using testsupport::Resources;

constexpr unsigned int kFewestActors = 4;
constexpr unsigned int kMostActors = 64;
/** The first actors are never killed: what grows shows in them. */
constexpr unsigned int kSpared = 2;
constexpr long long kSecond = 1'000'000;
constexpr long long kLongestStop = kSecond / 5;
constexpr std::chrono::seconds kPatience(kSlow ? 60 : 20);
constexpr char kOnlyVictimsDie[] = "nobody but the victims dies";
Limits const kLimits = kSlow ? Limits{40 * kSecond, 15 * kSecond, 10 * kSecond} : Limits();

struct Options {
    unsigned int seconds = 60;
    unsigned int seed = std::random_device()() % 1'000'000;
    unsigned int actors = 12;
    unsigned int observers = 0;
    unsigned int stretch = 3000;  // milliseconds

    long long stretchMicroseconds() const { return stretch * 1000LL; }
};

/** What a process uses when nobody acts. Sanitizers and an emulator use memory of their own. */
struct {
    char const* name;
    long mayGrow;  // after the first stretches
    long Resources::*used;
} const kResources[]{{"resident kB", kSlow ? 1L << 30 : 4096, &Resources::kilobytes},
                     {"descriptors", 24, &Resources::descriptors},
                     {"threads", 8, &Resources::threads}};
constexpr unsigned int kWarmStretches = 4;

struct Slot {
    Life life;
    std::unique_ptr<ChildProgram> child;
    std::optional<JournalReader> journal;
    bool up = false;
    long long deadline = 0;  // for coming up
    unsigned int measured = 0;
    Resources used;  // at most, in the first stretches

    std::string name() const { return "actor " + life.text(); }
};

/** What befalls an actor in a stretch, so long after its beginning. A victim that is stopped before
 * it is killed has many calls waiting for it. */
struct Stroke {
    enum What { stop, kill, start };
    long long at;
    What what;
    Slot* slot;
};

template <class Condition>
bool eventually(Condition&& condition) {
    return testsupport::eventually(condition, kPatience);
}

/** One thread, which the actors do not outlive. */
class Supervisor {
public:
    Supervisor(Options const& options, std::string const& folder)
        : options_(options), folder_(folder), random_(options.seed), slots_(options.actors) {
        for (unsigned int i = 0; i < options.actors; ++i)
            slots_[i].life.actor = i;
    }

    /** False when something was found, which has been printed. */
    bool run() {
        long long const end = now() + options_.seconds * kSecond;
        for (Slot& slot : slots_)
            start(slot);
        awaitStarts();
        while (!failed() && now() < end) {
            stretch();
            settle();
        }
        if (!failed())
            finish();
        std::printf("%u stretches, %u kills; judged:", stretches_, kills_);
        for (auto const& [what, count] : checker_.tally())
            std::printf(" %s %lu,", what.c_str(), count);
        std::printf("\n");
        if (failed())
            printFaults();
        return !failed();
    }

private:
    bool failed() const { return !checker_.faults().empty(); }
    unsigned int dice(unsigned int sides) { return static_cast<unsigned int>(random_()) % sides; }
    void reportDeath(Slot& slot, std::string const& how) {
        checker_.report(kOnlyVictimsDie, slot.name() + " " + how);
        keepLog(slot);
    }

    // ---- Processes

    void start(Slot& slot) {
        ++slot.life.number;
        std::string const path = folder_ + "/journal." + slot.life.text();
        slot.journal.emplace(path);
        slot.up = false;
        slot.deadline = now() + std::chrono::microseconds(kPatience).count();
        slot.measured = 0;
        slot.child = std::make_unique<ChildProgram>(
            "soak_actor", std::vector<std::string>{
                              std::to_string(slot.life.actor), std::to_string(slot.life.number),
                              std::to_string(options_.seed), std::to_string(slots_.size()),
                              std::to_string(options_.observers), path});
    }
    void kill(Slot& slot) {
        checker_.killed(slot.life, now());
        slot.child->signal(SIGKILL);
        if (int const code = slot.child->exitCode(); code != -SIGKILL)
            reportDeath(slot, "had ended with " + std::to_string(code) + " before it was killed");
        slot.child.reset();
        leftJournals_.emplace_back(slot.life, *slot.journal);
        ++kills_;
    }
    /** Sees who has come up, and who is dead that should live. */
    void watchProcesses(bool acting) {
        for (Slot& slot : slots_) {
            if (!slot.child)
                continue;
            if (slot.child->waitForExit(std::chrono::milliseconds(0))) {
                reportDeath(slot, "ended with " + std::to_string(slot.child->exitCode()));
                slot.child.reset();
            } else if (!slot.up) {
                slot.up = slot.child->waitForLine("up", std::chrono::milliseconds(0)).has_value();
                if (slot.up && acting)
                    slot.child->writeLine("go 0");
                if (!slot.up && now() > slot.deadline)
                    reportHang(slot, "does not come up");
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    void awaitStarts() {
        while (!failed() &&
               !std::all_of(slots_.begin(), slots_.end(), [](Slot const& slot) { return slot.up; }))
            watchProcesses(false);
    }

    // ---- A stretch of action, with kills

    void stretch() {
        ++stretches_;
        for (Slot const& slot : slots_)
            slot.child->writeLine("go 0");
        std::vector<Stroke> const strokes = plan();
        auto next = strokes.begin();
        long long const begin = now();
        while (!failed() &&
               (now() < begin + options_.stretchMicroseconds() || next != strokes.end())) {
            for (; next != strokes.end() && next->at <= now() - begin; ++next)
                strike(*next);
            watchProcesses(true);
        }
        awaitStarts();
    }
    /** Victims fall one by one or several at once, and come back likewise: those that come back
     * together subscribe at each other while both start. */
    std::vector<Stroke> plan() {
        std::vector<Stroke> strokes;
        unsigned int const victims = dice(options_.actors / 3 + 1);
        bool const fallTogether = dice(2) == 0;
        bool const riseTogether = dice(2) == 0;
        auto const moment = [&] {
            return static_cast<long long>(dice(1000)) * options_.stretchMicroseconds() / 1500;
        };
        long long const fall = moment();
        long long const rise = fall + moment() / 2;
        for (unsigned int i = 0; i < victims; ++i) {
            Slot* const slot =
                &slots_[kSpared + dice(static_cast<unsigned int>(slots_.size()) - kSpared)];
            long long const kill = fallTogether ? fall : moment();
            long long const start = riseTogether ? std::max(rise, kill) : kill + moment() / 2;
            bool const isVictim =
                std::any_of(strokes.begin(), strokes.end(),
                            [&](auto const& other) { return other.slot == slot; });
            if (isVictim)
                continue;
            strokes.push_back({kill - dice(2) * kLongestStop, Stroke::stop, slot});
            strokes.push_back({kill, Stroke::kill, slot});
            strokes.push_back({start, Stroke::start, slot});
        }
        std::stable_sort(strokes.begin(), strokes.end(),
                         [](Stroke const& a, Stroke const& b) { return a.at < b.at; });
        return strokes;
    }
    void strike(Stroke const& stroke) {
        if (stroke.what == Stroke::start)
            start(*stroke.slot);
        else if (stroke.what == Stroke::kill)
            kill(*stroke.slot);
        else
            stroke.slot->child->signal(SIGSTOP);
    }

    // ---- Rest and judgement

    void settle() {
        if (failed() || !order("rest"))
            return;
        letEverybodyMeet();
        readJournals();
        if (failed())
            return;
        checker_.fence(now());
        balanceOneWayCalls();
        for (Slot& slot : slots_) {
            if (slot.child)
                measure(slot);
            slot.journal->rotate();
        }
    }
    /** Has all actors do something, and waits until they have. */
    bool order(std::string const& what) {
        std::string const line = what + " " + std::to_string(++orders_);
        for (Slot const& slot : slots_)
            slot.child->writeLine(line);
        for (Slot& slot : slots_) {
            if (slot.child->waitForLine(line, kPatience))
                continue;
            watchProcesses(false);
            if (slot.child)
                reportHang(slot, "does not come to the end of \"" + what + "\"");
            return false;
        }
        return !failed();
    }
    /** Whoever has caught up with one that comes last, and with all others that came after it, has
     * caught up with all: those who were there before were asked by its own registrations. */
    void letEverybodyMeet() {
        ChildProgram beacon("soak_actor", {"beacon"});
        auto const line = beacon.waitForLine("start ");
        std::string const termination = line ? line->substr(line->find(' ') + 1) : "";
        if (!line)
            checker_.report("brokers start", "the beacon did not come up");
        for (Slot& slot : slots_) {
            bool const met = eventually([&] {
                readJournals();
                return !line || checker_.hasMet(slot.life, termination);
            });
            if (!met)
                reportHang(slot, "does not catch up with broker " + termination);
        }
        beacon.closeInput();
        beacon.waitForExit();
    }
    void balanceOneWayCalls() {
        std::vector<std::string> reasons;
        bool const balanced = eventually([&] {
            if (!order("tell"))
                return true;
            readJournals();
            reasons = checker_.unbalanced();
            return reasons.empty();
        });
        for (std::string const& reason : reasons)
            if (!balanced)
                checker_.report("one-way calls between those that live arrive once", reason);
    }
    /** Gives the checker all that was written since the last time, in the order of time. */
    void readJournals() {
        std::vector<std::pair<Life, Event>> events;
        auto const take = [&](Life life, JournalReader& journal) {
            for (Event& event : journal.read())
                events.emplace_back(life, std::move(event));
        };
        for (auto& [life, journal] : leftJournals_)
            take(life, journal);
        for (Slot& slot : slots_)
            take(slot.life, *slot.journal);
        leftJournals_.clear();
        std::stable_sort(events.begin(), events.end(), [](auto const& one, auto const& other) {
            return one.second.at < other.second.at;
        });
        for (auto const& [life, event] : events)
            checker_.take(life, event);
    }
    void measure(Slot& slot) {
        bool const warm = ++slot.measured > kWarmStretches;
        Resources const now = Resources::of(slot.child->pid());
        for (auto const& [name, mayGrow, used] : kResources) {
            if (!warm)
                slot.used.*used = std::max(slot.used.*used, now.*used);
            else if (now.*used > slot.used.*used + mayGrow)
                checker_.report("memory and descriptors of those that stay are flat",
                                slot.name() + ": " + name + " grew from " +
                                    std::to_string(slot.used.*used) + " to " +
                                    std::to_string(now.*used) + " in " +
                                    std::to_string(slot.measured) + " stretches");
        }
    }

    // ---- The end

    /** All objects go, so that each can be judged; then all processes go at once. */
    void finish() {
        if (!order("clear"))
            return;
        readJournals();
        checker_.fence(now());
        Tally const& tally = checker_.tally();
        for (char const* what : {"creations told once", "deletions told once", "calls"})
            if (tally.count(what) == 0 && (options_.observers == 0 || what != std::string("calls")))
                checker_.report("there is something to judge", std::string("no ") + what);
        for (Slot const& slot : slots_)
            slot.child->writeLine("quit");
        for (Slot& slot : slots_) {
            if (!slot.child->waitForExit(kPatience))
                reportHang(slot, "does not end");
            else if (int const code = slot.child->exitCode(); code != 0)
                reportDeath(slot, "ended with " + std::to_string(code) + " when told to quit");
        }
        readJournals();
    }

    // ---- What was found

    /** Keeps the stacks of all processes, since one that hangs waits for another; as far as there
     * is a debugger. */
    void reportHang(Slot& slot, std::string const& what) {
        for (Slot const& each : slots_) {
            if (failed() || !each.child)
                continue;
            if (!testsupport::keepStacks(each.child->pid(),
                                         folder_ + "/stacks." + each.life.text()))
                std::printf("no stacks of %s\n", each.name().c_str());
        }
        checker_.report(kHang, slot.name() + " " + what + " within " +
                                   std::to_string(kPatience.count()) +
                                   " s; see the stacks and the end of " + slot.journal->path());
    }
    void keepLog(Slot const& slot) {
        testsupport::keepLog(*slot.child, folder_ + "/log." + slot.life.text());
    }
    void printFaults() {
        for (Slot const& slot : slots_)
            if (slot.child)
                keepLog(slot);
        std::printf("FOUND %zu faults with seed %u, in stretch %u\n", checker_.faults().size(),
                    options_.seed, stretches_);
        int left = 10;
        for (Fault const& fault : checker_.faults()) {
            if (left-- == 0)
                break;
            std::printf("\nBroken: %s\n   %s\n", fault.invariant.c_str(), fault.text.c_str());
            std::string words;
            for (std::string const& word : fault.evidence)
                words += " -e '" + word + "'";
            std::string const command =
                "cd '" + folder_ + "' && grep -wF " + words + " journal.* | head -40";
            if (!words.empty() && std::system(command.c_str()) != 0)
                std::printf("no evidence in the journals\n");
        }
        std::printf("\nJournals, logs and stacks are in %s\n", folder_.c_str());
    }

    Options const options_;
    std::string const folder_;  // for journals, logs and stacks
    std::mt19937 random_;
    Checker checker_{kLimits};
    std::vector<Slot> slots_;
    std::vector<std::pair<Life, JournalReader>> leftJournals_;  // of processes that were killed
    unsigned int stretches_ = 0;
    unsigned int orders_ = 0;
    unsigned int kills_ = 0;
};

bool makeSense(Options const& options) {
    return options.actors >= kFewestActors && options.actors <= kMostActors &&
           options.observers < options.actors && options.stretch > 0;
}

}  // namespace
}  // namespace soak

int main(int count, char** arguments) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    soak::Options options;
    if (!testsupport::readOptions(count, arguments,
                                  {{"--seconds", &options.seconds},
                                   {"--seed", &options.seed},
                                   {"--actors", &options.actors},
                                   {"--observers", &options.observers},
                                   {"--stretch", &options.stretch}}) ||
        !soak::makeSense(options)) {
        std::fprintf(stderr,
                     "usage: soak [--seconds N] [--seed N] [--actors %u..%u] "
                     "[--observers N] [--stretch MILLISECONDS]\n",
                     soak::kFewestActors, soak::kMostActors);
        return 2;
    }
    std::printf("soak: seed %u, %u actors, %u s\n", options.seed, options.actors, options.seconds);
    testsupport::RendezvousFolder const rendezvous;
    return testsupport::runTrial("soak", options.seed, [&](std::string const& folder) {
        return soak::Supervisor(options, folder).run();
    });
}
