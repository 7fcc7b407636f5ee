// Random stories of the filter against a model that follows the rules in the plainest way: sets are
// scanned member by member, and an application is looked up afresh for every answer.

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Extension/FlowKillCoordinator.h"
#include "Platform/Simulated/Expectations.h"

namespace vantry {
namespace {

using platform::NEFilterDataVerdict;
using platform::NEFilterNewFlowVerdict;
using platform::NWHostEndpoint;
using platform::simulated::Flow;
using platform::simulated::FlowDescription;
using platform::simulated::holdsForSeeds;
using platform::simulated::Process;
using platform::simulated::World;

const std::vector<std::string> identifiers{"a",
                                           "a.b",
                                           "a.b.c",
                                           "a.b.c.d",
                                           "a.bc",
                                           "b",
                                           "a..b",
                                           "a.",
                                           ".a",
                                           "x.y",
                                           "x.y.z",
                                           "x",
                                           "com.apple.WebKit.GPU",
                                           "com.apple.Safari"};

// What the coordinator holds, and its answers by scanning.
struct Model {
    std::set<std::string> monitored, blocked;
    std::map<std::string, std::string> parents{{"com.apple.WebKit.GPU", "com.apple.Safari"}};
    bool isConnected = true, hasState = false;
    std::string fallback = "allow";
    std::size_t records = 0;

    bool matches(const std::set<std::string>& members, const std::string& bundleId) const {
        const auto parent = parents.find(bundleId);
        const auto& name = parent == parents.end() ? bundleId : parent->second;
        if (members.contains(name)) return true;
        for (const auto& member : members)
            if (name.starts_with(member + ".")) return true;
        return false;
    }
    bool monitors(const std::string& bundleId) const { return matches(monitored, bundleId); }
    bool blocks(const std::string& bundleId) const { return matches(blocked, bundleId); }
    bool fallsBack(const std::string& bundleId) const {
        return !isConnected && fallback == "block" && monitors(bundleId);
    }

    NEFilterNewFlowVerdict newFlow(const std::string& bundleId, bool isUDP,
                                   const std::string& port) {
        if (!hasState && monitors(bundleId)) return NEFilterNewFlowVerdict::dropVerdict();
        if (blocks(bundleId)) {
            if (isUDP && port == "53") return NEFilterNewFlowVerdict::allowVerdict();
            ++records;
            return NEFilterNewFlowVerdict::dropVerdict();
        }
        if (fallsBack(bundleId)) {
            if (isUDP && port != "443") return NEFilterNewFlowVerdict::allowVerdict();
            ++records;
            return NEFilterNewFlowVerdict::dropVerdict();
        }
        if (monitors(bundleId)) return NEFilterNewFlowVerdict::filterDataVerdict(false, 0, true, 1);
        return NEFilterNewFlowVerdict::allowVerdict();
    }
    NEFilterDataVerdict data(const std::string& bundleId, bool isUDP, const std::string& port,
                             std::size_t length) {
        if (blocks(bundleId)) return NEFilterDataVerdict::dropVerdict();
        if (fallsBack(bundleId)) {
            if (isUDP && port == "443") ++records;
            return NEFilterDataVerdict::dropVerdict();
        }
        if (monitors(bundleId)) return NEFilterDataVerdict::dataVerdict(length, 1);
        return NEFilterDataVerdict::dropVerdict();
    }
};

class Story {
public:
    explicit Story(World& simulated) : world(simulated) {
        for (std::size_t n = 0; n < identifiers.size(); ++n) {
            const auto folder = "/Applications/" + std::to_string(n) + ".app";
            world.bundle(folder, identifiers[n]);
            processes.push_back(world.process({.path = folder + "/run"}));
        }
    }

    void play() {
        for (int step = 0; step < 60 && !testing::Test::HasFailure(); ++step) oneStep();
        EXPECT_EQ(coordinator.drainQuicBlocks().size(), model.records);
    }

private:
    const std::string& anyIdentifier() { return identifiers[world.draw(identifiers.size())]; }
    std::set<std::string> anySet() {
        std::set<std::string> members;
        for (auto count = world.draw(4); count > 0; --count) members.insert(anyIdentifier());
        if (world.draw(8) == 0) members.insert("");
        return members;
    }

    void oneStep() {
        switch (world.draw(10)) {
            case 0:
                model.monitored = anySet();
                return coordinator.updateMonitoredApps(
                    {model.monitored.begin(), model.monitored.end()});
            case 1:
                model.blocked = anySet();
                return coordinator.updateBlockedApps({model.blocked.begin(), model.blocked.end()});
            case 2:
                model.isConnected = world.draw(2) == 0;
                model.fallback = world.draw(2) == 0 ? "block" : "allow";
                model.hasState = true;
                return coordinator.updateVpnState(model.isConnected, model.fallback);
            case 3: {
                const auto child = anyIdentifier(), parent = anyIdentifier();
                model.parents[child] = parent;
                return coordinator.registerChildProcess(child, parent);
            }
            case 4:
                if (world.draw(4) != 0) return;
                coordinator.resetState();
                model = {.monitored = {}, .blocked = {}, .parents = model.parents};
                return;
            default:
                return askForAFlow();
        }
    }

    void askForAFlow() {
        const auto index = world.draw(identifiers.size());
        const auto& bundleId = identifiers[index];
        const bool isUDP = world.draw(2) == 0;
        const std::string port = std::vector{"53", "443", "80"}[world.draw(3)];
        const Flow flow({.kind = isUDP ? FlowDescription::Kind::udp : FlowDescription::Kind::tcp,
                         .remoteEndpoint = NWHostEndpoint{"h", port},
                         .auditToken = processes[index].auditToken()});
        const auto filter = world.filter();
        if (world.draw(2) == 0) {
            EXPECT_EQ(filter->handleNewFlow(flow.filterFlow()),
                      model.newFlow(bundleId, isUDP, port))
                << bundleId;
        } else {
            const auto length = world.draw(3000);
            EXPECT_EQ(filter->handleOutboundData(flow.filterFlow(), 0,
                                                 platform::Data(std::string(length, 'x'))),
                      model.data(bundleId, isUDP, port, length))
                << bundleId;
        }
    }

    World& world;
    FlowKillCoordinator& coordinator = FlowKillCoordinator::shared();
    Model model;
    std::vector<Process> processes;
};

TEST(FilterStory, AnswersAsTheModelDoes) {
    EXPECT_TRUE(holdsForSeeds(1000, [](World& world) { Story(world).play(); }));
}

}  // namespace
}  // namespace vantry
