#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Runner.h"

namespace {

using bench::Figures;
using bench::Load;

struct Place {
    Load load;
    char const* title;
};
Place const kPlaces[] = {{Load::kFree, "free"},
                         {Load::kOneProcessor, "one processor"},
                         {Load::kSplit, "two processors split"},
                         {Load::kBusy, "beside busy programs"}};

struct Scenario {
    char const* title;
    char const* name;  // see measure
    std::vector<char const*> figures;
    std::vector<char const*> floors{};  // beside the short one, where threads are free to move
    bool ofTheBrokerAlone = false;      // and in one place
};

std::vector<Scenario> const& scenarios() {
    std::vector<char const*> const latency{"p50_us", "p99_us", "mean_us", "cpu_us"};
    std::vector<char const*> const rate{"calls_per_s", "cpu_us"};
    static std::vector<Scenario> const list{
        {"one caller", "single", latency, {"polling", "sleeping"}},
        {"one call per millisecond", "paced", latency, {"polling", "sleeping"}},
        {"8 callers", "threads8", rate, {"permission", "polling", "sleeping"}},
        {"64 callers", "threads64", rate, {"permission", "polling", "sleeping"}},
        {"64 KiB each way", "body", latency, {"polling", "sleeping"}},
        {"one-way calls", "oneway", rate, {"polling", "sleeping"}},
        {"attribute read by name, remote (by_name_us: two questions for the classes and the read)",
         "attribute",
         {"call_us", "bound_us", "by_name_us"},
         {},
         true},
        {"process start to first call, less the 100 ms pause of a new broker",
         "start",
         {"start_ms"},
         {},
         true},
        {"resident memory", "memory", {"client_kib", "server_kib"}, {}, true},
    };
    return list;
}

#ifdef BENCH_PEERS
std::vector<char const*> const kPeers{"omniorb"};
#else
std::vector<char const*> const kPeers{};
#endif

std::vector<char const*> subjectsOf(Scenario const& scenario, Load load) {
    std::vector<char const*> subjects{"orb"};
    if (scenario.ofTheBrokerAlone)
        return subjects;
    subjects.push_back("short");
    if (load == Load::kFree)
        subjects.insert(subjects.end(), scenario.floors.begin(), scenario.floors.end());
    subjects.insert(subjects.end(), kPeers.begin(), kPeers.end());
    return subjects;
}

/** By scenario and place ("single", Load::kFree) and subject. */
using Results = std::map<std::pair<std::string, Load>, std::map<std::string, Figures>>;

/** The median of each figure of several runs; none where one of them failed. */
Figures medians(std::vector<Figures> const& runs) {
    Figures result;
    for (auto const& [name, first] : runs.front()) {
        std::vector<double> values;
        for (Figures const& run : runs)
            if (auto const found = run.find(name); found != run.end())
                values.push_back(found->second);
        std::sort(values.begin(), values.end());
        if (values.size() == runs.size())
            result[name] = values[values.size() / 2];
    }
    return result;
}

void print(Scenario const& scenario, char const* subject, Figures const& figures) {
    std::printf("  %-12s", subject);
    for (char const* name : scenario.figures) {
        auto const found = figures.find(name);
        if (found == figures.end())
            std::printf("  %s: failed", name);
        else
            std::printf("  %s: %.1f", name, found->second);
    }
    std::printf("\n");
    std::fflush(stdout);
}

/** The subjects take turns, so that all meet the same neighbours. */
void runScenario(Scenario const& scenario, Load load, std::size_t rounds, Results& results) {
    std::vector<char const*> const subjects = subjectsOf(scenario, load);
    std::map<std::string, std::vector<Figures>> runs;
    for (std::size_t round = 0; round < rounds; ++round)
        for (char const* subject : subjects)
            runs[subject].push_back(bench::runPair(subject, scenario.name, load));
    for (char const* subject : subjects) {
        Figures const figures = medians(runs[subject]);
        results[{scenario.name, load}][subject] = figures;
        print(scenario, subject, figures);
    }
}

/** What the broker is held against, as ratios of figures of one run. */
struct Target {
    char const* scenario;
    Load load;
    char const* figure;
    char const* against;  // a floor, a peer, or the broker's own `other`
    double limit;
    bool atLeast = false;
    char const* other = nullptr;  // null: the same figure
};

Target const kTargets[] = {
    {"single", Load::kFree, "p50_us", "polling", 1.4},
    {"single", Load::kFree, "p50_us", "sleeping", 0.25},
    {"single", Load::kFree, "cpu_us", "polling", 1.5},
    {"single", Load::kOneProcessor, "p50_us", "short", 1.6},
    {"single", Load::kOneProcessor, "p50_us", "omniorb", 0.8},
    {"single", Load::kBusy, "p50_us", "short", 1.4},
    {"single", Load::kBusy, "mean_us", "short", 1.5},
    {"single", Load::kBusy, "p99_us", "orb", 10, false, "p50_us"},
    {"paced", Load::kFree, "cpu_us", "sleeping", 1.15},
    {"paced", Load::kFree, "p50_us", "omniorb", 1},
    {"paced", Load::kFree, "cpu_us", "omniorb", 0.8},
    {"paced", Load::kOneProcessor, "p50_us", "omniorb", 0.8},
    {"paced", Load::kOneProcessor, "cpu_us", "omniorb", 0.8},
    {"paced", Load::kBusy, "p50_us", "omniorb", 1},
    {"threads8", Load::kFree, "calls_per_s", "permission", 0.8, true},
    {"threads8", Load::kBusy, "calls_per_s", "omniorb", 1, true},
    {"threads64", Load::kFree, "calls_per_s", "permission", 0.8, true},
    {"threads64", Load::kFree, "calls_per_s", "omniorb", 1, true},
    {"threads64", Load::kOneProcessor, "calls_per_s", "omniorb", 1, true},
    {"body", Load::kFree, "p50_us", "short", 1.5},
    {"body", Load::kOneProcessor, "p50_us", "short", 1.5},
    {"oneway", Load::kFree, "calls_per_s", "polling", 0.5, true},
    {"attribute", Load::kFree, "bound_us", "orb", 1.5, false, "call_us"},
};

/** Not a number when one of the two failed. */
double ratio(Results& results, Target const& target) {
    auto& row = results[{target.scenario, target.load}];
    auto const ours = row["orb"].find(target.figure);
    Figures const& theirs = row[target.against];
    auto const other = theirs.find(target.other ? target.other : target.figure);
    if (ours == row["orb"].end() || other == theirs.end())
        return std::nan("");
    return ours->second / other->second;
}

void judge(Results& results) {
    int missed = 0;
    std::printf("\nTargets (ratios in this run)\n");
    for (Target const& target : kTargets) {
        auto const row = results.find({target.scenario, target.load});
        if (row == results.end() || row->second.count(target.against) == 0)
            continue;
        double const value = ratio(results, target);
        bool const met = target.atLeast ? value >= target.limit : value <= target.limit;
        missed += met ? 0 : 1;
        std::printf("  %-6s %6.2f  (%s %.2f)  %s, %s: %s / %s of %s\n", met ? "met" : "MISSED",
                    value, target.atLeast ? "at least" : "at most", target.limit, target.scenario,
                    kPlaces[static_cast<int>(target.load)].title, target.figure,
                    target.other ? target.other : "that", target.against);
    }
    std::printf("%d target%s missed\n", missed, missed == 1 ? "" : "s");
}

}  // namespace

