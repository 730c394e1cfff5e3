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

struct Scenario {
    char const* title;
    char const* name;
    Load load;
    std::vector<char const*> subjects;
    std::vector<char const*> figures;
};

std::vector<Scenario> const& scenarios() {
    std::vector<char const*> const latency{"p50_us", "p99_us", "mean_us", "cpu_client_us",
                                           "cpu_server_us"};
    std::vector<char const*> const rate{"calls_per_s", "cpu_client_us", "cpu_server_us"};
    static std::vector<Scenario> const list{
        {"one caller", "single", Load::kQuiet, {"orb", "polling", "sleeping"}, latency},
        {"one call per millisecond",
         "paced",
         Load::kQuiet,
         {"orb", "polling", "sleeping"},
         latency},
        {"8 callers", "threads8", Load::kQuiet, {"orb", "permission", "polling", "sleeping"}, rate},
        {"64 callers",
         "threads64",
         Load::kQuiet,
         {"orb", "permission", "polling", "sleeping"},
         rate},
        {"64 KiB body", "body", Load::kQuiet, {"orb", "polling", "sleeping"}, latency},
        {"one-way calls", "oneway", Load::kQuiet, {"orb", "polling", "sleeping"}, rate},
        {"one caller, both on one processor",
         "single",
         Load::kOneProcessor,
         {"orb", "polling", "sleeping"},
         latency},
        {"one caller, a busy process per processor",
         "single",
         Load::kBusy,
         {"orb", "polling", "sleeping"},
         latency},
        {"attribute read by name, remote (by_name_us: two questions for the classes and the read)",
         "attribute",
         Load::kQuiet,
         {"orb"},
         {"call_us", "bound_us", "by_name_us"}},
        {"process start to first call, less the 100 ms pause of a new broker",
         "start",
         Load::kQuiet,
         {"orb"},
         {"start_ms"}},
        {"resident memory", "memory", Load::kQuiet, {"orb"}, {"client_kib", "server_kib"}},
    };
    return list;
}

/** What the broker is held against, as ratios of figures of one run. */
struct Target {
    char const* text;
    char const* scenario;
    char const* figure;
    char const* floor;
    double limit;
    bool atLeast;
    char const* floorFigure = nullptr;  // null: the same as `figure`
};

Target const kTargets[] = {
    {"p50 round trip / polling floor", "one caller", "p50_us", "polling", 1.4, false},
    {"p50 round trip / sleeping floor", "one caller", "p50_us", "sleeping", 0.25, false},
    {"processor time of a call / polling floor", "one caller", "cpu_us", "polling", 1.5, false},
    {"calls per second of 8 callers / permission floor", "8 callers", "calls_per_s", "permission",
     0.8, true},
    {"calls per second of 64 callers / permission floor", "64 callers", "calls_per_s", "permission",
     0.8, true},
    {"processor time of paced calls / sleeping floor", "one call per millisecond", "cpu_us",
     "sleeping", 1.15, false},
    {"p50 of a call with 64 KiB / polling floor", "64 KiB body", "p50_us", "polling", 1.3, false},
    {"p50 beside busy processes / sleeping floor", "one caller, a busy process per processor",
     "p50_us", "sleeping", 1.3, false},
    {"mean beside busy processes / sleeping floor", "one caller, a busy process per processor",
     "mean_us", "sleeping", 1.3, false},
    {"one-way calls per second / polling floor", "one-way calls", "calls_per_s", "polling", 0.5,
     true},
    {"remote read of a bound attribute / call of its operation",
     "attribute read by name, remote (by_name_us: two questions for the classes and the read)",
     "bound_us", "orb", 1.5, false, "call_us"},
};

using Results = std::map<std::string, std::map<std::string, Figures>>;

void runScenario(Scenario const& scenario, Results& results) {
    std::printf("\n%s\n", scenario.title);
    for (char const* subject : scenario.subjects) {
        Figures const figures = bench::runPair(subject, scenario.name, scenario.load);
        results[scenario.title][subject] = figures;
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
}

/** Not a number when one of the two failed. */
double ratio(Results& results, Target const& target) {
    Figures const& orb = results[target.scenario]["orb"];
    Figures const& floor = results[target.scenario][target.floor];
    auto const ours = orb.find(target.figure);
    auto const theirs = floor.find(target.floorFigure ? target.floorFigure : target.figure);
    if (ours == orb.end() || theirs == floor.end())
        return std::nan("");
    return ours->second / theirs->second;
}

int judge(Results& results) {
    int missed = 0;
    std::printf("\nTargets (ratios in this run)\n");
    for (Target const& target : kTargets) {
        if (results.find(target.scenario) == results.end())
            continue;
        double const value = ratio(results, target);
        bool const met = target.atLeast ? value >= target.limit : value <= target.limit;
        missed += met ? 0 : 1;
        std::printf("  %-6s %6.2f  (%s %.2f)  %s\n", met ? "met" : "MISSED", value,
                    target.atLeast ? "at least" : "at most", target.limit, target.text);
    }
    std::printf("%d target%s missed\n", missed, missed == 1 ? "" : "s");
    return missed;
}

}  // namespace

/** Without arguments: everything. With a word: the scenarios whose title contains it. */
int main(int argc, char** argv) {
    std::vector<std::string> const arguments(argv + 1, argv + argc);
    if (arguments.size() == 3 && arguments[0] == "--serve")
        return bench::serveMain(arguments[1], arguments[2]);
    if (arguments.size() == 5 && arguments[0] == "--measure")
        return bench::clientMain(arguments[1], arguments[2], arguments[3],
                                 std::atoi(arguments[4].c_str()));
    if (arguments.size() == 1 && arguments[0] == "--busy")
        return bench::busyMain();
    Results results;
    for (Scenario const& scenario : scenarios())
        if (arguments.empty() || std::strstr(scenario.title, arguments[0].c_str()) != nullptr)
            runScenario(scenario, results);
    judge(results);
    return 0;
}
