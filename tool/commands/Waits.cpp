// reflectorb calls and waits: who waits for whom.
#include <algorithm>
#include <map>

#include "Commands.h"
#include "Units.h"
#include "Waiting.h"

namespace {

std::string sinceText(WaitingCall const& call) {
    return call.milliseconds == 0 ? "" : durationText(call.milliseconds / 1000.0);
}

class Calls final : public Command {
public:
    Calls() : Command("calls", "List the calls that threads wait for") {}

    void declare(Options& options) override {
        options.word("process", process_, false, "PROCESS: those of its threads");
    }
    ExitCode run(Tool& tool) override {
        Missing missing;
        std::vector<WaitingCall> const calls =
            waitingCalls(tool, select(tool.processes(), process_), missing);
        Table table({{"PROCESS"},
                     {"THREAD", Table::Align::kRight},
                     {"WAITS FOR"},
                     {"WHAT"},
                     {"OBJECT"},
                     {"OPERATION"},
                     {"SINCE", Table::Align::kRight}});
        Json all = Json::array();
        for (WaitingCall const& call : calls) {
            table.add({call.from, std::to_string(call.thread), call.to, call.what, call.object,
                       call.operation, sinceText(call)});
            all.push_back(call.json());
        }
        tool.output().table(table);
        if (calls.empty())
            tool.output().note("no thread waits for a call");
        missing.tell(tool.output());
        tool.output().document({{"calls", all}, {"missing", missing.json()}});
        return missing.outcome();
    }

private:
    std::string process_;
};

/** A call counts as waiting when its thread sleeps for it: shorter ones come and go. */
class Waits final : public Command {
public:
    Waits() : Command("waits", "Show which processes wait for which, and circles") {}

    void declare(Options& options) override {
        options.number("--least", "MILLISECONDS", least_, "Leave out what waits for less");
    }
    ExitCode run(Tool& tool) override {
        Missing missing;
        std::vector<WaitingCall> calls = waitingCalls(tool, tool.processes(), missing);
        calls.erase(std::remove_if(calls.begin(), calls.end(),
                                   [this](WaitingCall const& call) {
                                       return call.milliseconds < std::max(least_, 1u);
                                   }),
                    calls.end());
        std::vector<std::set<std::string>> const cycles = cyclesOf(calls);
        tell(tool, calls, cycles);
        if (calls.empty())
            tool.output().note("nobody waits for anybody");
        missing.tell(tool.output());
        Json all = Json::array();
        for (WaitingCall const& call : calls) {
            all.push_back(call.json());
            all.back()["inCycle"] = isIn(cycles, call);
        }
        tool.output().document({{"waits", all}, {"cycles", cycles}, {"missing", missing.json()}});
        return missing.outcome();
    }

private:
    using Cycles = std::vector<std::set<std::string>>;

    static bool isIn(Cycles const& cycles, WaitingCall const& call) {
        return std::any_of(cycles.begin(), cycles.end(), [&](auto const& cycle) {
            return cycle.count(call.from) != 0 && cycle.count(call.to) != 0;
        });
    }

    static void tell(Tool& tool, std::vector<WaitingCall> const& calls, Cycles const& cycles) {
        std::map<std::string, std::vector<WaitingCall const*>> ofProcess;
        for (WaitingCall const& call : calls)
            ofProcess[call.from].push_back(&call);
        for (auto const& process : ofProcess) {
            tool.output().heading(process.first);
            for (WaitingCall const* const call : process.second)
                tool.output().line("  -> " + call->to + "  " + call->object +
                                   (call->operation.empty() ? "" : "/" + call->operation) +
                                   (call->object.empty() ? call->what : "") + "  thread " +
                                   std::to_string(call->thread) + "  " + sinceText(*call) +
                                   (isIn(cycles, *call) ? "  CYCLE" : ""));
        }
        for (auto const& cycle : cycles) {
            std::string names;
            for (std::string const& name : cycle)
                names += (names.empty() ? "" : ", ") + name;
            tool.output().line("CYCLE: they wait for each other: " + names);
        }
    }

    unsigned int least_ = 1;
};

}  // namespace

std::unique_ptr<Command> makeCalls() {
    return std::make_unique<Calls>();
}
std::unique_ptr<Command> makeWaits() {
    return std::make_unique<Waits>();
}
