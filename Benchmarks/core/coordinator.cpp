// What one question to the coordinator costs by the size of its sets. The filter asks several for every
// flow and every outbound chunk of a watched flow, so the cost has to be small and flat.

#include <benchmark/benchmark.h>

#include <string>

#include "Extension/FlowKillCoordinator.h"

namespace {

using vantry::BundleIdSet;
using vantry::FlowKillCoordinator;

BundleIdSet members(std::int64_t count) {
    BundleIdSet set{"org.acme.mail"};
    for (std::int64_t n = 1; n < count; ++n)
        set.insert("com.example.vendor" + std::to_string(n % 97) + ".app" + std::to_string(n));
    return set;
}

// A member, a name below one, a stranger of three dots.
constexpr const char* hit = "org.acme.mail";
constexpr const char* below = "org.acme.mail.helper";
constexpr const char* miss = "net.stranger.tool.agent";

void shouldBlockFlow(benchmark::State& state, const char* bundleId) {
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateBlockedApps(vantry::share(members(state.range(0))));
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(coordinator.shouldBlockFlow(bundleId));
}

void shouldMonitorFlow(benchmark::State& state, const char* bundleId) {
    auto& coordinator = FlowKillCoordinator::shared();
    coordinator.updateMonitoredApps(vantry::share(members(state.range(0))));
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(coordinator.shouldMonitorFlow(bundleId));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(10)->Arg(1'000)->Arg(100'000);
}

BENCHMARK_CAPTURE(shouldBlockFlow, hit, hit)->Apply(sizes);
BENCHMARK_CAPTURE(shouldBlockFlow, below, below)->Apply(sizes);
BENCHMARK_CAPTURE(shouldBlockFlow, miss, miss)->Apply(sizes);
BENCHMARK_CAPTURE(shouldMonitorFlow, hit, hit)->Apply(sizes);
BENCHMARK_CAPTURE(shouldMonitorFlow, below, below)->Apply(sizes);
BENCHMARK_CAPTURE(shouldMonitorFlow, miss, miss)->Apply(sizes);

}  // namespace
