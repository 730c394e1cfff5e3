/** Costs of reflection inside one process: reads by name, calls of local objects, observers. */
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "Gauge.h"
#include "handler_threads.h"

namespace {

using bench::Gauge;
using bench::GaugeClient;
using bench::GaugeSkeleton;

TipprmiOID const gaugeOid("bench/gauge", NSID_UNIT);

/** An object of this process, the handle on it, and the permission to use both. */
struct Local {
    TreflectHandlerState const handler{true};
    Gauge gauge{gaugeOid, nullptr, "gauge"};
    GaugeClient const client{&gauge};
};

class Watcher final : public TreflectObserver {
public:
    explicit Watcher(std::string const& name)
        : TreflectObserver(TipprmiOID("bench/watcher" + name, NSID_UNIT), nullptr, name) {}
    bool update() override { return true; }
};

std::vector<std::unique_ptr<Watcher>> makeWatchers(long count) {
    std::vector<std::unique_ptr<Watcher>> watchers;
    for (long i = 0; i < count; ++i)
        watchers.push_back(std::make_unique<Watcher>(std::to_string(i)));
    return watchers;
}

/** A gauge of a class whose table tells no types, so that there is nothing to check. */
namespace untyped {

constexpr unsigned int kClass = 0xBE4C4003;
TreflectMetaClass const meta("UntypedGauge", kClass, {}, {{"getLevel", bench::gauge::kGetLevel}},
                             {"Level"});

class Gauge final : public GaugeSkeleton {
public:
    using GaugeSkeleton::GaugeSkeleton;

    std::string getText() override { return {}; }
    void setText(std::string const&) override {}
    unsigned int getLevel() override { return ++level_; }
    unsigned int getServerClassId() const override { return kClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return meta.classIds();
    }

private:
    unsigned int level_ = 0;  // guarded by the run permission
};

struct Local {
    TreflectHandlerState const handler{true};
    Gauge gauge{TipprmiOID("bench/untyped", NSID_UNIT), nullptr, "untyped"};
    GaugeClient const client{&gauge};
};

}  // namespace untyped

/** A direct call as ClientCallHelper sees it. */
class LevelHook final : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    void callServer(TreflectServerObject& server) const override {
        level_ = static_cast<GaugeSkeleton&>(server).getLevel();
    }
    void fillParams(TipprmiSequence<TipprmiAny, 0u>&) const override {}
    char const* operationName() const override { return "getLevel"; }
    void marshall(TipprmiStream&) const override {}
    void unmarshall(TipprmiStream&) const override {}
    unsigned int level() const { return level_; }

private:
    mutable unsigned int level_ = 0;
};

void virtualCall(benchmark::State& state) {
    Local local;
    GaugeSkeleton* server = &local.gauge;
    for (auto _ : state) {
        benchmark::DoNotOptimize(server);  // so that the call stays a virtual one
        TreflectORB::checkHandlerState();
        benchmark::DoNotOptimize(server->getLevel());
    }
}
BENCHMARK(virtualCall)->Name("virtual call and check of the permission");

void localCall(benchmark::State& state) {
    Local const local;
    for (auto _ : state)
        benchmark::DoNotOptimize(local.client.getLevel().value());
}
BENCHMARK(localCall)->Name("local treflectCall, no observers");

void localHelper(benchmark::State& state) {
    Local local;
    for (auto _ : state) {
        LevelHook const hook;
        ClientCallHelper(hook, hook, hook, *local.client.getStub_(), &local.gauge,
                         bench::gauge::kClass, bench::gauge::kGetLevel, true);
        benchmark::DoNotOptimize(hook.level());
    }
}
BENCHMARK(localHelper)->Name("local ClientCallHelper, no observers");

/** With so many observers before and after the call. */
void observedCall(benchmark::State& state) {
    Local const local;
    auto const before = makeWatchers(state.range(0));
    auto const after = makeWatchers(state.range(1));
    TreflectOperation& operation = local.client.operation("getLevel");
    for (auto const& watcher : before)
        operation.preObserve(watcher.get());
    for (auto const& watcher : after)
        operation.postObserve(watcher.get());
    for (auto _ : state)
        benchmark::DoNotOptimize(local.client.getLevel().value());
    state.counters["per_observer"] = benchmark::Counter(
        static_cast<double>(state.range(0) + state.range(1)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(observedCall)
    ->Name("local treflectCall, observers before and after")
    ->Args({1, 1})
    ->Args({1'000, 0})
    ->Args({0, 1'000});

template <class Home>
void readBound(benchmark::State& state) {
    Home const local;
    TreflectAttribute const& level = local.client.attribute("Level");
    unsigned int value = 0;
    for (auto _ : state) {
        level.get(value);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(readBound<Local>)->Name("read a local attribute, bound");
BENCHMARK(readBound<untyped::Local>)->Name("read a local attribute, bound, without types");

// What is found by name lives as long as the handle: one for each question.
void readByName(benchmark::State& state) {
    Local const local;
    unsigned int value = 0;
    for (auto _ : state) {
        TreflectObject const handle(local.client);
        handle.attribute("Level").get(value);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(readByName)->Name("read a local attribute, its name asked for each time");

void callByOperation(benchmark::State& state) {
    Local const local;
    for (auto _ : state) {
        unsigned int value = 0;
        auto const level =
            tipprmiCall<unsigned int>(local.client, bench::gauge::kClass, bench::gauge::kGetLevel);
        benchmark::DoNotOptimize(value = level.value());
    }
}
BENCHMARK(callByOperation)->Name("tipprmiCall of a local object");

void copyHandle(benchmark::State& state) {
    Local const local;
    for (auto _ : state) {
        TreflectObject const copy(local.client);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(copyHandle)->Name("copy and destroy a handle");

/** Others have members bound to them. */
void copyHandleBesideTied(benchmark::State& state) {
    Local const local;
    std::vector<std::unique_ptr<TreflectObject>> others;
    for (int i = 0; i < 1'000; ++i) {
        others.push_back(std::make_unique<TreflectObject>(local.client));
        others.back()->attribute("Level");
    }
    for (auto _ : state) {
        TreflectObject const copy(local.client);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(copyHandleBesideTied)->Name("copy and destroy a handle beside 1,000 with attributes");

}  // namespace
