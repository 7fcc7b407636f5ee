// What the tests of the proxy share: a world with a proxy in it, and words for its files and flows.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Extension/FlowKillCoordinator.h"
#include "Extension/TransparentProxyProvider.h"
#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Platform/Simulated/Expectations.h"

namespace vantry {

// Tests speak the platform's words.
using namespace platform;
using namespace platform::simulated;

inline constexpr const char* rulesFile = "/tmp/org.quillmere.Vantry.rules.json";
inline constexpr const char* activityLogFile = "/tmp/org.quillmere.Vantry.activitylog.json";
inline constexpr const char* rulesChanged = "org.quillmere.Vantry.rulesChanged";
inline constexpr const char* proxyCategory = "TransparentProxy";

// What the application sees of a session that is ended gracefully.
inline NSError peerReset() {
    return {NEAppProxyErrorDomain, NEAppProxyFlowErrorPeerReset,
            "The application's peer reset the flow"};
}

// A rules file drawn from the seed: a rule for most of these applications, some blocked, and any of the
// other keys.
inline std::string randomRules(World& world, const std::vector<std::string>& applications) {
    const auto either = [&](const char* one, const char* other) {
        return world.draw(2) == 0 ? one : other;
    };
    const auto anyWord = [&] {
        return std::array{R"("direct")", R"("vpn")", R"("block")", R"("odd")"}[world.draw(4)];
    };
    std::string rules, blocked, keys;
    const auto add = [](std::string& list, const std::string& item) {
        list += (list.empty() ? "" : ",") + item;
    };
    for (const auto& application : applications) {
        const auto name = '"' + application + '"';
        if (world.draw(3) != 0) add(rules, name + ":" + anyWord());
        if (world.draw(5) == 0) add(blocked, name);
    }
    const std::pair<std::string, const char*> others[] = {
        {"defaultAction", anyWord()},
        {"vpnConnected", either("true", "false")},
        {"vpnFallback", either(R"("block")", R"("allow")")},
        {"directFallback", either(R"("block")", R"("vpn")")}};
    for (const auto& [key, value] : others)
        if (world.draw(2) == 0) keys += ",\"" + key + "\":" + value;
    return R"({"rules":{)" + rules + R"(},"blockedApps":[)" + blocked + "]" + keys + "}";
}

class ProxyTest : public testing::Test {
protected:
    // The proxy's lines since the last look are exactly these.
    testing::AssertionResult proxyLogIs(const std::vector<ExpectedLine>& expected) {
        return linesAre(world.takeLog(proxyCategory), expected);
    }

    void putRules(std::string_view document) { world.files.put(rulesFile, document); }
    // Puts rules into force as the host application does.
    void changeRules(std::string_view document) {
        putRules(document);
        world.post(rulesChanged);
        world.runUntilIdle();
    }

    // A flow of this application to host "h"; not yet offered.
    Flow newFlow(const std::string& signingIdentifier, std::optional<Data> auditToken = {},
                 RemoteEndpoint to = NWHostEndpoint{"h", "443"},
                 FlowDescription::Kind kind = FlowDescription::Kind::tcp) const {
        return Flow({.kind = kind,
                     .remoteEndpoint = std::move(to),
                     .signingIdentifier = signingIdentifier,
                     .auditToken = std::move(auditToken)});
    }
    // Whether the proxy claims such a flow.
    template <class... About>
    bool offer(const std::string& signingIdentifier, About&&... about) {
        return world.offerToProxy(newFlow(signingIdentifier, std::forward<About>(about)...))
            .claimed;
    }
    // The name and the decision that a TCP flow is routed by, read off its log line; nothing if it is
    // left alone before that.
    struct Routed {
        std::string bundleId, decision;
    };
    Routed routed(const std::string& signingIdentifier, std::optional<Data> auditToken = {}) {
        world.takeLog();
        offer(signingIdentifier, std::move(auditToken));
        for (const auto& line : world.takeLog(proxyCategory)) {
            if (line.format == "TCP flow: %{public}s, decision: %{public}s")
                return {line.arguments[0], line.arguments[1]};
            if (line.format == "BLOCK (filter-enforced): %{public}s TCP -> %{public}s:%s")
                return {line.arguments[0], "block"};
        }
        return {};
    }
    std::string decisionOf(const std::string& signingIdentifier) {
        return routed(signingIdentifier).decision;
    }

    // The entries of the log file as it stands.
    std::vector<ActivityLogEntryIPC> logFileEntries() const {
        const auto decoded =
            ActivityLogResponseIPC::decode(world.files.contents(activityLogFile).value_or(""));
        const auto* log = std::get_if<ActivityLogResponseIPC>(&decoded);
        return log ? log->entries : std::vector<ActivityLogEntryIPC>();
    }

    World world;
    FlowKillCoordinator& coordinator = FlowKillCoordinator::shared();
};

}  // namespace vantry
