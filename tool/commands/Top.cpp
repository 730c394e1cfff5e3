// reflectorb top: the processes and the busiest objects, live on the whole screen.
#include <curses.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <map>

#include "../Processes.h"
#include "../Units.h"
#include "Commands.h"
#include "Facts.h"
#include "Staying.h"

// Some of the macros of curses have names of ours.
#undef timeout
#undef erase

namespace {

using processobject::Call;

/** The screen, for a scope: what was there comes back. One at a time. */
class Screen {
public:
    Screen() {
        std::setlocale(LC_ALL, "");
        if (!newterm(nullptr, stdout, stdin))
            throw Failure(ExitCode::kNoAccess, "the terminal is not known here");
        cbreak();
        noecho();
        curs_set(0);
        nodelay(stdscr, TRUE);
    }
    ~Screen() { endwin(); }
    Screen(Screen const&) = delete;
    Screen& operator=(Screen const&) = delete;

    static int key() { return getch(); }
    static std::size_t width() { return static_cast<std::size_t>(COLS); }
    /** Lines that find no room are left out. */
    static void show(std::vector<std::string> const& lines) {
        werase(stdscr);
        for (int i = 0; i < std::min(static_cast<int>(lines.size()), LINES); ++i)
            mvaddstr(i, 0, lines[static_cast<std::size_t>(i)].c_str());
        refresh();
    }
};

/** What is waited for again and again: each look counts the calls that it sees, and what earlier
 * ones have seen fades. */
class BusyObjects {
public:
    void look(Tool& tool, std::vector<Answer<Facts>> const& samples) {
        for (auto& entry : seen_)
            entry.second *= kFading;
        for (Answer<Facts> const& sample : samples) {
            for (Call const& call : sample.value.calls) {
                if (call.object != 0)
                    note(tool, call);
            }
        }
    }
    Table table() const {
        Table table({{"BUSY", Table::Align::kRight}, {"OBJECT"}});
        for (auto const& one : busiest())
            table.add({fmt::format("{:.1f}", one.first), one.second});
        return table;
    }
    Json json() const {
        Json all = Json::array();
        for (auto const& one : busiest())
            all.push_back({{"object", one.second}, {"busy", one.first}});
        return all;
    }

private:
    static constexpr double kFading = 0.8;

    std::vector<std::pair<double, std::string>> busiest() const {
        constexpr double kLeast = 0.05;
        std::vector<std::pair<double, std::string>> busiest;
        for (auto const& entry : seen_) {
            if (entry.second >= kLeast)
                busiest.emplace_back(entry.second, entry.first);
        }
        std::sort(busiest.rbegin(), busiest.rend());
        return busiest;
    }

    void note(Tool& tool, Call const& call) {
        std::string const object = tool.objects().all().nameOf({call.target, call.object});
        seen_[(object.empty() ? fmt::format("rmi_{:X}_{:X}", call.target, call.object) : object) +
              (call.operation.empty() ? "" : "/" + call.operation)] += 1;
    }

    std::map<std::string, double> seen_;  // how often of late, by object and operation
};

class TopSession final : public Session {
public:
    TopSession(Tool& tool, unsigned int interval, unsigned int count)
        : tool_(tool), interval_(interval), count_(count) {
        if (isatty(STDOUT_FILENO) == 1 && !tool.output().isJson())
            screen_ = std::make_unique<Screen>();
    }

