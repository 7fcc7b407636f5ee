// Random stories of the filter and of the coordinator against a model that follows the rules in the
// plainest way: sets are scanned member by member, and nothing is kept from one answer to the next.
// Every verdict, line and record of every kind of flow is compared.

#include <deque>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using Set = std::set<std::string>;

const auto identifiers = [] {
    std::istringstream names(
        "a a.b a.b.c a.b.c.d a.bc b a..b a. .a x.y x.y.z x com.apple.Safari com.apple.WebKit.GPU "
        "com.apple.WebKit.Networking com.apple.WebKit.WebContent com.apple.Safari.SearchHelper");
    return std::vector<std::string>(std::istream_iterator<std::string>(names), {});
}();

// A flow, as far as an answer depends on it.
struct Asked {
    std::string bundleId;
    bool isUDP;
    bool isSocketFlow;
    std::optional<std::string> port;  // none: no host endpoint

    bool isUDPTo(const char* where) const { return isUDP && isSocketFlow && port == where; }
    // The last part of a line about it.
    std::string where() const {
        return (isUDP ? "UDP -> " : "TCP -> ") + (port ? "h.example:" + *port : "?:?");
    }
};

// What the coordinator holds, its answers by scanning, and what the filter makes of them: the lines
// that both log and the records that the filter leaves.
struct Model {
    Set monitored, blocked;
    std::map<std::string, std::string> parents{
        {"com.apple.WebKit.GPU", "com.apple.Safari"},
        {"com.apple.WebKit.Networking", "com.apple.Safari"},
        {"com.apple.WebKit.WebContent", "com.apple.Safari"},
        {"com.apple.Safari.SearchHelper", "com.apple.Safari"}};
    bool isConnected = true, hasState = false;
    std::string fallback = "allow";
    std::deque<ActivityLogEntryIPC> records = {};
    std::vector<ExpectedLine> lines = {};

    void replace(Set& present, const Set& next, const std::string& what) {
        const auto missing = [](const Set& left, const Set& right) {
            return std::ranges::count_if(left, [&](auto& each) { return !right.contains(each); });
        };
        const auto came = missing(next, present), went = missing(present, next);
        present = next;
        if (came + went > 0)
            lines.push_back(info(what + ": +" + std::to_string(came) + " -" + std::to_string(went) +
                                 " total=" + std::to_string(next.size())));
    }
    void updateVpnState(bool nowConnected, const char* nowFallback) {
        isConnected = nowConnected;
        fallback = nowFallback;
        lines.push_back(info(std::string("VPN state updated: connected=") +
                             (isConnected ? "true" : "false") + " fallback=" + fallback +
                             " firstInit=" + (std::exchange(hasState, true) ? "false" : "true")));
    }
    void registerChild(const std::string& child, const std::string& parent) {
        if (!parents.contains(child))
            lines.push_back(debug("Registered child mapping: " + child + " -> " + parent));
        parents[child] = parent;
    }
    void reset() {
        *this = {.monitored = {}, .blocked = {}, .parents = parents};
        lines.push_back(info("Coordinator state reset (proxy stopped)"));
    }

    bool matches(const Set& members, const std::string& bundleId) const {
        const auto parent = parents.find(bundleId);
        const auto& name = parent == parents.end() ? bundleId : parent->second;
        return std::ranges::any_of(members, [&](const auto& member) {
            return name == member || name.starts_with(member + ".");
        });
    }
    bool fallsBack(const std::string& bundleId) const {
        return !isConnected && fallback == "block" && matches(monitored, bundleId);
    }

