// A large tree of server objects in one process: what an object costs in memory, and how long it
// takes to build, announce, walk and destroy them, with all objects under one parent and with ten
// under each.
//
//   reflectorb-bench-tree [<number of objects>...]      25,000 and 100,000 if none is given
//
// The figures per object of the last number are held against those of the first: nothing may grow
// faster than the number of objects.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Child.h"
#include "handler_threads.h"
#include "logging.h"
#include "reflect.h"
#include "transport.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int kNodeClass = 0xBE4C4003;
constexpr std::size_t kWalkedRemotely = 10'000;
/** Of a figure per object. What grows with the square of their number would grow fourfold from the
 * smaller tree to the larger; caches hold less of the larger one. */
constexpr double kLargestGrowth = 3;

TreflectMetaClass const nodeMeta("Node", kNodeClass, {}, {});

TipprmiOID rootOid() {
    return {"bench/tree/0", NSID_UNIT};
}

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double residentBytes() {
    long pages = 0;
    if (std::FILE* const file = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(file, "%*d %ld", &pages) != 1)
            pages = 0;
        std::fclose(file);
    }
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void configure(std::string const& folder, char const* actor) {
    Logging::setThreshold(3);
    Transport::Setup::directory(folder);
    Transport::Setup::actor(actor);
}

/** Visits an object and all below it, as a tool does that shows the tree: asks each for its name
 * and its children. Answers how many it has visited, `limit` at most. */
std::size_t walk(TreflectObject const& object, std::size_t limit) {
    if (limit == 0 || object.getRelName().empty())
        return 0;
    std::size_t visited = 1;
    TipprmiSequence<TreflectObject, 0u> const children = object.getChilds();
    for (unsigned int i = 0; i < children.getLength() && visited < limit; ++i)
        visited += walk(children[i], limit - visited);
    return visited;
}

// ---- The process that has the tree -------------------------------------------------------------

class Node final : public TreflectServerObject {
public:
    using TreflectServerObject::TreflectServerObject;

    unsigned int getServerClassId() const override { return kNodeClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return nodeMeta.classIds();
    }
};

class Tree {
public:
    Tree(std::string const& shape, std::size_t count) : flat_(shape == "flat") {
        nodes_.reserve(count);
    }

    void build() {
        for (std::size_t i = 0; i < nodes_.capacity(); ++i) {
            std::string const number = std::to_string(i);
            TreflectObject const* const parent = i == 0 ? nullptr : parentOf(i).getClient();
            nodes_.push_back(std::make_unique<Node>(TipprmiOID("bench/tree/" + number, NSID_UNIT),
                                                    parent, "n" + number));
        }
    }
    void announce() const {
        for (auto const& node : nodes_)
            node->sendCreationEvent();
    }
    std::size_t walkAll() const { return walk(*nodes_.front()->getClient(), nodes_.size()); }
    void destroyLastFirst() {
        while (!nodes_.empty())
            nodes_.pop_back();
    }
    void destroyFirstFirst() {
        for (auto& node : nodes_)
            node.reset();
        nodes_.clear();
    }

private:
    Node& parentOf(std::size_t i) const { return *nodes_[flat_ ? 0 : (i - 1) / 10]; }

    bool const flat_;
    std::vector<std::unique_ptr<Node>> nodes_;
};

void answer(char const* figure, double value) {
    std::printf("%s %f\n", figure, value);
}

double processorMilliseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

/** Processor time, so that neighbours count for less. */
template <class Work>
void answerTime(char const* figure, Work const& work) {
    double const start = processorMilliseconds();
    work();
    answer(figure, processorMilliseconds() - start);
}

int treeMain(std::string const& folder, std::string const& shape, std::size_t count) {
    configure(folder, "bench-tree");
    TreflectHandlerState const permission(true);
    Tree tree(shape, count);
    double const before = residentBytes();
    answerTime("publish_ms", [&] { tree.build(); });
    answer("bytes", residentBytes() - before);
    answerTime("announce_ms", [&] { tree.announce(); });
    std::size_t visited = 0;
    answerTime("walk_ms", [&] { visited = tree.walkAll(); });
    std::printf("%s\n", visited == count ? "ready" : "failed");
    std::fflush(stdout);
    {
        TreflectReleaseHandlerState const outside;
        std::string line;
        std::getline(std::cin, line);
    }
    answerTime("destroy_ms", [&] { tree.destroyLastFirst(); });
    tree.build();
    answerTime("parents_first_ms", [&] { tree.destroyFirstFirst(); });
    return 0;
}

// ---- The process that measures -----------------------------------------------------------------

using Figures = std::map<std::string, double>;

/** Figures up to a line that is none or the end; whether that line is `last`. */
bool readFigures(bench::Child& child, Figures& figures, char const* last) {
    std::string line;
    while (child.readLine(line)) {
        std::istringstream words(line);
        std::string name;
        double value = 0;
        if (!(words >> name >> value))
            return last && line == last;
        figures[name] = value;
    }
    return !last;
}

