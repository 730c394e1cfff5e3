// reflectorb processes: the processes of the group.
#include "../Processes.h"

#include <fmt/format.h>

#include <thread>

#include "../Units.h"
#include "Commands.h"

namespace {

using processobject::Identity;
using processobject::Traffic;
using processobject::Usage;

struct Facts {
    Identity identity;
    Usage usage;
    std::uint64_t sent = 0;
};

/** What it has sent so far: the counters start afresh when somebody takes them. */
std::optional<std::uint64_t> sentBy(TreflectProcessClient const& client) {
    TipprmiResult<std::vector<Traffic>> const traffic = client.getTraffic();
    if (!traffic)
        return std::nullopt;
    std::uint64_t sent = 0;
    for (Traffic const& counted : traffic.value())
        sent += counted.sent;
    return sent;
}

std::optional<Facts> factsOf(TreflectProcessClient const& client) {
    TipprmiResult<Identity> const identity = client.getIdentity();
    TipprmiResult<Usage> const usage = client.getUsage();
    std::optional<std::uint64_t> const sent = sentBy(client);
    if (!identity || !usage || !sent)
        return std::nullopt;
    return Facts{identity.value(), usage.value(), *sent};
}

class List final : public Command {
public:
    List() : Command("processes", "Show the processes of the group") {}

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
                     {"THREADS", Table::Align::kRight},
                     {"OBJECTS", Table::Align::kRight},
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
        tool.output().document({{"processes", all}});
        return ExitCode::kDone;
    }

private:
    /** How much more is sent in a while. */
    void measureCalls(Tool& tool) {
        constexpr std::chrono::milliseconds kWhile(250);
        auto const begin = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(kWhile);
        auto const later = askProcessObjects<std::uint64_t>(tool.asking(), processes_, sentBy);
        double const seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        for (std::size_t i = 0; i < processes_.size(); ++i) {
            std::uint64_t const before = facts_[i].value.sent;
            std::uint64_t const after = later[i].value;
            rates_.push_back(
                later[i] && after > before ? static_cast<double>(after - before) / seconds : 0);
        }
    }

    std::string state(std::size_t i) const {
        if (processes_[i].isStopped)
            return "stopped";
        if (facts_[i])
            return "ok";
        return facts_[i].timedOut() ? "does not answer" : "without process object";
    }

    std::vector<std::string> row(std::size_t i) const {
        Process const& process = processes_[i];
        Facts const& facts = facts_[i].value;
        std::string const pid = std::to_string(process.pid);
        std::string const slot = std::to_string(process.slot);
        if (!facts_[i])
            return {process.actor, pid, slot, "", "", "", "", "", "", state(i)};
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
        Process const& process = processes_[i];
        Facts const& facts = facts_[i].value;
        Json brokers = Json::array();
        for (TreflectOrbId const broker : process.brokers)
            brokers.push_back(broker.value());
        Json told = {{"actor", process.actor},
                     {"pid", process.pid},
                     {"slot", process.slot},
                     {"brokers", brokers},
                     {"state", state(i)}};
        if (!facts_[i])
            return told;
        told["actor"] = facts.identity.actor;
        told["user"] = facts.identity.user;
        told["version"] = facts.identity.version;
        told["started"] = facts.identity.started;
        told["commandLine"] = facts.identity.commandLine;
        told["uptime"] = facts.usage.uptime;
        told["memory"] = facts.usage.memory;
        told["threads"] = facts.usage.threads;
        told["descriptors"] = facts.usage.descriptors;
        told["mostDescriptors"] = facts.usage.mostDescriptors;
        told["objects"] = facts.usage.objects;
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
    return std::make_unique<List>();
}
