// What the filter's verdicts cost once it knows the application: the path of every outbound chunk of a
// watched flow. The log is at the level of a running system, so that debug lines are off.

#include <benchmark/benchmark.h>

#include <string>

#include "Extension/FlowKillCoordinator.h"
#include "Platform/Logging.h"
#include "Platform/Simulated/World.h"

namespace {

using platform::simulated::World;
using vantry::FlowKillCoordinator;

// A watched application of which the filter has seen a flow already.
struct WatchedApplication {
    WatchedApplication() {
        platform::Logger::setLowestLevel(platform::LogLevel::info);
        FlowKillCoordinator::shared().updateMonitoredApps(vantry::share({"com.example.App"}));
        FlowKillCoordinator::shared().updateVpnState(true, "allow");
        filter->handleNewFlow(flow.filterFlow());
    }
    World world;
    std::shared_ptr<platform::NEFilterDataProvider> filter = world.filter();
    const platform::simulated::Flow flow =
        world.tcpFlow(world.application("App", "com.example.App"), "203.0.113.7", "443");
};

void handleOutboundDataOfAWatchedFlow(benchmark::State& state) {
    WatchedApplication application;
    const platform::Data bytes(std::string(1400, 'x'));
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(
            application.filter->handleOutboundData(application.flow.filterFlow(), 0, bytes));
}
BENCHMARK(handleOutboundDataOfAWatchedFlow);

void handleNewFlowOfAKnownProcess(benchmark::State& state) {
    WatchedApplication application;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(application.filter->handleNewFlow(application.flow.filterFlow()));
}
BENCHMARK(handleNewFlowOfAKnownProcess);

}  // namespace