bool walkRemotely(std::size_t count, Figures& figures) {
    TreflectHandlerState const permission(true);
    TreflectObject const root(rootOid());
    auto const start = Clock::now();
    std::size_t const expected = std::min(count, kWalkedRemotely);
    std::size_t const visited = walk(root, expected);
    figures["remote_us"] = millisecondsSince(start) * 1e3 / static_cast<double>(expected);
    auto const calling = Clock::now();
    for (std::size_t i = 0; i < expected; ++i)
        root.getRelName();
    figures["call_us"] = millisecondsSince(calling) * 1e3 / static_cast<double>(expected);
    auto const asking = Clock::now();
    figures["children"] = root.getChilds().getLength();
    figures["children_ms"] = millisecondsSince(asking);
    return visited == expected;
}

bool measure(std::string const& folder, std::string const& shape, std::size_t count,
             Figures& figures) {
    bench::Child tree({"--tree", folder, shape, std::to_string(count)});
    if (!readFigures(tree, figures, "ready") || !walkRemotely(count, figures))
        return false;
    tree.writeLine("destroy");
    return readFigures(tree, figures, nullptr) && tree.waitForEnd();
}

void print(std::string const& shape, std::size_t count, Figures& figures) {
    auto const each = [&](char const* name) {
        return figures[name] * 1e3 / static_cast<double>(count);
    };
    std::printf("\n%zu objects, %s\n", count,
                shape == "flat" ? "all under one parent" : "ten under each");
    std::printf("  %-44s %10.0f bytes\n", "memory per object",
                figures["bytes"] / static_cast<double>(count));
    std::printf("  %-44s %10.1f ms %8.2f us each\n", "publish", figures["publish_ms"],
                each("publish_ms"));
    std::printf("  %-44s %10.1f ms %8.2f us each\n", "announce, with no subscriber",
                figures["announce_ms"], each("announce_ms"));
    std::printf("  %-44s %10.1f ms %8.2f us each\n", "walk, in the process", figures["walk_ms"],
                each("walk_ms"));
    std::printf("  %-44s %13s %8.2f us each\n", "walk 10,000 from another process", "",
                figures["remote_us"]);
    std::printf("  %-44s %13s %8.2f us each\n", "ask one from there for its name as often", "",
                figures["call_us"]);
    std::printf("  %-34s %9.0f %10.1f ms\n", "ask from there for the children", figures["children"],
                figures["children_ms"]);
    std::printf("  %-44s %10.1f ms %8.2f us each\n", "destroy, children first",
                figures["destroy_ms"], each("destroy_ms"));
    std::printf("  %-44s %10.1f ms %8.2f us each\n", "destroy, parents first",
                figures["parents_first_ms"], each("parents_first_ms"));
    std::fflush(stdout);
}

void judge(std::string const& shape, std::size_t small, Figures& ofSmall, std::size_t large,
           Figures& ofLarge) {
    std::printf("\nTargets, %s: time per object of %zu / of %zu (ratios in this run)\n",
                shape.c_str(), large, small);
    for (char const* name :
         {"publish_ms", "announce_ms", "walk_ms", "destroy_ms", "parents_first_ms"}) {
        double const growth = ofLarge[name] / static_cast<double>(large) /
                              (ofSmall[name] / static_cast<double>(small));
        std::printf("  %-6s %6.2f  (at most %.2f)  %s\n",
                    growth <= kLargestGrowth ? "met" : "MISSED", growth, kLargestGrowth, name);
    }
}

int measureAll(std::vector<std::size_t> const& counts) {
    bench::TemporaryFolder const folder;
    configure(folder.path(), "bench-walker");
    for (char const* shape : {"flat", "deep"}) {
        std::vector<Figures> figures(counts.size());
        for (std::size_t i = 0; i < counts.size(); ++i) {
            if (!measure(folder.path(), shape, counts[i], figures[i])) {
                std::fprintf(stderr, "the tree of %zu objects failed\n", counts[i]);
                return 1;
            }
            print(shape, counts[i], figures[i]);
        }
        if (counts.size() > 1)
            judge(shape, counts.front(), figures.front(), counts.back(), figures.back());
    }
    prepareOrbForDeletion();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--tree") == 0)
        return treeMain(argv[2], argv[3], std::strtoul(argv[4], nullptr, 10));
    std::vector<std::size_t> counts;
    for (int i = 1; i < argc; ++i) {
        counts.push_back(std::strtoul(argv[i], nullptr, 10));
        if (counts.back() < 2) {
            std::fprintf(stderr, "usage: %s [<number of objects, 2 or more>...]\n", argv[0]);
            return 2;
        }
    }
    if (counts.empty())
        counts = {25'000, 100'000};
    return measureAll(counts);
}
