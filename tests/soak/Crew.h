// Processes of the program soak_actor that act together, and what judges them. Who uses it says
// when they act, and what befalls them.
#pragma once

#include <optional>

#include "Checker.h"
#include "Resources.h"
#include "Slowness.h"
#include "Trial.h"

namespace soak {

using testsupport::ChildProgram;
using testsupport::kSlow;

constexpr long long kSecond = 1'000'000;
constexpr std::chrono::seconds kPatience(kSlow ? 60 : 20);
inline constexpr char kOnlyVictimsDie[] = "nobody but the victims dies";
inline constexpr char kAllArrive[] = "one-way calls between those that live arrive once";

template <class Condition>
bool eventually(Condition&& condition) {
    return testsupport::eventually(condition, kPatience);
}

struct Slot {
    Life life;
    std::vector<std::string> command;  // that starts the program
    ChildProgram::Environment environment;
    std::unique_ptr<ChildProgram> child;  // none: it is not there
    std::optional<JournalReader> journal;
    bool up = false;
    long long deadline = 0;  // for coming up
    unsigned int measured = 0;
    testsupport::Resources used;    // as those who judge it have noted
    std::vector<long long> echoes;  // how long those calls took, in microseconds
    bool isTimed = true;            // whether those that it answers count

    std::string name() const { return "actor " + life.text(); }
};

/** One thread, which the actors do not outlive. */
class Crew {
public:
    /** What all are told when they start; see soak_actor. */
    struct Settings {
        unsigned int seed = 0;
        unsigned int actors = 0;
        unsigned int observers = 0;
        bool idsReturn = false;  // see Limits
    };

    Crew(std::string const& folder, Settings const& settings, unsigned int slots)
        : folder_(folder), settings_(settings), slots_(slots) {
        for (unsigned int i = 0; i < slots; ++i) {
            slots_[i].life.actor = i;
            slots_[i].command = testsupport::programCommand("soak_actor");
        }
    }

    std::vector<Slot>& slots() { return slots_; }
    Checker& checker() { return checker_; }
    bool failed() const { return !checker_.faults().empty(); }

    // ---- Processes

    void start(Slot& slot) {
        ++slot.life.number;
        std::string const path = folder_ + "/journal." + slot.life.text();
        slot.journal.emplace(path);
        slot.up = false;
        slot.deadline = now() + std::chrono::microseconds(kPatience).count();
        slot.measured = 0;
        slot.child = std::make_unique<ChildProgram>(
            slot.command,
            std::vector<std::string>{
                std::to_string(slot.life.actor), std::to_string(slot.life.number),
                std::to_string(settings_.seed), std::to_string(settings_.actors),
                std::to_string(settings_.observers), path},
            slot.environment);
    }
    void kill(Slot& slot) {
        checker_.killed(slot.life, now());
        slot.child->signal(SIGKILL);
        if (int const code = slot.child->exitCode(); code != -SIGKILL)
            reportDeath(slot, "had ended with " + std::to_string(code) + " before it was killed");
        forget(slot);
    }
    /** Has one leave as it should, when what it has sent one way has come. */
    void leave(Slot& slot) {
        if (!tell(slot, "rest") || !tell(slot, "clear") || !balanceOneWayCalls(&slot.life))
            return;
        checker_.killed(slot.life, now());
        slot.child->writeLine("quit");
        awaitEnd(slot);
        if (!failed())
            forget(slot);
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
        while (!failed() && !std::all_of(slots_.begin(), slots_.end(),
                                         [](Slot const& slot) { return slot.up || !slot.child; }))
            watchProcesses(false);
    }
    void go() {
        for (Slot const& slot : slots_)
            if (slot.child)
                slot.child->writeLine("go 0");
    }

    // ---- Rest and judgement

