/** Costs inside one process, by Google Benchmark: marshalling, the run permission, a locate. */
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "handler_threads.h"
#include "ipprmi.h"
#include "logging.h"
#include "reflect.h"
#include "transport.h"

namespace {

void appendToVector(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<unsigned char> bytes;
        for (unsigned int i = 0; i < 1'000'000; ++i)
            for (int shift = 24; shift >= 0; shift -= 8)
                bytes.push_back(static_cast<unsigned char>(i >> shift));
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(appendToVector)
    ->Name("append 1,000,000 numbers to a vector")
    ->Unit(benchmark::kMillisecond);

void marshallNumbers(benchmark::State& state) {
    for (auto _ : state) {
        TipprmiStream stream(1);
        for (unsigned int i = 0; i < 1'000'000; ++i)
            stream << i;
        benchmark::DoNotOptimize(stream.getDataPtr());
    }
}
BENCHMARK(marshallNumbers)
    ->Name("marshall 1,000,000 numbers into a fresh stream")
    ->Unit(benchmark::kMillisecond);

void marshallCall(benchmark::State& state) {
    std::string const text(32, 'x');
    for (auto _ : state) {
        TipprmiStream stream(100);
        stream << 1u << true << 2u << 3u << 7u << text;
        benchmark::DoNotOptimize(stream.getDataPtr());
    }
}
BENCHMARK(marshallCall)->Name("marshall a typical request");

void unmarshallCall(benchmark::State& state) {
    TipprmiStream stream(100);
    stream << TipprmiExceptionContainer() << 7u << std::string(32, 'x');
    TipprmiExceptionContainer container;
    unsigned int number = 0;
    std::string text;
    for (auto _ : state) {
        stream.rewind();
        stream >> container >> number >> text;
        benchmark::DoNotOptimize(number);
    }
}
BENCHMARK(unmarshallCall)->Name("unmarshall a typical response");

constexpr std::size_t kDoubles = 100'000;

/** What bulk values are measured against: the bytes of each number swapped on their way. */
void swapDoubles(benchmark::State& state) {
    std::vector<double> const from(kDoubles, 1.5);
    std::vector<unsigned char> to(8 * kDoubles);
    for (auto _ : state) {
        for (std::size_t i = 0; i < kDoubles; ++i) {
            std::uint64_t bits;
            std::memcpy(&bits, &from[i], sizeof bits);
            bits = __builtin_bswap64(bits);
            std::memcpy(to.data() + 8 * i, &bits, sizeof bits);
        }
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(swapDoubles)->Name("swap the bytes of 100,000 doubles");

template <class Sequence>
void marshallDoubles(benchmark::State& state, Sequence const& values) {
    TipprmiStream stream(8 * kDoubles + 4);
    for (auto _ : state) {
        stream.clear();
        stream << values;
        benchmark::DoNotOptimize(stream.getDataPtr());
        benchmark::ClobberMemory();
    }
}
template <class Sequence>
void unmarshallDoubles(benchmark::State& state, Sequence values) {
    TipprmiStream stream(100);
    stream << values;
    for (auto _ : state) {
        stream.rewind();
        stream >> values;
        benchmark::DoNotOptimize(&values);
        benchmark::ClobberMemory();
    }
}
TipprmiSequence<double> sequenceOfDoubles() {
    TipprmiSequence<double> sequence;
    sequence.setLength(kDoubles);
    return sequence;
}
BENCHMARK_CAPTURE(marshallDoubles, vector, std::vector<double>(kDoubles, 1.5))
    ->Name("marshall a vector of 100,000 doubles");
BENCHMARK_CAPTURE(unmarshallDoubles, vector, std::vector<double>(kDoubles, 1.5))
    ->Name("unmarshall a vector of 100,000 doubles");
BENCHMARK_CAPTURE(marshallDoubles, sequence, sequenceOfDoubles())
    ->Name("marshall a sequence of 100,000 doubles");
BENCHMARK_CAPTURE(unmarshallDoubles, sequence, sequenceOfDoubles())
    ->Name("unmarshall a sequence of 100,000 doubles");

void permission(benchmark::State& state) {
    TreflectHandlerState const handler(false);
    for (auto _ : state) {
        TreflectORB::getRunPermission();
        TreflectORB::releaseRunPermission();
    }
}
BENCHMARK(permission)->Name("take and release the run permission, uncontended");

void locate(benchmark::State& state) {
    TreflectHandlerState const handler(true);
    std::vector<std::unique_ptr<TipprmiObjectSkeleton>> objects;
    for (int i = 0; i < state.range(0); ++i)
        objects.push_back(std::make_unique<TipprmiObjectSkeleton>(
            TipprmiOID("bench/object" + std::to_string(i), NSID_UNIT)));
    TipprmiOID const wanted("bench/object" + std::to_string(state.range(0) * 3 / 4), NSID_UNIT);
    TreflectORB const* const orb = TreflectORB::getInstance(NSID_UNIT);
    for (auto _ : state)
        benchmark::DoNotOptimize(orb->locateObject(wanted).getInternalOID());
}
BENCHMARK(locate)->Name("locate among local objects")->Arg(10)->Arg(1'000)->Arg(100'000);

/** Prints as usual and keeps each benchmark's time per iteration, for the ratios at the end. */
class Reporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        benchmark::ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs)
            keepBest(run.benchmark_name(),
                     run.cpu_accumulated_time / static_cast<double>(run.iterations));
    }

    /** `name` must cost at most `limit` times what `base` costs. */
    void judge(std::string const& name, std::string const& base, double limit) const {
        auto const ours = times_.find(name);
        auto const theirs = times_.find(base);
        if (ours == times_.end() || theirs == times_.end())
            return;
        double const ratio = ours->second / theirs->second;
        std::printf("  %-6s %6.2f  (at most %.2f)  %s / %s\n", ratio <= limit ? "met" : "MISSED",
                    ratio, limit, name.c_str(), base.c_str());
    }
    /** `name` must cost at most `nanoseconds` more than `base` costs. */
    void judgeExtra(std::string const& name, std::string const& base, double nanoseconds) const {
        auto const ours = times_.find(name);
        auto const theirs = times_.find(base);
        if (ours == times_.end() || theirs == times_.end())
            return;
        double const extra = (ours->second - theirs->second) * 1e9;
        std::printf("  %-6s %6.1f  (at most %.0f ns)  %s - %s\n",
                    extra <= nanoseconds ? "met" : "MISSED", extra, nanoseconds, name.c_str(),
                    base.c_str());
    }

private:
    void keepBest(std::string const& name, double seconds) {
        auto const [known, first] = times_.emplace(name, seconds);
        if (!first)
            known->second = std::min(known->second, seconds);
    }

    std::map<std::string, double> times_;  // processor seconds per iteration, the best
};

}  // namespace

int main(int argc, char** argv) {
    std::string folder = std::filesystem::temp_directory_path() / "reflectorb-bench-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr)
        return 1;
    Logging::setThreshold(3);
    Transport::Setup::directory(folder);
    benchmark::Initialize(&argc, argv);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nTargets (ratios in this run)\n");
    reporter.judge("marshall 1,000,000 numbers into a fresh stream",
                   "append 1,000,000 numbers to a vector", 20.0);
    for (char const* const bulk :
         {"marshall a vector of 100,000 doubles", "unmarshall a vector of 100,000 doubles",
          "marshall a sequence of 100,000 doubles", "unmarshall a sequence of 100,000 doubles"})
        reporter.judge(bulk, "swap the bytes of 100,000 doubles", 2.0);
    reporter.judge("locate among local objects/100000", "locate among local objects/10", 5.0);
    reporter.judgeExtra("local treflectCall, no observers",
                        "virtual call and check of the permission", 100);
    reporter.judgeExtra("local ClientCallHelper, no observers",
                        "virtual call and check of the permission", 100);
    reporter.judgeExtra("read a local attribute, bound",
                        "read a local attribute, bound, without types", 20);
    prepareOrbForDeletion();
    std::filesystem::remove_all(folder);
    return 0;
}