    bool goOn() override {
        auto const now = std::chrono::steady_clock::now();
        if (looks_ == 0 || now - last_ >= interval_) {
            double const seconds =
                looks_ > 0 ? std::chrono::duration<double>(now - last_).count() : 0;
            last_ = now;
            look(seconds);
            if (++looks_ == count_)
                return false;
        }
        return !screen_ || Screen::key() != 'q';
    }
    void end() override { screen_.reset(); }

private:
    void look(double seconds) {
        constexpr unsigned int kSeldom = 10;
        if (looks_ % kSeldom == kSeldom - 1) {
            tool_.asking().hopeAgain();
            tool_.objects().forget();  // there are new ones, perhaps
        }
        Processes const processes = presentProcesses(tool_.asking());
        auto const samples = askProcessObjects<Facts>(tool_.asking(), processes, factsOf);
        busy_.look(tool_, samples);
        Table table({{"PROCESS"},
                     {"CALLS/S", Table::Align::kRight},
                     {"FAILED/S", Table::Align::kRight},
                     {"WAITING", Table::Align::kRight},
                     {"MEMORY", Table::Align::kRight},
                     {"THREADS", Table::Align::kRight},
                     {"OBJECTS", Table::Align::kRight},
                     {"UPTIME", Table::Align::kRight}});
        std::map<std::string, Facts> latest;
        Json all = Json::array();
        for (std::size_t i = 0; i < processes.size(); ++i) {
            std::string const name = processes[i].name();
            if (samples[i]) {
                latest[name] = samples[i].value;
                add(name, samples[i].value, seconds, table, all);
                continue;
            }
            char const* const state = stateOf(processes[i], samples[i]);
            table.add({name, "", "", "", "", "", "", state});
            all.push_back({{"process", name}, {"state", state}});
        }
        before_ = std::move(latest);
        show(processes.size(), table);
        tool_.output().event({{"processes", all}, {"busiest", busy_.json()}});
    }

    /** How much more of something there is a second. */
    double rate(std::string const& name, Facts const& sample, std::uint64_t (Facts::*count)() const,
                double seconds) const {
        auto const before = before_.find(name);
        return before == before_.end()
                   ? 0
                   : rateOf((before->second.*count)(), (sample.*count)(), seconds);
    }
    void add(std::string const& name, Facts const& sample, double seconds, Table& table,
             Json& all) const {
        double const calls = rate(name, sample, &Facts::sent, seconds);
        double const failed = rate(name, sample, &Facts::failed, seconds);
        table.add({name, fmt::format("{:.0f}", calls), fmt::format("{:.0f}", failed),
                   std::to_string(sample.calls.size()), bytesText(sample.usage.memory),
                   std::to_string(sample.usage.threads), std::to_string(sample.usage.objects),
                   durationText(sample.usage.uptime)});
        all.push_back({{"process", name},
                       {"state", "ok"},
                       {"callsPerSecond", calls},
                       {"failedPerSecond", failed},
                       {"waiting", sample.calls.size()},
                       {"memory", sample.usage.memory},
                       {"threads", sample.usage.threads},
                       {"objects", sample.usage.objects},
                       {"uptime", sample.usage.uptime}});
    }

    void show(std::size_t count, Table const& table) {
        std::size_t const width = screen_ ? Screen::width() : tool_.output().width();
        std::vector<std::string> lines{
            fmt::format("{} processes{}", count, screen_ ? "; q ends" : "")};
        for (std::string const& line : table.lines(width, true))
            lines.push_back(line);
        lines.emplace_back();
        for (std::string const& line : busy_.table().lines(width, true))
            lines.push_back(line);
        if (screen_) {
            Screen::show(lines);
            return;
        }
        for (std::string const& line : lines)
            tool_.output().line(line);
    }

    Tool& tool_;
    std::chrono::seconds const interval_;
    unsigned int const count_;
    std::unique_ptr<Screen> screen_;
    std::chrono::steady_clock::time_point last_;
    unsigned int looks_ = 0;
    std::map<std::string, Facts> before_;  // by the names of processes
    BusyObjects busy_;
};

class Top final : public Command {
public:
    Top() : Command("top", "Show processes and the busiest objects, live") {}

    void declare(Options& options) override {
        options.number("--interval", "SECONDS", interval_, "Between two looks");
        options.number("--count", "N", count_, "End after so many looks");
    }
    ExitCode run(Tool&) override { return ExitCode::kDone; }
    bool stays() const override { return true; }
    ExitCode stay(Settings const& settings, Output& output) override {
        return stayInGroup(settings, output, 0, [this](Tool& tool, Events&) {
            return std::make_unique<TopSession>(tool, interval_, count_);
        });
    }

private:
    unsigned int interval_ = 1;
    unsigned int count_ = 0;
};

}  // namespace

std::unique_ptr<Command> makeTop() {
    return std::make_unique<Top>();
}