/** Without arguments: everything, medians of three runs. With a word: what has it in its title
 * ("one caller, free"). With --rounds N ahead: medians of N runs. */
int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 3 && arguments[0] == "--serve")
        return bench::serveMain(arguments[1], arguments[2]);
    if (arguments.size() == 5 && arguments[0] == "--measure")
        return bench::clientMain(arguments[1], arguments[2], arguments[3],
                                 std::atoi(arguments[4].c_str()));
    if (arguments.size() == 1 && arguments[0] == "--busy")
        return bench::busyMain();
    std::size_t rounds = 3;
    if (arguments.size() >= 2 && arguments[0] == "--rounds") {
        rounds = static_cast<std::size_t>(std::max(std::atoi(arguments[1].c_str()), 1));
        arguments.erase(arguments.begin(), arguments.begin() + 2);
    }
    Results results;
    for (Scenario const& scenario : scenarios())
        for (Place const& place : kPlaces) {
            std::string const title = std::string(scenario.title) + ", " + place.title;
            bool const named = arguments.empty() || title.find(arguments[0]) != std::string::npos;
            if (!named || (scenario.ofTheBrokerAlone && place.load != Load::kFree))
                continue;
            std::printf("\n%s\n", title.c_str());
            runScenario(scenario, place.load, rounds, results);
        }
    judge(results);
    return 0;
}
