// reflectorb processes: the processes of the group.
#include "../Processes.h"

#include <fmt/format.h>

#include <thread>

#include "../Units.h"
#include "Commands.h"
#include "Facts.h"

namespace {

class ListProcesses final : public Command {
public:
    ListProcesses() : Command("processes", "Show the processes of the group") {}

    void declare(Options& options) override {
        options.word("process", process_, false, "PROCESS: actor, pid or both, or a pattern");
    }

    ExitCode run(Tool& tool) override {
        processes_ = select(tool.processes(), process_);
        facts_ = askProcessObjects<Facts>(tool.asking(), processes_, factsOf);
        measureCalls(tool);
        Table table({{"ACTOR"},
                     {"PID", Table::Align::kRight},
                     {"SLOT", Table::Align::kRight},
                     {"VERSION"},
                     {"UPTIME", Table::Align::kRight},
                     {"MEMORY", Table::Align::kRight},
                     {"THR", Table::Align::kRight},
                     {"OBJ", Table::Align::kRight},
                     {"CALLS/S", Table::Align::kRight},
                     {"STATE"}});
        Json all = Json::array();
        Missing missing;
        for (std::size_t i = 0; i < processes_.size(); ++i) {
            missing.note(processes_[i], facts_[i]);
            table.add(row(i));
            all.push_back(json(i));
        }
        tool.output().table(table);
        missing.tell(tool.output());
        tool.output().document({{"processes", all}, {"missing", missing.json()}});
        return missing.outcome();
    }

private:
    /** How much more is sent in a while. */
    void measureCalls(Tool& tool) {
        constexpr std::chrono::milliseconds kWhile(250);
        auto const begin = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(kWhile);
        auto const later = askProcessObjects<Facts>(tool.asking(), processes_, factsOf);
        double const seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        for (std::size_t i = 0; i < processes_.size(); ++i)
            rates_.push_back(rateOf(facts_[i].value.sent(), later[i].value.sent(), seconds));
    }

    char const* state(std::size_t i) const { return stateOf(processes_[i], facts_[i]); }

    std::vector<std::string> row(std::size_t i) const {
        Process const& process = processes_[i];
        Facts const& facts = facts_[i].value;
        unsigned int const number =
            facts_[i] ? facts.identity.pid : static_cast<unsigned int>(process.pid);
        std::string const pid = number != 0 ? std::to_string(number) : "";
        std::string const slot = std::to_string(process.slot);
        if (!facts_[i] && process.threads == 0)
            return {process.actor, pid, slot, "", "", "", "", "", "", state(i)};
        if (!facts_[i])
            return {process.actor,
                    pid,
                    slot,
                    "",
                    durationText(process.uptime),
                    bytesText(process.memory),
                    std::to_string(process.threads),
                    "",
                    "",
                    state(i)};
        return {facts.identity.actor,
                pid,
                slot,
                facts.identity.version,
                durationText(facts.usage.uptime),
                bytesText(facts.usage.memory),
                std::to_string(facts.usage.threads),
                std::to_string(facts.usage.objects),
                fmt::format("{:.0f}", rates_[i]),
                state(i)};
    }

    Json json(std::size_t i) const {
        Json told = jsonOf(processes_[i], facts_[i]);
        if (facts_[i])
            told["callsPerSecond"] = rates_[i];
        return told;
    }

    std::string process_;
    ::Processes processes_;
    std::vector<Answer<Facts>> facts_;  // of each process, as the next
    std::vector<double> rates_;
};

}  // namespace

std::unique_ptr<Command> makeProcesses() {
    return std::make_unique<ListProcesses>();
}
