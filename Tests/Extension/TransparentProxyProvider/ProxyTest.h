// What the tests of the proxy share: a world with a proxy in it, and words for its files and flows.
#pragma once

#include <gtest/gtest.h>

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

inline constexpr const char* rulesFile = "/tmp/org.quillmere.Vantry.rules.json";
inline constexpr const char* activityLogFile = "/tmp/org.quillmere.Vantry.activitylog.json";
inline constexpr const char* rulesChanged = "org.quillmere.Vantry.rulesChanged";
inline constexpr const char* proxyCategory = "TransparentProxy";

// What the application sees of a session that is ended gracefully.
inline platform::NSError peerReset() {
    return {platform::NEAppProxyErrorDomain, platform::NEAppProxyFlowErrorPeerReset,
            "The application's peer reset the flow"};
}

class ProxyTest : public testing::Test {
protected:
    using ExpectedLine = platform::simulated::ExpectedLine;
    using Process = platform::simulated::Process;
    using Flow = platform::simulated::Flow;
    using FlowDescription = platform::simulated::FlowDescription;

    // The proxy's lines since the last look are exactly these.
    testing::AssertionResult proxyLogIs(const std::vector<ExpectedLine>& expected) {
        return platform::simulated::linesAre(world.takeLog(proxyCategory), expected);
    }

    void putRules(std::string_view document) { world.files.put(rulesFile, document); }
    // Puts rules into force as the host application does.
    void changeRules(std::string_view document) {
        putRules(document);
        world.post(rulesChanged);
        world.runUntilIdle();
    }

    // The decision on a TCP flow with this signing identifier and no token, read off its log line;
    // empty if there is none.
    std::string decisionOf(const std::string& signingIdentifier) {
        world.takeLog();
        world.offerToProxy(world.flow({.remoteEndpoint = platform::NWHostEndpoint{"h", "1"},
                                       .signingIdentifier = signingIdentifier}));
        for (const auto& line : world.takeLog(proxyCategory)) {
            if (line.format == "TCP flow: %{public}s, decision: %{public}s")
                return line.arguments[1];
            if (line.format == "BLOCK (filter-enforced): %{public}s TCP -> %{public}s:%s")
                return "block";
        }
        return "";
    }

    // A flow of this application to host "h"; not yet offered.
    Flow newFlow(const Process& app, const std::string& port = "443",
                 FlowDescription::Kind kind = FlowDescription::Kind::tcp) const {
        return Flow({.kind = kind,
                     .remoteEndpoint = platform::NWHostEndpoint{"h", port},
                     .signingIdentifier = app.signingIdentifier,
                     .auditToken = app.auditToken()});
    }
    // The entries of the log file as it stands.
    std::vector<ActivityLogEntryIPC> logFileEntries() const {
        const auto decoded =
            ActivityLogResponseIPC::decode(world.files.contents(activityLogFile).value_or(""));
        const auto* log = std::get_if<ActivityLogResponseIPC>(&decoded);
        return log ? log->entries : std::vector<ActivityLogEntryIPC>();
    }

    platform::simulated::World world;
    FlowKillCoordinator& coordinator = FlowKillCoordinator::shared();
};

}  // namespace vantry
