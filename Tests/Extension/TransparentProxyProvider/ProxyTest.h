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

    // Whoever asks for a flow's owner remembers a thousand of them, and then none of those. One that is
    // remembered costs this many questions.
    template <class Ask>
    void expectAThousandRemembered(Process process, Ask ask, std::size_t questions) {
        const auto isNew = [&](std::uint32_t version) {
            process.version = version;
            world.processes.forgetQuestions();
            ask(process);
            return world.processes.questions() > questions;
        };
        for (std::uint32_t version = 1; version <= 1000; ++version) ASSERT_TRUE(isNew(version));
        EXPECT_FALSE(isNew(1) || isNew(1000));
        EXPECT_TRUE(isNew(1001));
        EXPECT_FALSE(isNew(1001));
        EXPECT_TRUE(isNew(1000) && isNew(1));
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
