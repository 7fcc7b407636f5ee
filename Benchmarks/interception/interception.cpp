// What the interception costs a flow: opening a connection and sending over it, in a network of two
// namespaces, bare and with each verdict side by side. The providers answer at once, so the figures
// are the platform's alone. Needs root, or user namespaces.

#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "Platform/Linux/Interception/Interception.h"
#include "Tests/Platform/Linux/Interception/InterceptionLab.h"
#include "Tests/Platform/Linux/Interception/ScriptedProviders.h"

namespace {

using namespace platform;
using namespace platform::interception;

enum class Treatment : int { bare, declined, claimed, watched };

const char* nameOf(Treatment treatment) {
    switch (treatment) {
        case Treatment::bare:
            return "bare";
        case Treatment::declined:
            return "declined";
        case Treatment::claimed:
            return "claimed";
        case Treatment::watched:
            return "watched";
    }
    return "";
}

class Network {
public:
    explicit Network(Treatment treatment) {
        if (treatment == Treatment::bare) return;
        proxy->isClaiming = treatment == Treatment::claimed;
        if (treatment == Treatment::watched) filter->setVerdict(ScriptedFilter::watching());
        interception = std::make_unique<Interception>(Providers{proxy, filter});
        NENetworkRule everything;
        everything.direction = NENetworkRule::TrafficDirection::outbound;
        interception->setFilterAction(NEFilterAction::filterData, {});
        std::promise<void> done;
        interception->setProxyRules({everything},
                                    [&](const std::optional<NSError>&) { done.set_value(); });
        done.get_future().wait();
    }

private:
    InterceptionLab lab;
    CallList calls{CallList::Keep::nothing};
    std::shared_ptr<ScriptedProxy> proxy = std::make_shared<ScriptedProxy>(calls);
    std::shared_ptr<ScriptedFilter> filter = std::make_shared<ScriptedFilter>(calls);
    std::unique_ptr<Interception> interception;
};

ClientSocket connectToDiscard() {
    ClientSocket client(AF_INET, SOCK_STREAM);
    client.connectTo(InterceptionLab::serverAddress(AF_INET), InterceptionLab::discardPort);
    return client;
}

void openConnection(benchmark::State& state) {
    const auto treatment = static_cast<Treatment>(state.range(0));
    const Network network(treatment);
    std::vector<double> microseconds;
    for ([[maybe_unused]] const auto& round : state) {
        const auto begin = std::chrono::steady_clock::now();
        const ClientSocket client = connectToDiscard();
        const std::chrono::duration<double, std::micro> took =
            std::chrono::steady_clock::now() - begin;
        microseconds.push_back(took.count());
    }
    std::sort(microseconds.begin(), microseconds.end());
    state.counters["median_us"] = microseconds[microseconds.size() / 2];
    state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
    state.SetLabel(nameOf(treatment));
}
BENCHMARK(openConnection)->DenseRange(0, 3)->Iterations(10000)->UseRealTime();

void openManyConnections(benchmark::State& state) {
    const auto treatment = static_cast<Treatment>(state.range(0));
    const Network network(treatment);
    constexpr int clients = 4;
    constexpr int each = 2500;
    for ([[maybe_unused]] const auto& round : state) {
        std::vector<std::thread> threads;
        for (int client = 0; client < clients; ++client)
            threads.emplace_back([] {
                for (int count = 0; count < each; ++count) connectToDiscard();
            });
        for (std::thread& thread : threads) thread.join();
    }
    state.SetItemsProcessed(state.iterations() * clients * each);
    state.SetLabel(nameOf(treatment));
}
BENCHMARK(openManyConnections)->DenseRange(0, 3)->Iterations(1)->UseRealTime();

void upload(benchmark::State& state) {
    const auto treatment = static_cast<Treatment>(state.range(0));
    const Network network(treatment);
    ClientSocket client = connectToDiscard();
    const std::vector<char> content(std::size_t{256} << 10);
    for ([[maybe_unused]] const auto& round : state)
        send(client.descriptor(), content.data(), content.size(), MSG_NOSIGNAL);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(content.size()));
    state.SetLabel(nameOf(treatment));
}
BENCHMARK(upload)->Arg(0)->Arg(1)->Arg(3)->Iterations(60000)->UseRealTime();

}  // namespace
