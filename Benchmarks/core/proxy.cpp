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

using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::simulated::FlowDescription;
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
    for (auto _ : state) benchmark::DoNotOptimize(proxy.getRoutingDecision(bundleId));
}
BENCHMARK_CAPTURE(getRoutingDecision, exactHit, "org.vpn.app")->Apply(sizes);
BENCHMARK_CAPTURE(getRoutingDecision, parentHit, "org.vpn.app.helper")->Apply(sizes);
BENCHMARK_CAPTURE(getRoutingDecision, miss, "net.stranger.tool.agent")->Apply(sizes);

void resolveParentBundleId(benchmark::State& state, const std::string& bundleId) {
    Machine machine(state.range(0));
    const auto& proxy = machine.proxy;
    for (auto _ : state) benchmark::DoNotOptimize(proxy.resolveParentBundleId(bundleId));
}
BENCHMARK_CAPTURE(resolveParentBundleId, hit, std::string("org.vpn.app"))->Apply(sizes);
BENCHMARK_CAPTURE(resolveParentBundleId, stripped, std::string("org.vpn.app.helper"))->Apply(sizes);
BENCHMARK_CAPTURE(resolveParentBundleId, miss, std::string("net.stranger.tool.agent"))
    ->Apply(sizes);

void isProtectedVpnClientMiss(benchmark::State& state) {
    Machine machine(10);
    const auto& proxy = machine.proxy;
    for (auto _ : state)
        benchmark::DoNotOptimize(proxy.isProtectedVpnClient("net.stranger.tool.agent"));
}
BENCHMARK(isProtectedVpnClientMiss);

// One new TCP flow through the proxy and then the filter. The making of the flow's objects and, for a
// claimed one, the ending of its session are left out.
void handleNewFlowOfBoth(benchmark::State& state, const std::string& bundleId) {
    Machine machine(state.range(0));
    auto& world = machine.world;
    const auto app = world.application("App", bundleId);
    for (auto _ : state) {
        state.PauseTiming();
        auto flow = world.tcpFlow(app, "203.0.113.7", "443");
        const auto object = flow.object();
        state.ResumeTiming();
        const bool claimed = world.proxy()->handleNewFlow(object);
        benchmark::DoNotOptimize(world.filter()->handleNewFlow(flow.filterFlow()));
        state.PauseTiming();
        if (claimed) flow.endsSending();
        world.runUntilIdle();
        world.logged.clear();
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
    for (auto _ : state) proxy.loadRulesFromSharedFile();
}
BENCHMARK(loadRulesFromSharedFile)->Arg(100'000)->Unit(benchmark::kMillisecond);

// From the delivery of a notification to the return of its handler, when the sets are in force, with
// 1,000 sessions running, none of which the change selects.
void handleRulesChangedNotification(benchmark::State& state) {
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
    for (auto _ : state) {
        state.PauseTiming();
        isDirect = !isDirect;
        world.files.put(rulesFile, rules(state.range(0), isDirect ? "direct" : "vpn"));
        state.ResumeTiming();
        static_cast<TransparentProxyProvider&>(*world.proxy()).handleRulesChangedNotification();
        state.PauseTiming();
        world.runUntilIdle();
        state.ResumeTiming();
    }
}
BENCHMARK(handleRulesChangedNotification)->Arg(100'000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vantry