    NEFilterNewFlowVerdict newFlow(const Asked& flow) {
        const auto& app = flow.bundleId;
        const auto dropped = [&](const std::string& line, const char* decision = nullptr) {
            lines.push_back(info(line));
            if (decision) leaveRecord(flow, decision);
            return NEFilterNewFlowVerdict::dropVerdict();
        };
        if (!hasState && matches(monitored, app)) return dropped("DROP (uninitialized): " + app);
        if (matches(blocked, app)) {
            if (!flow.isSocketFlow) return dropped("BLOCK: " + app + " (non-socket flow)");
            if (flow.isUDPTo("53")) return NEFilterNewFlowVerdict::allowVerdict();
            return dropped("BLOCK: " + app + " " + flow.where(), "block");
        }
        if (fallsBack(app)) {
            if (!flow.isSocketFlow) return dropped("VPN BLOCK: " + app);
            if (flow.isUDP && flow.port != "443") return NEFilterNewFlowVerdict::allowVerdict();
            return dropped("VPN BLOCK: " + app + " " + flow.where(), "vpn");
        }
        if (!matches(monitored, app)) return NEFilterNewFlowVerdict::allowVerdict();
        lines.push_back(debug("MONITORING flow: " + app));
        return NEFilterNewFlowVerdict::filterDataVerdict(false, 0, true, 1);
    }
    NEFilterDataVerdict data(const Asked& flow, std::int64_t offset, std::size_t length) {
        const auto& app = flow.bundleId;
        const auto at = app + " offset=" + std::to_string(offset);
        const auto dropped = [&](const std::string& line) {
            lines.push_back(info(line));
            return NEFilterDataVerdict::dropVerdict();
        };
        if (matches(blocked, app)) return dropped("BLOCK DROP (existing flow): " + at);
        if (fallsBack(app) && flow.isUDPTo("443")) {
            leaveRecord(flow, "vpn");
            return dropped("QUIC BLOCK (deferred): " + app + " -> h.example:443");
        }
        if (fallsBack(app)) return dropped("VPN FALLBACK DROP: " + at);
        if (matches(monitored, app)) return NEFilterDataVerdict::dataVerdict(length, 1);
        return dropped("DROP stale VPN flow: " + at);
    }
    void leaveRecord(const Asked& flow, const char* decision) {
        if (!flow.port) return;
        static const std::map<std::string, std::uint16_t> numbers{
            {"53", 53}, {"443", 443}, {"053", 53}};
        const auto number = numbers.find(*flow.port);
        ActivityLogEntryIPC record;
        record.timestamp = Date::now();
        record.bundleId = flow.bundleId;
        record.appName = flow.bundleId.substr(flow.bundleId.rfind('.') + 1);
        record.routingDecision = decision;
        record.actualRoute = "blocked";
        record.destinationIp = "h.example";
        record.destinationPort = number == numbers.end() ? std::uint16_t{0} : number->second;
        record.protocolType = flow.isUDP ? "udp" : "tcp";
        records.push_back(record);
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
        world.takeLog();
    }

    void play() {
        for (int step = 0; step < 60 && !testing::Test::HasFailure(); ++step) {
            oneStep();
            EXPECT_TRUE(logIs(world, std::exchange(model.lines, {})));
        }
        auto records = coordinator.drainQuicBlocks();
        for (auto& record : records) record.id = {};  // made at random
        EXPECT_EQ(records, model.records);
    }

private:
    const std::string& anyIdentifier() { return identifiers[world.draw(identifiers.size())]; }
    Set anySet() {
        Set members;
        for (auto count = world.draw(4); count > 0; --count) members.insert(anyIdentifier());
        if (world.draw(8) == 0) members.insert("");
        return members;
    }

    void oneStep() {
        const auto next = anySet();
        const auto child = anyIdentifier(), parent = anyIdentifier();
        const bool isConnected = world.draw(2) == 0;
        const auto* fallback = std::array{"block", "block", "allow", "Block", ""}[world.draw(5)];
        switch (world.draw(10)) {
            case 0:
                model.replace(model.monitored, next, "Monitoring updated");
                return coordinator.updateMonitoredApps(share({next.begin(), next.end()}));
            case 1:
                model.replace(model.blocked, next, "Blocked apps updated");
                return coordinator.updateBlockedApps(share({next.begin(), next.end()}));
            case 2:
                model.updateVpnState(isConnected, fallback);
                return coordinator.updateVpnState(isConnected, fallback);
            case 3:
                model.registerChild(child, parent);
                return coordinator.registerChildProcess(child, parent);
            case 4:
                if (world.draw(4) != 0) return;
                model.reset();
                return coordinator.resetState();
            default:
                askForAFlow();
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
        const auto length = world.draw(3000);
        const auto offset = static_cast<std::int64_t>(world.draw(3000));
        if (world.draw(2) == 0)
            EXPECT_EQ(filter->handleNewFlow(flow.filterFlow()), model.newFlow(asked))
                << asked.bundleId << " " << asked.where();
        else
            EXPECT_EQ(filter->handleOutboundData(flow.filterFlow(), offset,
                                                 Data(std::string(length, 'x'))),
                      model.data(asked, offset, length))
                << asked.bundleId << " " << asked.where();
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
