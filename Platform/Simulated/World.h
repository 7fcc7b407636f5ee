// The language in which tests tell a story on the simulated platform and read what happened. A test
// makes one World, sets the scene, calls the providers or has things happen, and lets them happen
// with `runUntilIdle` or `advance`. The parts of the machine are members, each with its own words.
// One World a process: the core's coordinator lives as long as its process.
//
//     World world;                                          // an exact sequence
//     World world({.order = Order::drawn, .seed = seed});   // a story for exploration
//     World world({.order = Order::threads});               // the same story on real threads
//
//     const auto app = world.process({.path = "/Applications/A.app/Contents/MacOS/A"});
//     world.bundle("/Applications/A.app", "com.example.A");
//     world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
//     world.start();
//     auto flow = world.tcpFlow(app, "example.com", "443");
//     EXPECT_TRUE(world.offer(flow).claimed);
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Simulated/Machine.h"

namespace platform::simulated {

class World {
public:
    explicit World(const Options& options = {});
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // The parts of the machine.
    Scheduler& scheduler;
    Log& logged;
    WallClock& clock;
    Files& files;
    Processes& processes;
    Interfaces& interfaces;
    CFNotificationCenter& notifications;
    Preferences& preferences;
    Network& network;
    ProviderHost& providers;
    Flows& flows;

    // Time and events.
    void runUntilIdle() { scheduler.runUntilIdle(); }
    void advance(double seconds) { scheduler.advance(seconds); }
    void runToEnd() { scheduler.runToEnd(); }
    double now() const { return scheduler.now(); }
    // Has something happen as an event, among all others; with threads on any of them.
    void later(Completion<> work, double seconds = 0);
    // A number below `bound` from the seed.
    std::uint64_t draw(std::uint64_t bound) { return scheduler.draw(bound); }
    void afterEachEvent(std::function<void()> check) {
        scheduler.setAfterEachEvent(std::move(check));
    }

    // The scene.
    Process process(Process description) { return processes.add(std::move(description)); }
    void bundle(std::string_view path, std::string_view identifier) {
        processes.addBundle(path, std::string(identifier));
    }
    // An application in a bundle, running: "/Applications/NAME.app" with this identifier, which its
    // flows carry as signing identifier.
    Process application(const std::string& name, const std::string& identifier);
    void setPath(std::vector<NWInterface> interfaceList) {
        network.setPath(std::move(interfaceList));
    }
    void setInterfaceAddresses(const std::vector<InterfaceAddress>& list) { interfaces.set(list); }
    Peer peer(std::string host, std::uint16_t port) { return network.peer(std::move(host), port); }

    // Flows.
    Flow tcpFlow(const Process& process, std::string host, std::string port);
    Flow flow(FlowDescription description) { return Flow(std::move(description)); }
    Offer offer(const Flow& flow) { return flows.offer(flow); }
    Offer offerToProxy(const Flow& flow) { return flows.offerToProxy(flow); }
    std::optional<NEFilterDataVerdict> outbound(const Flow& flow, std::string bytes) {
        return flows.outbound(flow, std::move(bytes));
    }

    // The providers.
    std::shared_ptr<NETransparentProxyProvider> proxy() { return providers.proxy(); }
    std::shared_ptr<NEFilterDataProvider> filter() { return providers.filter(); }
    Outcome startFilter() { return providers.startFilter(); }
    Outcome startProxy(const std::optional<JSONObject>& options = {}) {
        return providers.startProxy(options);
    }
    // Starts the filter and then the proxy and lets everything settle. True if both said that they
    // started.
    bool start();
    Outcome stopProxy(NEProviderStopReason reason = NEProviderStopReason::userInitiated) {
        return providers.stopProxy(reason);
    }
    Outcome stopFilter(NEProviderStopReason reason = NEProviderStopReason::userInitiated) {
        return providers.stopFilter(reason);
    }
    Outcome sleep() { return providers.sleep(); }
    void wake() { providers.wake(); }
    Reply message(std::string_view text) { return providers.message(Data(text)); }
    void messageWithoutReply(std::string_view text) { providers.messageWithoutReply(Data(text)); }
    void post(std::string_view notification) { notifications.post(notification); }

    // What was logged; `takeLog` forgets it too.
    std::vector<LogLine> log(std::string_view category = {}) const {
        return logged.lines(category);
    }
    std::vector<LogLine> takeLog(std::string_view category = {}) { return logged.take(category); }
};

// The seed that the environment asks for (SEED=n), if it does.
std::optional<std::uint64_t> seedFromEnvironment();
// How many seeds it asks for (SEEDS=n), if it does.
std::optional<std::uint64_t> seedsFromEnvironment();

}  // namespace platform::simulated
