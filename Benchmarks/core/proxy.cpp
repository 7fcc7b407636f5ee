// What the proxy's single questions cost at 10 and at 100,000 rules, a whole new flow through proxy and
// filter, the loading of a large rules file, and the way from a notification to the sets in force with
// 1,000 sessions running.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "Platform/Logging.h"
#include "Platform/Simulated/World.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyProbe.h"

namespace vantry {

namespace {

using platform::NWInterface;
using platform::simulated::World;

constexpr const char* rulesFile = "/tmp/org.quillmere.Vantry.rules.json";

// Rules for "com.example.vendorN.appM" and four applications that the benchmarks ask for.
std::string rules(std::int64_t count, const char* wordOfMoved = "direct") {
    std::string text =
        R"({"rules":{"org.direct.app":"direct","org.vpn.app":"vpn","org.moved.app":")";
    text += wordOfMoved;
    text += '"';
    for (std::int64_t n = 3; n < count; ++n)
        text += ",\"com.example.vendor" + std::to_string(n % 97) + ".app" + std::to_string(n) +
                R"(":"vpn")";
    return text + R"(},"blockedApps":["org.blocked.app"]})";
}

// A started proxy and filter with so many rules, debug lines off as in a running system.
struct Machine {
    explicit Machine(std::int64_t ruleCount) {
        platform::Logger::setLowestLevel(platform::LogLevel::info);
        world.files.put(rulesFile, rules(ruleCount));
        world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
        world.setInterfaceAddresses({{"en0", "10.0.0.2"}, {"utun0", "10.8.0.2"}});
        world.start();
    }
    World world;
    ProxyProbe proxy{*world.proxy()};
};

void sizes(benchmark::internal::Benchmark* benchmark) { benchmark->Arg(10)->Arg(100'000); }

void getRoutingDecision(benchmark::State& state, const char* bundleId) {
    Machine machine(state.range(0));
    const auto& proxy = machine.proxy;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(proxy.getRoutingDecision(bundleId));
}
BENCHMARK_CAPTURE(getRoutingDecision, exactHit, "org.vpn.app")->Apply(sizes);
BENCHMARK_CAPTURE(getRoutingDecision, parentHit, "org.vpn.app.helper")->Apply(sizes);
BENCHMARK_CAPTURE(getRoutingDecision, miss, "net.stranger.tool.agent")->Apply(sizes);

void resolveParentBundleId(benchmark::State& state, const std::string& bundleId) {
    Machine machine(state.range(0));
    const auto& proxy = machine.proxy;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(proxy.resolveParentBundleId(bundleId));
}
BENCHMARK_CAPTURE(resolveParentBundleId, hit, std::string("org.vpn.app"))->Apply(sizes);
BENCHMARK_CAPTURE(resolveParentBundleId, stripped, std::string("org.vpn.app.helper"))->Apply(sizes);
BENCHMARK_CAPTURE(resolveParentBundleId, miss, std::string("net.stranger.tool.agent"))
    ->Apply(sizes);

void isProtectedVpnClientMiss(benchmark::State& state) {
    Machine machine(10);
    const auto& proxy = machine.proxy;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(proxy.isProtectedVpnClient("net.stranger.tool.agent"));
}
BENCHMARK(isProtectedVpnClientMiss);

// One new TCP flow through the proxy and then the filter. The making of the flows' objects and, for
// claimed ones, the ending of their sessions are left out; as stopping the clock costs about as much as a
// flow, it is stopped once for many.
void handleNewFlowOfBoth(benchmark::State& state, const std::string& bundleId) {
    constexpr int flowsAtOnce = 200;
    Machine machine(state.range(0));
    auto& world = machine.world;
    const auto proxy = world.proxy();
    const auto filter = world.filter();
    const auto app = world.application("App", bundleId);
    while (state.KeepRunningBatch(flowsAtOnce)) {
        state.PauseTiming();
        std::vector<platform::simulated::Flow> flows;
        std::vector<std::shared_ptr<platform::NEAppProxyTCPFlow>> objects;
        for (int n = 0; n < flowsAtOnce; ++n) {
            flows.push_back(world.tcpFlow(app, "203.0.113.7", "443"));
            objects.push_back(flows.back().object());
        }
        bool isClaimed = false;
        state.ResumeTiming();
        for (int n = 0; n < flowsAtOnce; ++n) {
            isClaimed = proxy->handleNewFlow(objects[n]);
            benchmark::DoNotOptimize(filter->handleNewFlow(flows[n].filterFlow()));
        }
        state.PauseTiming();
        if (isClaimed)
            for (auto& flow : flows) flow.endsSending();
        world.runUntilIdle();
        world.logged.clear();
        world.processes.forgetQuestions();
        world.network.forgetConnections();
        flows.clear();
        objects.clear();
        state.ResumeTiming();
    }
}
BENCHMARK_CAPTURE(handleNewFlowOfBoth, declinedByRule, std::string("org.vpn.app"))->Apply(sizes);
BENCHMARK_CAPTURE(handleNewFlowOfBoth, declinedByDefault, std::string("net.stranger.app"))
    ->Apply(sizes);
BENCHMARK_CAPTURE(handleNewFlowOfBoth, blocked, std::string("org.blocked.app"))->Apply(sizes);
BENCHMARK_CAPTURE(handleNewFlowOfBoth, claimed, std::string("org.direct.app"))->Apply(sizes);

void loadRulesFromSharedFile(benchmark::State& state) {
    Machine machine(state.range(0));
    const auto& proxy = machine.proxy;
    for ([[maybe_unused]] auto _ : state) proxy.loadRulesFromSharedFile();
}
BENCHMARK(loadRulesFromSharedFile)->Arg(100'000)->Unit(benchmark::kMillisecond);

// From the delivery of a notification to the return of its handler, when the sets are in force, with
// 1,000 sessions running, none of which the change selects; and without any change.
void handleRulesChangedNotification(benchmark::State& state, bool changes) {
    Machine machine(state.range(0));
    auto& world = machine.world;
    const auto app = world.application("App", "org.direct.app");
    std::vector<platform::simulated::Flow> flows;
    for (int n = 0; n < 1000; ++n) {
        flows.push_back(world.tcpFlow(app, "203.0.113.7", "443"));
        world.offer(flows.back());
    }
    world.runUntilIdle();
    bool isDirect = true;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        isDirect = isDirect != changes;
        world.files.put(rulesFile, rules(state.range(0), isDirect ? "direct" : "vpn"));
        state.ResumeTiming();
        static_cast<TransparentProxyProvider&>(*world.proxy()).handleRulesChangedNotification();
        state.PauseTiming();
        world.runUntilIdle();
        state.ResumeTiming();
    }
}
BENCHMARK_CAPTURE(handleRulesChangedNotification, oneRuleMoves, true)
    ->Arg(100'000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(handleRulesChangedNotification, unchanged, false)
    ->Arg(100'000)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vantry
