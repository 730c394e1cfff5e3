// What grows with the number of brokers: many processes that all know each other are asked to find,
// to observe and to create.
//
//   reflectorb-bench-scale [<number of processes>...]      10, 50 and 200 if none is given
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Child.h"
#include "ScaleMember.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRepeats = 5;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

/** Numbers of a member's answer. */
struct Answer {
    double first = 0;
    double second = 0;
    double third = 0;
};

class Members : boost::noncopyable {
public:
    explicit Members(int count) {
        for (int i = 0; i < count; ++i)
            start();
    }

    ~Members() {
        for (auto const& member : members_)
            member->closeInput();
        for (auto const& member : members_)
            member->waitForEnd();
    }

    std::size_t size() const { return members_.size(); }
    void start() {
        members_.push_back(
            std::make_unique<bench::Child>(std::vector<std::string>{"--member", folder_.path()}));
    }
    void tell(std::size_t member, std::string const& command) {
        members_[member]->writeLine(command);
    }
    Answer await(std::size_t member) {
        std::string line;
        if (!members_[member]->readLine(line)) {
            std::fprintf(stderr, "a member has ended\n");
            std::exit(1);
        }
        Answer answer;
        std::sscanf(line.c_str(), "%lf %lf %lf", &answer.first, &answer.second, &answer.third);
        return answer;
    }
    Answer ask(std::size_t member, std::string const& command) {
        tell(member, command);
        return await(member);
    }
    /** All at once; when the last has answered. */
    std::vector<Answer> askAll(std::string const& command) {
        for (std::size_t i = 0; i < size(); ++i)
            tell(i, command);
        std::vector<Answer> answers;
        for (std::size_t i = 0; i < size(); ++i)
            answers.push_back(await(i));
        return answers;
    }
    void awaitAll() { askAll("group " + std::to_string(size())); }

private:
    bench::TemporaryFolder folder_;
    std::vector<std::unique_ptr<bench::Child>> members_;
};

void report(char const* what, double value, char const* unit) {
    std::printf("  %-58s %10.2f %s\n", what, value, unit);
    std::fflush(stdout);
}

/** Median time of a search by the first member, in microseconds. */
double locate(Members& members, std::string const& name) {
    std::vector<double> times;
    for (int i = 0; i < kRepeats; ++i)
        times.push_back(members.ask(0, "locate " + name).first);
    return median(times);
}

/** Messages that a member has sent since it was last asked, and their answers. */
double messagesOf(Members& members, std::size_t member) {
    return 2 * members.ask(member, "sent").first;
}

/** From the creation of an object by the last member until the last observer is told. */
void measureCreation(Members& members) {
    std::vector<double> toLast;
    std::vector<double> toAnswers;
    messagesOf(members, members.size() - 1);
    for (int i = 0; i < kRepeats; ++i) {
        Answer const created = members.ask(members.size() - 1, "create");
        toAnswers.push_back(created.first);
        double last = 0;
        for (Answer const& told : members.askAll("told"))
            last = std::max(last, told.first);
        toLast.push_back(last - created.second);
    }
    report("creation until the last observer is told", median(toLast), "us");
    report("messages of a creation", messagesOf(members, members.size() - 1) / kRepeats, "");
    report("creation until all have answered", median(toAnswers), "us");
}

double average(std::vector<Answer> const& answers, double Answer::*figure) {
    double sum = 0;
    for (Answer const& answer : answers)
        sum += answer.*figure;
    return sum / static_cast<double>(answers.size());
}

void reportFigures(Members& members, char const* when) {
    std::vector<Answer> const figures = members.askAll("figures");
    std::printf("  %s, per process: %.0f KiB resident, %.1f threads, %.1f descriptors\n", when,
                average(figures, &Answer::first), average(figures, &Answer::second),
                average(figures, &Answer::third));
}

void measure(int count) {
    std::printf("\n%d processes\n", count);
    auto const start = Clock::now();
    Members members(count);
    members.awaitAll();
    report("all started together until all know all", millisecondsSince(start), "ms");
    reportFigures(members, "knowing each other");
    members.ask(members.size() - 1, "publish named");
    report("first search for an object of another process", members.ask(0, "locate named").first,
           "us");
    report("search for an object of another process", locate(members, "named"), "us");
    members.ask(0, "locate nowhere");
    messagesOf(members, 0);
    report("search for an object that is nowhere", locate(members, "nowhere"), "us");
    report("messages of that", messagesOf(members, 0) / kRepeats, "");
    auto const observing = Clock::now();
    std::vector<Answer> const observed = members.askAll("observe");
    report("all begin to observe a class, until the last has", millisecondsSince(observing), "ms");
    report("of that, one process, average", average(observed, &Answer::first) / 1000, "ms");
    report("messages of one process for that", messagesOf(members, 0), "");
    measureCreation(members);
    reportFigures(members, "observing each other");
    auto const newcomer = Clock::now();
    members.start();
    members.awaitAll();
    report("start of one more until all know it", millisecondsSince(newcomer), "ms");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--member") == 0)
        return bench::memberMain(argv[2]);
    std::vector<int> counts;
    for (int i = 1; i < argc; ++i)
        counts.push_back(std::atoi(argv[i]));
    if (counts.empty())
        counts = {10, 50, 200};
    for (int const count : counts) {
        if (count < 2) {
            std::fprintf(stderr, "usage: %s [<number of processes, 2 or more>...]\n", argv[0]);
            return 2;
        }
        measure(count);
    }
    return 0;
}