    /** All rest, and are judged. Before that they are let meet, unless they have met already
     * whoever has come. */
    enum class Meeting { needed, over };
    void settle(Meeting meeting = Meeting::needed) {
        if (failed() || !order("rest"))
            return;
        if (meeting == Meeting::needed)
            letEverybodyMeet();
        judgeJournals();
        if (failed())
            return;
        checker_.fence(now());
        balanceOneWayCalls();
        for (Slot& slot : slots_)
            if (slot.child)
                slot.journal->rotate();
    }
    /** While they act: until all others that are there know of a broker that has come ("met"), or
     * gone
     * ("lost"). */
    bool awaitNews(char const* verb, std::string const& termination) {
        for (Slot& slot : slots_) {
            bool const isNews = slot.child && checker_.terminationOf(slot.life) != termination;
            bool const heard = !isNews || eventually([&] {
                collect();
                return std::any_of(unjudged_.begin(), unjudged_.end(), [&](auto const& entry) {
                    return entry.first.text() == slot.life.text() && entry.second.verb == verb &&
                           entry.second.words[0] == termination;
                });
            });
            if (heard)
                continue;
            reportHang(slot, std::string("does not write \"") + verb + " " + termination + "\"");
            return false;
        }
        return true;
    }
    std::string terminationOf(Slot const& slot) {
        collect();
        return checker_.terminationOf(slot.life);
    }
    /** All objects go, so that each can be judged; then all processes go at once. */
    void finish() {
        if (!order("clear"))
            return;
        judgeJournals();
        checker_.fence(now());
        for (Slot const& slot : slots_) {
            if (!slot.child)
                continue;
            checker_.killed(slot.life, now());
            slot.child->writeLine("quit");
        }
        for (Slot& slot : slots_)
            if (slot.child)
                awaitEnd(slot);
        judgeJournals();
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
    void reportDeath(Slot& slot, std::string const& how) {
        checker_.report(kOnlyVictimsDie, slot.name() + " " + how);
        keepLog(slot);
    }
    /** Keeps the logs, too. */
    void printFaults() {
        for (Slot const& slot : slots_)
            if (slot.child)
                keepLog(slot);
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

private:
    /** Takes what was written since the last time. What stands for itself goes to the checker. */
    void collect() {
        static std::set<std::string> const plain{"begin", "start", "up", "sent", "received"};
        auto const take = [&](Life life, JournalReader& journal) {
            for (Event& event : journal.read()) {
                if (plain.count(event.verb) != 0) {
                    checker_.take(life, event);
                    if (event.verb != "start")  // which the order of events matters for, too
                        continue;
                }
                if (event.verb == "call" && event.words.back() == "echo" &&
                    slots_[actorOf(event.words[1])].isTimed)
                    slots_[life.actor].echoes.push_back(event.at - event.number(0));
                unjudged_.emplace_back(life, std::move(event));
            }
        };
        for (auto& [life, journal] : leftJournals_)
            take(life, journal);
        for (Slot& slot : slots_)
            if (slot.child)
                take(slot.life, *slot.journal);
        leftJournals_.clear();
    }
    /** Gives the checker the rest, in the order of time, while nobody acts. */
    void judgeJournals() {
        collect();
        std::stable_sort(
            unjudged_.begin(), unjudged_.end(),
            [](auto const& one, auto const& other) { return one.second.at < other.second.at; });
        for (auto const& [life, event] : unjudged_)
            checker_.take(life, event);
        unjudged_.clear();
    }
    /** Has one actor do something, and waits until it has. */
    bool tell(Slot& slot, std::string const& what) {
        std::string const line = what + " " + std::to_string(++orders_);
        slot.child->writeLine(line);
        return awaitDone(slot, line);
    }
    bool awaitDone(Slot& slot, std::string const& line) {
        if (slot.child->waitForLine(line, kPatience))
            return true;
        watchProcesses(false);
        if (slot.child)
            reportHang(slot, "does not come to the end of \"" + line + "\"");
        return false;
    }
    /** The same for all at once. */
    bool order(std::string const& what) {
        std::string const line = what + " " + std::to_string(++orders_);
        for (Slot const& slot : slots_)
            if (slot.child)
                slot.child->writeLine(line);
        for (Slot& slot : slots_)
            if (slot.child && !awaitDone(slot, line))
                return false;
        return !failed();
    }
    /** Whoever has caught up with one that comes last, and with all others that came after it, has
     * caught up with all: those who were there before were asked by its own registrations. */
    void letEverybodyMeet() {
        ChildProgram beacon("soak_actor", {"beacon"}, slots_[0].environment);
        auto const line = beacon.waitForLine("start ");
        std::string const termination = line ? line->substr(line->find(' ') + 1) : "";
        if (!line)
            checker_.report("brokers start", "the beacon did not come up");
        for (Slot& slot : slots_) {
            bool const met = !slot.child || !line || eventually([&] {
                judgeJournals();
                return checker_.hasMet(slot.life, termination);
            });
            if (!met)
                reportHang(slot, "does not catch up with broker " + termination);
        }
        beacon.closeInput();
        beacon.waitForExit();
    }
    /** Of all, or only of one. */
    bool balanceOneWayCalls(Life const* only = nullptr) {
        std::vector<std::string> reasons;
        bool const balanced = eventually([&] {
            if (!order("tell"))
                return true;
            collect();
            reasons = checker_.unbalanced(only);
            return reasons.empty();
        });
        for (std::string const& reason : reasons)
            if (!balanced)
                checker_.report(kAllArrive, reason);
        return !failed();
    }
    void awaitEnd(Slot& slot) {
        if (!slot.child->waitForExit(kPatience))
            reportHang(slot, "does not end");
        else if (int const code = slot.child->exitCode(); code != 0)
            reportDeath(slot, "ended with " + std::to_string(code) + " when told to quit");
    }
    void forget(Slot& slot) {
        slot.child.reset();
        leftJournals_.emplace_back(slot.life, *slot.journal);
    }
    void keepLog(Slot const& slot) const {
        testsupport::keepLog(*slot.child, folder_ + "/log." + slot.life.text());
    }

    std::string const folder_;  // for journals, logs and stacks
    Settings const settings_;
    Limits const limits_ =
        kSlow ? Limits{40 * kSecond, 15 * kSecond, 10 * kSecond, settings_.idsReturn}
              : Limits{10 * kSecond, 2 * kSecond, 2 * kSecond, settings_.idsReturn};
    Checker checker_{limits_};
    std::vector<Slot> slots_;
    std::vector<std::pair<Life, JournalReader>> leftJournals_;  // of those that have gone
    std::vector<std::pair<Life, Event>> unjudged_;
    unsigned int orders_ = 0;
};

}  // namespace soak
