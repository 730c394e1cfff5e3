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

#include "Crew.h"
#include "RendezvousFolder.h"

namespace soak {
namespace {

using testsupport::Resources;

constexpr unsigned int kFewestActors = 4;
constexpr unsigned int kMostActors = 64;
/** The first actors are never killed: what grows shows in them. */
constexpr unsigned int kSpared = 2;
constexpr long long kLongestStop = kSecond / 5;

struct Options {
    unsigned int seconds = 60;
    unsigned int seed = std::random_device()() % 1'000'000;
    unsigned int actors = 12;
    unsigned int observers = 0;
    unsigned int stretch = 3000;  // milliseconds

    long long stretchMicroseconds() const { return stretch * 1000LL; }
    bool makeSense() const {
        return actors >= kFewestActors && actors <= kMostActors && observers < actors &&
               stretch > 0;
    }
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

/** What befalls an actor in a stretch, so long after its beginning. A victim that is stopped before
 * it is killed has many calls waiting for it. */
struct Stroke {
    enum What { stop, kill, start };
    long long at;
    What what;
    Slot* slot;
};

class Supervisor {
public:
    Supervisor(Options const& options, std::string const& folder)
        : options_(options),
          random_(options.seed),
          crew_(folder, {options.seed, options.actors, options.observers}, options.actors) {}

    /** False when something was found, which has been printed. */
    bool run() {
        long long const end = now() + options_.seconds * kSecond;
        for (Slot& slot : crew_.slots())
            crew_.start(slot);
        crew_.awaitStarts();
        while (!crew_.failed() && now() < end) {
            stretch();
            crew_.settle();
            for (Slot& slot : crew_.slots())
                if (!crew_.failed())
                    measure(slot);
        }
        if (!crew_.failed())
            crew_.finish();
        checkTally();
        std::printf("%u stretches, %u kills; judged:", stretches_, kills_);
        for (auto const& [what, count] : crew_.checker().tally())
            std::printf(" %s %lu,", what.c_str(), count);
        std::printf("\n");
        if (crew_.failed()) {
            std::printf("FOUND %zu faults with seed %u, in stretch %u\n",
                        crew_.checker().faults().size(), options_.seed, stretches_);
            crew_.printFaults();
        }
        return !crew_.failed();
    }

private:
    unsigned int dice(unsigned int sides) { return static_cast<unsigned int>(random_()) % sides; }

    void stretch() {
        ++stretches_;
        crew_.go();
        std::vector<Stroke> const strokes = plan();
        auto next = strokes.begin();
        long long const begin = now();
        while (!crew_.failed() &&
               (now() < begin + options_.stretchMicroseconds() || next != strokes.end())) {
            for (; next != strokes.end() && next->at <= now() - begin; ++next)
                strike(*next);
            crew_.watchProcesses(true);
        }
        crew_.awaitStarts();
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
            Slot* const slot = &crew_.slots()[kSpared + dice(options_.actors - kSpared)];
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
        if (stroke.what == Stroke::start) {
            crew_.start(*stroke.slot);
        } else if (stroke.what == Stroke::kill) {
            crew_.kill(*stroke.slot);
            ++kills_;
        } else {
            stroke.slot->child->signal(SIGSTOP);
        }
    }
    void measure(Slot& slot) {
        bool const warm = ++slot.measured > kWarmStretches;
        Resources const now = Resources::of(slot.child->pid());
        for (auto const& [name, mayGrow, used] : kResources) {
            if (!warm)
                slot.used.*used = std::max(slot.used.*used, now.*used);
            else if (now.*used > slot.used.*used + mayGrow)
                crew_.checker().report("memory and descriptors of those that stay are flat",
                                       slot.name() + ": " + name + " grew from " +
                                           std::to_string(slot.used.*used) + " to " +
                                           std::to_string(now.*used) + " in " +
                                           std::to_string(slot.measured) + " stretches");
        }
    }
    void checkTally() {
        Tally const& tally = crew_.checker().tally();
        for (char const* what : {"creations told once", "deletions told once", "calls"})
            if (!crew_.failed() && tally.count(what) == 0 &&
                (options_.observers == 0 || what != std::string("calls")))
                crew_.checker().report("there is something to judge", std::string("no ") + what);
    }

    Options const options_;
    std::mt19937 random_;
    Crew crew_;
    unsigned int stretches_ = 0;
    unsigned int kills_ = 0;
};

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
        !options.makeSense()) {
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
