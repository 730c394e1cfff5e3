#include "Measure.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double readCpu(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

/** Processor time that this process and the server use between construction and `perCall`. */
class CpuMeter {
public:
    explicit CpuMeter(pid_t server) {
        clock_getcpuclockid(server, &serverClock_);
        client_ = readCpu(CLOCK_PROCESS_CPUTIME_ID);
        server_ = readCpu(serverClock_);
    }
    void perCall(Figures& figures, double calls) const {
        double const client = readCpu(CLOCK_PROCESS_CPUTIME_ID) - client_;
        figures["cpu_us"] = (client + readCpu(serverClock_) - server_) / calls;
    }

private:
    clockid_t serverClock_{};
    double client_ = 0;
    double server_ = 0;
};

void require(bool answered) {
    if (!answered) {
        std::fputs("a call failed\n", stderr);
        std::exit(1);
    }
}

void distribution(Figures& figures, std::vector<double>& microseconds) {
    std::sort(microseconds.begin(), microseconds.end());
    auto const at = [&](double part) {
        return microseconds[static_cast<std::size_t>(part *
                                                     static_cast<double>(microseconds.size() - 1))];
    };
    figures["p50_us"] = at(0.5);
    figures["p99_us"] = at(0.99);
    figures["mean_us"] = std::accumulate(microseconds.begin(), microseconds.end(), 0.0) /
                         static_cast<double>(microseconds.size());
}

/** Calls for about `seconds`, or until `limit` calls, one after the other. */
Figures backToBack(std::function<bool()> const& call, pid_t server, double seconds,
                   std::size_t limit) {
    for (int i = 0; i < 200; ++i)
        require(call());
    std::vector<double> times;
    times.reserve(limit);
    CpuMeter const cpu(server);
    auto const start = Clock::now();
    while (times.size() < limit && microsecondsSince(start) < seconds * 1e6) {
        auto const begin = Clock::now();
        require(call());
        times.push_back(microsecondsSince(begin));
    }
    Figures figures;
    cpu.perCall(figures, static_cast<double>(times.size()));
    distribution(figures, times);
    return figures;
}

Figures paced(Client& client, pid_t server) {
    for (int i = 0; i < 50; ++i)
        require(client.call());
    std::vector<double> times;
    CpuMeter const cpu(server);
    auto next = Clock::now();
    for (int i = 0; i < 1000; ++i) {
        next += std::chrono::milliseconds(1);
        std::this_thread::sleep_until(next);
        auto const begin = Clock::now();
        require(client.call());
        times.push_back(microsecondsSince(begin));
    }
    Figures figures;
    cpu.perCall(figures, static_cast<double>(times.size()));
    distribution(figures, times);
    return figures;
}

Figures manyThreads(Client& client, pid_t server, int count) {
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::atomic<bool> stop{false};
    std::vector<std::size_t> calls(static_cast<std::size_t>(count));
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            client.enterThread();
            for (int warm = 0; warm < 20; ++warm)
                require(client.call());
            ready.fetch_add(1);
            std::size_t done = 0;
            for (; !stop; ++done) {
                require(client.call());
                if (!go)
                    done = 0;
            }
            calls[static_cast<std::size_t>(i)] = done;
            client.leaveThread();
        });
    while (ready < count)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    CpuMeter const cpu(server);
    auto const start = Clock::now();
    go = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    stop = true;
    double const elapsed = microsecondsSince(start);
    for (std::thread& thread : threads)
        thread.join();
    double const total =
        static_cast<double>(std::accumulate(calls.begin(), calls.end(), std::size_t{0}));
    Figures figures;
    cpu.perCall(figures, total);
    figures["calls_per_s"] = total / elapsed * 1e6;
    return figures;
}

Figures oneWay(Client& client, pid_t server) {
    constexpr std::uint32_t kCalls = 300'000;
    std::uint32_t const before = client.servedOneWays();
    CpuMeter const cpu(server);
    auto const start = Clock::now();
    for (std::uint32_t i = 0; i < kCalls; ++i)
        require(client.sendOneWay());
    while (client.servedOneWays() - before < kCalls)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    double const elapsed = microsecondsSince(start);
    Figures figures;
    cpu.perCall(figures, kCalls);
    figures["calls_per_s"] = kCalls / elapsed * 1e6;
    return figures;
}

/** Best median of several short runs, which take turns so that all meet the same neighbours. */
Figures attributes(Client& client, pid_t server) {
    constexpr int kRuns = 40;
    constexpr double kSeconds = 0.02;
    std::pair<Client::Fetch, char const*> const ways[] = {{Client::Fetch::kCall, "call_us"},
                                                          {Client::Fetch::kBound, "bound_us"},
                                                          {Client::Fetch::kByName, "by_name_us"}};
    Figures best;
    for (int run = 0; run < kRuns; ++run) {
        for (auto const& [way, name] : ways) {
            Figures figures =
                backToBack([&, how = way] { return client.fetch(how); }, server, kSeconds, 20'000);
            double const median = figures["p50_us"];
            auto const [known, first] = best.emplace(name, median);
            if (!first)
                known->second = std::min(known->second, median);
        }
    }
    return best;
}

double residentKiB(pid_t process) {
    std::string const path = "/proc/" + std::to_string(process) + "/statm";
    long pages = 0;
    if (std::FILE* const file = std::fopen(path.c_str(), "r")) {
        if (std::fscanf(file, "%*d %ld", &pages) != 1)
            pages = 0;
        std::fclose(file);
    }
    return static_cast<double>(pages * (sysconf(_SC_PAGESIZE) / 1024));
}

Figures memory(Client& client, pid_t server) {
    for (int i = 0; i < 1000; ++i)
        require(client.call());
    return {{"client_kib", residentKiB(getpid())}, {"server_kib", residentKiB(server)}};
}

}  // namespace

Figures measure(Client& client, std::string const& scenario, pid_t server) {
    if (scenario.rfind("threads", 0) == 0)
        return manyThreads(client, server, std::atoi(scenario.c_str() + 7));
    client.enterThread();
    Figures figures;
    if (scenario == "single")
        figures = backToBack([&] { return client.call(); }, server, 0.7, 400'000);
    else if (scenario == "body")
        figures = backToBack([&] { return client.callBody(64 * 1024); }, server, 0.5, 50'000);
    else if (scenario == "paced")
        figures = paced(client, server);
    else if (scenario == "oneway")
        figures = oneWay(client, server);
    else if (scenario == "attribute")
        figures = attributes(client, server);
    else if (scenario == "memory")
        figures = memory(client, server);
    client.leaveThread();
    return figures;
}

}  // namespace bench
