#include "web/Metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

namespace {

/** Seconds. */
constexpr std::array<double, 11> kBounds = {0.00005, 0.0001, 0.00025, 0.0005, 0.001, 0.0025,
                                            0.01,    0.05,   0.25,    1,      5};

std::string label(std::string const& text) {
    std::string escaped;
    for (char const letter : text) {
        if (letter == '\\' || letter == '"')
            escaped += '\\';
        escaped += letter == '\n' ? ' ' : letter;
    }
    return escaped;
}

/** One metric, with a line for each process. */
class Family {
public:
    Family(std::string name, char const* type, char const* help)
        : name_(std::move(name)),
          text_(fmt::format("# HELP {} {}\n# TYPE {} {}\n", name_, help, name_, type)) {}

    void add(std::string const& process, double value, std::string const& more = {}) {
        text_ += fmt::format("{}{{process=\"{}\"{}}} {}\n", name_, label(process), more, value);
    }
    std::string const& text() const { return text_; }

private:
    std::string const name_;
    std::string text_;
};

/** What a process tells, and how long it has taken to do so. */
struct Timed {
    Facts facts;
    double seconds = 0;
};

std::optional<Timed> timedFactsOf(TreflectProcessClient const& client) {
    auto const begin = std::chrono::steady_clock::now();
    if (!client.getUsage())
        return std::nullopt;
    double const seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::optional<Facts> facts = factsOf(client);
    return facts ? std::optional(Timed{std::move(*facts), seconds}) : std::nullopt;
}

std::string usageText(Processes const& processes, std::vector<Answer<Timed>> const& answers) {
    Family up("reflectorb_up", "gauge", "Whether the process object answers.");
    Family memory("reflectorb_memory_bytes", "gauge", "Resident memory.");
    Family threads("reflectorb_threads", "gauge", "Threads.");
    Family descriptors("reflectorb_descriptors", "gauge", "Open descriptors.");
    Family objects("reflectorb_objects", "gauge", "Objects that its brokers serve.");
    Family uptime("reflectorb_uptime_seconds", "gauge", "Since the start of the process.");
    Family waiting("reflectorb_waiting_calls", "gauge", "Calls that threads sleep for just now.");
    for (std::size_t i = 0; i < processes.size(); ++i) {
        std::string const name = processes[i].name();
        up.add(name, answers[i] ? 1 : 0);
        if (!answers[i])
            continue;
        Facts const& facts = answers[i].value.facts;
        memory.add(name, static_cast<double>(facts.usage.memory));
        threads.add(name, facts.usage.threads);
        descriptors.add(name, facts.usage.descriptors);
        objects.add(name, facts.usage.objects);
        uptime.add(name, facts.usage.uptime);
        waiting.add(name, static_cast<double>(std::count_if(
                              facts.calls.begin(), facts.calls.end(),
                              [](auto const& call) { return call.milliseconds > 0; })));
    }
    return up.text() + memory.text() + threads.text() + descriptors.text() + objects.text() +
           uptime.text() + waiting.text();
}

/** The gateway is another broker at each start, and should not be another destination. */
std::string nameOfDestination(Processes const& processes, unsigned int broker) {
    TreflectORB const* const own = TreflectORB::getInstance(NSID_UNIT);
    bool const isOwn = own && own->orbId().value() == broker;
    return isOwn ? "reflectorb web" : nameOfOwner(processes, broker);
}

std::string trafficText(Processes const& processes, std::vector<Answer<Timed>> const& answers) {
    Family calls("reflectorb_calls_total", "counter",
                 "Requests sent to a destination since its counters were taken.");
    Family failures("reflectorb_failures_total", "counter", "Those of them that have failed.");
    for (std::size_t i = 0; i < processes.size(); ++i) {
        std::map<std::string, std::pair<double, double>> to;
        for (processobject::Traffic const& counted : answers[i].value.facts.traffic) {
            auto& both = to[nameOfDestination(processes, counted.destination)];
            both.first += counted.sent;
            both.second += counted.failed;
        }
        for (auto const& [name, both] : to) {
            std::string const destination = ",destination=\"" + label(name) + "\"";
            calls.add(processes[i].name(), both.first, destination);
            failures.add(processes[i].name(), both.second, destination);
        }
    }
    return calls.text() + failures.text();
}

}  // namespace

void Metrics::Latencies::add(double seconds) {
    auto const bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
    ++counts[static_cast<std::size_t>(bound - kBounds.begin())];
    sum += seconds;
}

void Metrics::addLatencies(std::string& text) const {
    std::string const name = "reflectorb_answer_seconds";
    text += fmt::format(
        "# HELP {} How long the process object takes to answer a call.\n# TYPE {} histogram\n",
        name, name);
    for (auto const& [process, latencies] : latencies_) {
        std::string const who = "process=\"" + label(process) + "\"";
        std::uint64_t count = 0;
        for (std::size_t i = 0; i < latencies.counts.size(); ++i) {
            count += latencies.counts[i];
            std::string const bound = i < kBounds.size() ? fmt::format("{}", kBounds[i]) : "+Inf";
            text += fmt::format("{}_bucket{{{},le=\"{}\"}} {}\n", name, who, bound, count);
        }
        text += fmt::format("{}_sum{{{}}} {}\n{}_count{{{}}} {}\n", name, who, latencies.sum, name,
                            who, count);
    }
}

std::string Metrics::text(Settings const& settings) {
    Asking asking(settings.patience());
    Processes const processes = presentProcesses(asking);
    auto const answers = askProcessObjects<Timed>(asking, processes, timedFactsOf);
    std::string text = usageText(processes, answers) + trafficText(processes, answers);
    std::lock_guard<std::mutex> const lock(mutex_);
    std::map<std::string, Latencies> present;
    for (std::size_t i = 0; i < processes.size(); ++i) {
        Latencies& latencies = present[processes[i].name()] = latencies_[processes[i].name()];
        if (answers[i])
            latencies.add(answers[i].value.seconds);
    }
    latencies_ = std::move(present);
    addLatencies(text);
    return text;
}
