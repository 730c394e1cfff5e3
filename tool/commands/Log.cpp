// reflectorb log: what processes have logged lately.
#include <transport.h>

#include <algorithm>
#include <map>

#include "Commands.h"
#include "Staying.h"
#include "Units.h"

namespace {

using processobject::LogRecord;
using Records = std::vector<LogRecord>;

constexpr unsigned int kLowestLevel = 6;

std::string textOf(std::string const& process, LogRecord const& record) {
    return timeText(record.time) + "  " + std::to_string(record.level) + "  " + process + "  " +
           record.source + ":" + std::to_string(record.line) + "  " + record.text;
}

Json jsonOf(std::string const& process, LogRecord const& record) {
    return {{"time", record.time},     {"level", record.level},   {"process", process},
            {"thread", record.thread}, {"source", record.source}, {"line", record.line},
            {"text", record.text},     {"number", record.number}};
}

/** What is new in the logs of several processes. The main thread reads. */
class Logs {
public:
    Logs(Tool& tool, Processes const& processes, unsigned int level) : tool_(tool), level_(level) {
        become(processes);
    }

    /** From now on those of these processes. Of one that was there already, only what is new. */
    void become(Processes const& processes) {
        std::map<TreflectOrbId, std::uint64_t> known;
        for (std::size_t i = 0; i < processes_.size(); ++i)
            known[processes_[i].broker()] = last_[i];
        processes_ = processes;
        last_.clear();
        for (Process const& process : processes_)
            last_.push_back(known[process.broker()]);
    }

    struct Line {
        std::string process;
        LogRecord record;
    };
    /** In the order of their times. */
    std::vector<Line> read() {
        std::vector<TreflectOrbId> brokers;
        for (Process const& process : processes_)
            brokers.push_back(process.broker());
        auto const answers = tool_.asking().each<Records>(
            brokers, [brokers, last = last_](std::size_t i) -> std::optional<Records> {
                TreflectProcessClient const client = TreflectProcessClient::of(brokers[i]);
                return client.isConnected() ? valueOf(client.log(last[i])) : std::nullopt;
            });
        std::vector<Line> lines;
        missing_ = {};
        for (std::size_t i = 0; i < processes_.size(); ++i) {
            missing_.note(processes_[i], answers[i]);
            for (LogRecord const& record : answers[i].value) {
                last_[i] = std::max(last_[i], record.number);
                if (record.level <= static_cast<int>(level_))
                    lines.push_back({processes_[i].name(), record});
            }
        }
        std::stable_sort(lines.begin(), lines.end(), [](Line const& a, Line const& b) {
            return a.record.time < b.record.time;
        });
        return lines;
    }
    Missing const& missing() const { return missing_; }

private:
    Tool& tool_;
    Processes processes_;
    std::vector<std::uint64_t> last_;  // the number of the last record of each
    unsigned int const level_;
    Missing missing_;
};

/** Processes that come are followed as well, once there are any that are wanted. */
class LogSession final : public Session {
public:
    LogSession(Tool& tool, Events& events, std::string pattern, unsigned int level)
        : tool_(tool), pattern_(std::move(pattern)), logs_(tool, {}, level), events_(events) {
        goOn();
        logs_.missing().tell(tool.output());
    }
    bool goOn() override {
        constexpr unsigned int kSeldom = 150;  // looks
        if (++looks_ % kSeldom == 0)
            tool_.asking().hopeAgain();
        lookWhoIsThere();
        for (Logs::Line const& line : logs_.read())
            events_.addOwn({textOf(line.process, line.record), jsonOf(line.process, line.record)});
        return true;
    }

private:
    void lookWhoIsThere() {
        auto present = Transport::TransportLayer::instance().getTerminations();
        if (present == present_)
            return;
        present_ = std::move(present);
        logs_.become(matching(presentProcesses(tool_.asking()), pattern_));
    }

    Tool& tool_;
    std::string const pattern_;
    Logs logs_;
    Events& events_;
    decltype(Transport::TransportLayer::instance().getTerminations()) present_;
    unsigned int looks_ = 0;
};

class Log final : public Command {
public:
    Log() : Command("log", "Show what processes have logged lately") {}

    void declare(Options& options) override {
        options.word("process", process_, false, "PROCESS: actor, pid or both, or a pattern");
        options.flag("-f,--follow", follow_, "Go on with what comes");
        options.number("--level", "LEVEL", level_, "Leave out what is above: 0 fatal to 6 notes");
        options.number("--count", "N", count_, "With --follow: end after so many records");
    }
    ExitCode run(Tool& tool) override {
        Logs logs(tool, select(tool.processes(), process_), level_);
        Json all = Json::array();
        for (Logs::Line const& line : logs.read()) {
            tool.output().line(textOf(line.process, line.record));
            all.push_back(jsonOf(line.process, line.record));
        }
        if (all.empty())
            tool.output().note("there are no records");
        logs.missing().tell(tool.output());
        tool.output().document({{"records", all}, {"missing", logs.missing().json()}});
        return logs.missing().outcome();
    }
    bool stays() const override { return follow_; }
    ExitCode stay(Settings const& settings, Output& output) override {
        return stayInGroup(settings, output, count_, [this](Tool& tool, Events& events) {
            return std::make_unique<LogSession>(tool, events, process_, level_);
        });
    }

private:
    std::string process_;
    bool follow_ = false;
    unsigned int level_ = kLowestLevel;
    unsigned int count_ = 0;
};

}  // namespace

std::unique_ptr<Command> makeLog() {
    return std::make_unique<Log>();
}
