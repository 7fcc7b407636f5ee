// Random stories of the filter against a model that follows the rules in the plainest way: sets are
// scanned member by member, and nothing is kept from one answer to the next. Every verdict, line and
// record of every kind of flow is compared.

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Extension/FlowKillCoordinator.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NEFilterDataVerdict;
using platform::NEFilterNewFlowVerdict;

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

// A flow, as far as an answer depends on it.
struct Asked {
    std::string bundleId;
    bool isUDP;
    bool isSocketFlow;
    std::optional<std::string> port;  // none: no host endpoint

    std::string label() const { return isUDP ? "UDP" : "TCP"; }
    // The last part of a line about it.
    std::string where() const {
        return label() + " -> " + (port ? "h.example:" + *port : std::string("?:?"));
    }
};

// What the coordinator holds, its answers by scanning, and what the filter makes of them: the lines
// that it logs and the records that it leaves.
struct Model {
    using Verdict = NEFilterNewFlowVerdict;
    using DataVerdict = NEFilterDataVerdict;

    std::set<std::string> monitored, blocked;
    std::map<std::string, std::string> parents{{"com.apple.WebKit.GPU", "com.apple.Safari"}};
    bool isConnected = true, hasState = false;
    std::string fallback = "allow";
    std::vector<ActivityLogEntryIPC> records = {};
    std::vector<ExpectedLine> lines = {};

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

    Verdict newFlow(const Asked& flow) {
        const auto& app = flow.bundleId;
        if (!hasState && monitors(app)) {
            lines.push_back(info("DROP (uninitialized): " + app));
            return Verdict::dropVerdict();
        }
        if (blocks(app)) {
            if (!flow.isSocketFlow) lines.push_back(info("BLOCK: " + app + " (non-socket flow)"));
            if (!flow.isSocketFlow) return Verdict::dropVerdict();
            if (flow.isUDP && flow.port == "53") return Verdict::allowVerdict();
            lines.push_back(info("BLOCK: " + app + " " + flow.where()));
            leaveRecord(flow, "block");
            return Verdict::dropVerdict();
        }
        if (fallsBack(app)) {
            if (!flow.isSocketFlow) lines.push_back(info("VPN BLOCK: " + app));
            if (!flow.isSocketFlow) return Verdict::dropVerdict();
            if (flow.isUDP && flow.port != "443") return Verdict::allowVerdict();
            lines.push_back(info("VPN BLOCK: " + app + " " + flow.where()));
            leaveRecord(flow, "vpn");
            return Verdict::dropVerdict();
        }
        if (!monitors(app)) return Verdict::allowVerdict();
        lines.push_back(debug("MONITORING flow: " + app));
        return Verdict::filterDataVerdict(false, 0, true, 1);
    }
    DataVerdict data(const Asked& flow, std::int64_t offset, std::size_t length) {
        const auto& app = flow.bundleId;
        const auto dropped = [&](const std::string& why) {
            lines.push_back(info(why + ": " + app + " offset=" + std::to_string(offset)));
            return DataVerdict::dropVerdict();
        };
        if (blocks(app)) return dropped("BLOCK DROP (existing flow)");
        if (fallsBack(app)) {
            if (!flow.isUDP || !flow.isSocketFlow || flow.port != "443")
                return dropped("VPN FALLBACK DROP");
            lines.push_back(info("QUIC BLOCK (deferred): " + app + " -> h.example:443"));
            leaveRecord(flow, "vpn");
            return DataVerdict::dropVerdict();
        }
        if (monitors(app)) return DataVerdict::dataVerdict(length, 1);
        return dropped("DROP stale VPN flow");
    }
    void leaveRecord(const Asked& flow, const char* decision) {
        if (!flow.port) return;
        static const std::map<std::string, std::uint16_t> numbers{
            {"53", 53}, {"443", 443}, {"053", 53}};
        const auto number = numbers.find(*flow.port);
        records.push_back(
            {.id = {},
             .timestamp = Date::now(),
             .bundleId = flow.bundleId,
             .appName = flow.bundleId.substr(flow.bundleId.rfind('.') + 1),
             .routingDecision = decision,
             .actualRoute = "blocked",
             .sourceIp = std::nullopt,
             .destinationIp = "h.example",
             .destinationPort = number == numbers.end() ? std::uint16_t{0} : number->second,
             .protocolType = flow.isUDP ? "udp" : "tcp"});
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
        auto records = coordinator.drainQuicBlocks();
        for (auto& record : records) record.id = {};  // made at random
        EXPECT_EQ(records, model.records);
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
                model.fallback = std::vector{"block", "block", "allow", "Block", ""}[world.draw(5)];
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
        Asked asked{identifiers[index], world.draw(2) == 0, world.draw(6) != 0, std::nullopt};
        static const std::vector<std::string> ports{"53", "443", "443", "053", "70000", ""};
        RemoteEndpoint endpoint = NWOtherEndpoint{};
        if (const auto port = world.draw(ports.size() + 1); port < ports.size()) {
            asked.port = ports[port];
            endpoint = NWHostEndpoint{"h.example", ports[port]};
        }
        const Flow flow(
            {.kind = asked.isUDP ? FlowDescription::Kind::udp : FlowDescription::Kind::tcp,
             .remoteEndpoint = endpoint,
             .auditToken = processes[index].auditToken(),
             .isSocketFlow = asked.isSocketFlow});
        const auto filter = world.filter();
        world.takeLog();
        model.lines.clear();
        if (world.draw(2) == 0) {
            EXPECT_EQ(filter->handleNewFlow(flow.filterFlow()), model.newFlow(asked))
                << asked.bundleId << " " << asked.where();
        } else {
            const auto length = world.draw(3000);
            const auto offset = static_cast<std::int64_t>(world.draw(3000));
            EXPECT_EQ(filter->handleOutboundData(flow.filterFlow(), offset,
                                                 Data(std::string(length, 'x'))),
                      model.data(asked, offset, length))
                << asked.bundleId << " " << asked.where();
        }
        EXPECT_TRUE(linesAre(world.takeLog("FlowKillFilter"), model.lines));
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
