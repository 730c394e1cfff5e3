#include "Supervisor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Slowness.h"

namespace soak {
namespace {

using testsupport::ChildProgram;
using testsupport::kSlow;

constexpr long long kSecond = 1'000'000;
constexpr long long kStretch = 3 * kSecond;
constexpr long long kLongestStop = kSecond / 5;
/** The first actors are never killed: what grows shows in them. */
constexpr unsigned int kSpared = 2;
constexpr long long kPatience = (kSlow ? 60 : 20) * kSecond;
constexpr std::size_t kMostEvidence = 40;  // lines
constexpr std::size_t kMostFaults = 10;    // that are printed

// Growth that a process that stays may show after its first stretches.
constexpr std::size_t kWarmStretches = 4;
constexpr long kMoreKilobytes = 4096;
constexpr long kMoreDescriptors = 24;
constexpr long kMoreThreads = 8;

Limits limits() {
    Limits all;
    if (kSlow)
        all = {40 * kSecond, 15 * kSecond, 10 * kSecond};
    return all;
}

void pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

template <class Condition>
bool eventually(Condition&& condition) {
    return testsupport::eventually(condition, std::chrono::milliseconds(kPatience / 1000));
}

std::string lastLine(std::string const& path) {
    std::string last;
    std::ifstream lines(path);
    for (std::string line; std::getline(lines, line);)
        last = line;
    return last;
}

bool isEvidence(std::string const& line, std::vector<std::string> const& words) {
    auto const stands = [&](std::string const& word) {
        return (line + " ").find(" " + word + " ") != std::string::npos;
    };
    bool const concernsTwo = stands("told") || stands("call");
    return !words.empty() && (concernsTwo ? std::all_of(words.begin(), words.end(), stands)
                                          : std::any_of(words.begin(), words.end(), stands));
}

long countEntries(std::string const& folder) {
    std::error_code ignored;
    std::filesystem::directory_iterator const all(folder, ignored);
    return ignored ? 0 : static_cast<long>(std::distance(begin(all), end(all)));
}

}  // namespace

Supervisor::Supervisor(Options const& options)
    : options_(options), random_(options.seed), checker_(limits()), slots_(options.actors) {
    for (unsigned int i = 0; i < options.actors; ++i)
        slots_[i].actor = i;
}

unsigned int Supervisor::dice(unsigned int sides) {
    return static_cast<unsigned int>(random_()) % sides;
}

bool Supervisor::run() {
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
    printTally();
    if (failed())
        printFaults();
    return !failed();
}

// ---- Processes

void Supervisor::start(Slot& slot) {
    ++slot.life;
    std::string const path = options_.folder + "/journal." + slot.current().text();
    slot.journal.emplace(path);
    slot.up = false;
    slot.deadline = now() + kPatience;
    slot.usage.clear();
    slot.child = std::make_unique<ChildProgram>(
        "soak_actor", std::vector<std::string>{
                          std::to_string(slot.actor), std::to_string(slot.life),
                          std::to_string(options_.seed), std::to_string(slots_.size()), path});
    checker_.started(slot.current(), now());
}

void Supervisor::kill(Slot& slot) {
    checker_.killed(slot.current(), now());
    slot.child->signal(SIGKILL);
    if (int const code = slot.child->exitCode(); code != -SIGKILL) {
        checker_.report({"nobody but the victims dies",
                         "actor " + slot.current().text() + " had ended with " +
                             std::to_string(code) + " when it was to be killed",
                         {}});
        keepLog(slot);
    }
    slot.child.reset();
    leftJournals_.emplace_back(slot.current(), *slot.journal);
    ++kills_;
}

/** Sees who has come up, and who is dead that should live. */
void Supervisor::watchProcesses(bool acting) {
    for (Slot& slot : slots_) {
        if (!slot.child)
            continue;
        if (auto const status = slot.child->waitForExit(std::chrono::milliseconds(0))) {
            checker_.report({"nobody but the victims dies",
                             "actor " + slot.current().text() + " ended with status " +
                                 std::to_string(*status) + " (as waitpid tells it)",
                             {}});
            keepLog(slot);
            slot.child.reset();
            continue;
        }
        if (slot.up)
            continue;
        slot.up = slot.child->waitForLine("up", std::chrono::milliseconds(0)).has_value();
        if (slot.up && acting)
            slot.child->writeLine("go 0");
        if (!slot.up && now() > slot.deadline) {
            reportHang(slot, "does not come up");
            slot.deadline = now() + kPatience;
        }
    }
}

void Supervisor::awaitStarts() {
    while (!failed() &&
           !std::all_of(slots_.begin(), slots_.end(), [](Slot const& slot) { return slot.up; })) {
        watchProcesses(false);
        pause();
    }
}

// ---- A stretch of action, with kills

void Supervisor::stretch() {
    ++stretches_;
    for (Slot const& slot : slots_)
        slot.child->writeLine("go 0");
    std::vector<Stroke> strokes = plan(kStretch);
    long long const begin = now();
    while (!failed() && now() < begin + kStretch) {
        for (Stroke& stroke : strokes)
            strike(stroke, now() - begin);
        watchProcesses(true);
        pause();
    }
    for (Stroke& stroke : strokes)
        strike(stroke, kStretch);
    awaitStarts();
}

/** Victims fall one by one or several at once, and come back likewise: those that come back
 * together subscribe at each other while both start. */
std::vector<Supervisor::Stroke> Supervisor::plan(long long length) {
    std::vector<Stroke> strokes;
    unsigned int const victims = dice(5);
    bool const fallTogether = dice(2) == 0;
    bool const riseTogether = dice(2) == 0;
    auto const moment = [&] { return static_cast<long long>(dice(1000)) * length / 1500; };
    long long const fall = moment();
    long long const rise = fall + moment() / 2;
    for (unsigned int i = 0; i < victims; ++i) {
        Stroke stroke;
        stroke.actor = kSpared + dice(static_cast<unsigned int>(slots_.size()) - kSpared);
        stroke.kill = fallTogether ? fall : moment();
        stroke.stop = stroke.kill - dice(2) * kLongestStop;
        stroke.restart = riseTogether ? std::max(rise, stroke.kill) : stroke.kill + moment() / 2;
        bool const isVictim = std::any_of(strokes.begin(), strokes.end(), [&](Stroke const& other) {
            return other.actor == stroke.actor;
        });
        if (!isVictim)
            strokes.push_back(stroke);
    }
    return strokes;
}

/** All that is due, also when several things are. */
void Supervisor::strike(Stroke& stroke, long long time) {
    Slot& slot = slots_[stroke.actor];
    if (stroke.state == Stroke::acting && stroke.stop <= time && slot.child) {
        slot.child->signal(SIGSTOP);
        stroke.state = Stroke::stopped;
    }
    if (stroke.state == Stroke::stopped && stroke.kill <= time && slot.child) {
        kill(slot);
        stroke.state = Stroke::killed;
    }
    if (stroke.state == Stroke::killed && stroke.restart <= time) {
        start(slot);
        stroke.state = Stroke::restarted;
    }
}

// ---- Rest and judgement

void Supervisor::settle() {
    if (failed() || !order("rest"))
        return;
    letEverybodyMeet();
    readJournals();
    if (failed())
        return;
    checker_.fence(now());
    balanceOneWayCalls();
    measure();
    for (Slot& slot : slots_)
        slot.journal->rotate();
}

/** Has all actors do something, and waits until they have. */
bool Supervisor::order(std::string const& what) {
    std::string const line = what + " " + std::to_string(++orders_);
    for (Slot const& slot : slots_)
        slot.child->writeLine(line);
    long long const end = now() + kPatience;
    for (Slot& slot : slots_) {
        auto const rest = std::chrono::milliseconds(std::max(0LL, end - now()) / 1000);
        if (slot.child->waitForLine(line, rest))
            continue;
        watchProcesses(false);
        if (slot.child)
            reportHang(slot, "does not come to the end of \"" + what + "\"");
    }
    return !failed();
}

/** A broker tells of newcomers one after the other: whoever has caught up with the one that comes
 * last has caught up with all. */
void Supervisor::letEverybodyMeet() {
    ChildProgram beacon("soak_actor", {"beacon"});
    auto const line = beacon.waitForLine("start ");
    if (!line) {
        checker_.report({"brokers start", "the beacon did not come up", {}});
        return;
    }
    std::string const termination = line->substr(line->find(' ') + 1);
    for (Slot& slot : slots_) {
        bool const met = eventually([&] {
            readJournals();
            return checker_.hasMet(slot.current(), termination);
        });
        if (!met)
            reportHang(slot, "does not catch up with broker " + termination);
    }
    beacon.closeInput();
    beacon.waitForExit();
}

void Supervisor::balanceOneWayCalls() {
    std::vector<std::string> reasons;
    bool const balanced = eventually([&] {
        if (!order("tell"))
            return true;
        readJournals();
        reasons = checker_.unbalanced();
        return reasons.empty();
    });
    if (!balanced)
        for (std::string const& reason : reasons)
            checker_.report({"one-way calls between those that live arrive once", reason, {}});
}

void Supervisor::readJournals() {
    std::vector<std::pair<Life, Event>> events;
    auto const take = [&](Life life, JournalReader& journal) {
        for (Event& event : journal.read())
            events.emplace_back(life, std::move(event));
    };
    for (auto& [life, journal] : leftJournals_) {
        take(life, journal);
        std::filesystem::rename(journal.path(), options_.folder + "/killed." + life.text());
    }
    for (Slot& slot : slots_)
        take(slot.current(), *slot.journal);
    leftJournals_.clear();
    std::stable_sort(events.begin(), events.end(), [](auto const& one, auto const& other) {
        return one.second.at < other.second.at;
    });
    for (auto const& [life, event] : events)
        checker_.take(life, event);
}

// ---- What processes use

void Supervisor::measure() {
    for (Slot& slot : slots_) {
        if (!slot.child)
            continue;
        std::string const folder = "/proc/" + std::to_string(slot.child->pid());
        long pages = 0;
        long resident = 0;
        std::ifstream(folder + "/statm") >> pages >> resident;
        slot.usage.push_back({resident * (sysconf(_SC_PAGESIZE) / 1024),
                              countEntries(folder + "/fd"), countEntries(folder + "/task")});
        compare(slot);
    }
}

/** Sanitizers and an emulator use memory of their own. */
void Supervisor::compare(Slot const& slot) {
    if (slot.usage.size() <= kWarmStretches)
        return;
    Usage warm;
    for (std::size_t i = 0; i < kWarmStretches; ++i) {
        warm.kilobytes = std::max(warm.kilobytes, slot.usage[i].kilobytes);
        warm.descriptors = std::max(warm.descriptors, slot.usage[i].descriptors);
        warm.threads = std::max(warm.threads, slot.usage[i].threads);
    }
    Usage const& last = slot.usage.back();
    auto const complain = [&](char const* what, long before, long after) {
        checker_.report({"memory and descriptors of those that stay are flat",
                         "actor " + slot.current().text() + ": " + what + " grew from " +
                             std::to_string(before) + " to " + std::to_string(after) + " in " +
                             std::to_string(slot.usage.size()) + " stretches",
                         {}});
    };
    if (!kSlow && last.kilobytes > warm.kilobytes + kMoreKilobytes)
        complain("resident kB", warm.kilobytes, last.kilobytes);
    if (last.descriptors > warm.descriptors + kMoreDescriptors)
        complain("descriptors", warm.descriptors, last.descriptors);
    if (last.threads > warm.threads + kMoreThreads)
        complain("threads", warm.threads, last.threads);
}

// ---- The end

/** All objects go, so that each can be judged; then all processes go at once. */
void Supervisor::finish() {
    if (!order("clear"))
        return;
    readJournals();
    checker_.fence(now());
    Tally const& tally = checker_.tally();
    if (tally.creationsOnce == 0 || tally.deletionsOnce == 0 || tally.calls == 0)
        checker_.report({"there is something to judge", "nothing was judged", {}});
    for (Slot const& slot : slots_)
        slot.child->writeLine("quit");
    for (Slot& slot : slots_) {
        auto const code = slot.child->exitCode(std::chrono::milliseconds(kPatience / 1000));
        if (code == -1000)
            reportHang(slot, "does not end");
        else if (code != 0)
            checker_.report({"nobody but the victims dies",
                             "actor " + slot.current().text() + " ended with " +
                                 std::to_string(code) + " when told to quit",
                             {}});
        if (code != 0)
            keepLog(slot);
    }
    readJournals();
}

// ---- What was found

void Supervisor::reportHang(Slot& slot, std::string const& what) {
    keepStacks(slot);
    checker_.report(
        {"no call hangs longer than its rule allows",
         "actor " + slot.current().text() + " " + what + " within " +
             std::to_string(kPatience / kSecond) +
             " s; see the stacks. Last in its journal: " + lastLine(slot.journal->path()),
         {}});
}

/** Of all processes, since one that hangs waits for another; as far as there is a debugger. */
void Supervisor::keepStacks(Slot const& slot) {
    if (failed())
        return;
    std::printf("actor %s hangs; keeping stacks\n", slot.current().text().c_str());
    for (Slot const& each : slots_) {
        if (!each.child)
            continue;
        std::string const command = "timeout 60 gdb -p " + std::to_string(each.child->pid()) +
                                    " -batch -ex 'thread apply all bt' >'" + options_.folder +
                                    "/stacks." + each.current().text() + "' 2>&1";
        if (std::system(command.c_str()) != 0)
            std::printf("no stacks of actor %s\n", each.current().text().c_str());
    }
}

void Supervisor::keepLog(Slot const& slot) {
    std::ofstream file(options_.folder + "/log." + slot.current().text());
    for (std::string const& line : slot.child->errorLines())
        file << line << "\n";
}

void Supervisor::printFaults() {
    for (Slot const& slot : slots_) {
        if (slot.child)
            keepLog(slot);
    }
    auto const& faults = checker_.faults();
    std::printf("FOUND %zu faults with seed %u, in stretch %u\n", faults.size(), options_.seed,
                stretches_);
    for (std::size_t i = 0; i < std::min(faults.size(), kMostFaults); ++i) {
        std::printf("\n%zu. Broken: %s\n   %s\n", i + 1, faults[i].invariant.c_str(),
                    faults[i].text.c_str());
        printEvidence(faults[i]);
    }
    std::printf("\nJournals, logs and stacks are in %s\n", options_.folder.c_str());
}

/** The lines with one of the words, but for those about something else that have only one of two.
 */
void Supervisor::printEvidence(Fault const& fault) {
    std::size_t printed = 0;
    for (auto const& entry : std::filesystem::directory_iterator(options_.folder)) {
        std::string const file = entry.path().filename().string();
        bool const isJournal = file.rfind("journal.", 0) == 0 || file.rfind("killed.", 0) == 0;
        std::ifstream lines(entry.path());
        for (std::string line; isJournal && std::getline(lines, line) && printed < kMostEvidence;) {
            if (!isEvidence(line, fault.evidence))
                continue;
            std::printf("   %-14s %s\n", file.c_str(), line.c_str());
            ++printed;
        }
    }
}

void Supervisor::printTally() const {
    Tally const& tally = checker_.tally();
    std::printf(
        "%u stretches, %u kills; judged: %lu creations and %lu deletions told once, %lu "
        "existing ones told, %lu calls (%lu vetoed, %lu failed, %lu of them by a kill), %lu "
        "balances of one-way calls\n",
        stretches_, kills_, tally.creationsOnce, tally.deletionsOnce, tally.creationsAtLeastOnce,
        tally.calls, tally.callsVetoed, tally.callsFailed, tally.callsAcrossKill,
        tally.oneWayBalances);
    for (Slot const& slot : slots_) {
        if (slot.actor < kSpared && !slot.usage.empty())
            std::printf(
                "actor %u: %ld kB, %ld descriptors, %ld threads at first; %ld kB, %ld "
                "descriptors, %ld threads at last\n",
                slot.actor, slot.usage.front().kilobytes, slot.usage.front().descriptors,
                slot.usage.front().threads, slot.usage.back().kilobytes,
                slot.usage.back().descriptors, slot.usage.back().threads);
    }
    std::fflush(stdout);
}

}  // namespace soak
