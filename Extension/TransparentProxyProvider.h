// The proxy. It is offered every outbound flow, claims a TCP flow that the rules send directly over the
// physical interface and relays it, and leaves all others to the operating system, whose own route is
// the VPN while the VPN is up. It owns the rules, the running sessions, the activity log and the view
// of the network, and keeps the coordinator told of what the filter has to know.
//
// The platform owns the one object and calls it on several threads at once; notifications, path
// updates, timers and completions come in on others. So every field is one of: constant, atomic,
// published as a whole, or guarded by the lock named beside it. `sessionsLock` guards the table of
// sessions and nothing else. It is not recursive, and the end of a session takes it: nothing that can
// end a session is called while holding it.
//
// The operations live in the folder beside this header, a file a concern.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Extension/BundleIdSet.h"
#include "Extension/ProcessCache.h"
#include "Extension/Published.h"
#include "Extension/RuleState.h"
#include "Extension/ipc/ActivityLogEntryIPC.h"
#include "Extension/ipc/ExtensionMessage.h"
#include "Extension/ipc/ExtensionResponse.h"
#include "Extension/proxy-session/ProxySession.h"
#include "Platform/DarwinNotifications.h"
#include "Platform/Logging.h"
#include "Platform/NEProvider.h"
#include "Platform/Network.h"

namespace vantry {

class TransparentProxyProvider final
    : public platform::NETransparentProxyProvider,
      public std::enable_shared_from_this<TransparentProxyProvider> {
public:
    // Brings the proxy up with the rules that its sources give. Returns without waiting for the
    // settings call, whose outcome `completionHandler` gets. `options` are ignored.
    void startProxy(std::optional<platform::JSONObject> options,
                    ErrorCompletion completionHandler) override;
    // Takes it down: sessions end, the filter fails open. `completionHandler` is called before the
    // return. The rules stay.
    void stopProxy(platform::NEProviderStopReason reason,
                   platform::Completion<> completionHandler) override;
    // True claims the flow. Decides at once; all relaying happens later.
    bool handleNewFlow(const std::shared_ptr<platform::NEAppProxyFlow>& flow) override;
    // Reads the rules file again and puts into force what has changed. Entered through the observer,
    // one delivery at a time.
    void handleRulesChangedNotification();
    // Answers a request of the host application before it returns.
    void handleAppMessage(
        platform::Data messageData,
        platform::Completion<std::optional<platform::Data>> completionHandler) override;
    void sleep(platform::Completion<> completionHandler) override;
    void wake() override;

private:
    // Asks single questions, for the benchmarks and for tests of steps that no flow reaches alone.
    friend class ProxyProbe;
    // Says what would become of a flow, and changes nothing.
    friend class FlowExplanation;

    using FlowHash = std::intptr_t;
    using SessionTable = std::unordered_map<FlowHash, std::shared_ptr<ProxySession>>;
    using AuditToken = std::optional<platform::Data>;

    // RuleSources: the rules from the provider configuration and from the shared file.
    void loadRoutingRules() REQUIRES(ruleChangesLock);
    void loadRulesFromSharedFile() REQUIRES(ruleChangesLock);
    SharedBundleIds vpnRoutedBundleIds(const SharedRules& rules, const SharedBundleIds& excluded)
        REQUIRES(ruleChangesLock);

    // RuleChanges: the host application's signal, and the order of all changes.
    class RuleChange;
    void registerForRulesChangedNotification();
    static void rulesChanged(platform::CFNotificationCenter& center, void* observer,
                             std::string_view name, const void* object, const void* userInfo);

    // FlowIntake: what becomes of a new flow.
    bool handleTCPFlow(const std::shared_ptr<platform::NEAppProxyTCPFlow>& flow,
                       const RuleState& rules);
    bool handleUDPFlow(const platform::NEAppProxyUDPFlow& flow, std::string_view bundleId);
    void logFirstFlow(std::string_view signingIdentifier);
    std::optional<std::string> physicalInterfaceIp() const;

    // DirectPath: a session over the physical interface, or why there is none.
    bool proxyTCPFlowDirect(const std::shared_ptr<platform::NEAppProxyTCPFlow>& flow,
                            const std::string& bundleId, const RuleState& rules);
    bool fallBackWithoutInterface(const std::shared_ptr<platform::NEAppProxyTCPFlow>& flow,
                                  const std::string& bundleId, const std::string& hostname,
                                  const RuleState& rules);
    void sessionEnded(FlowHash flowHash, std::int64_t sessionId, const std::string& bundleId);

    // SessionTermination: sessions that no longer fit the rules.
    void endIfNoLongerDirect(FlowHash flowHash, const std::shared_ptr<ProxySession>& session);
    void killSessionsForChangedRules(const RuleTable& oldRules, const RuleTable& newRules)
        REQUIRES(ruleChangesLock);
    void killSessions(const BundleIdSet& changedBundleIds);
    void killSessionsForBlockedApps(const BundleIdSet& newlyBlocked);

    // DeclinedFlowFlush: declined flows are shown to the proxy once more.
    void flushDeclinedFlows();
    void sentinelApplied(const std::optional<platform::NSError>& error);
    void cleanSettingsApplied(const std::optional<platform::NSError>& error);
    void cleanSettingsRetried(const std::optional<platform::NSError>& error);

    // NetworkPath: the physical interface, and the addresses of it and of the tunnel.
    void startPathMonitor();
    void pathChanged(const platform::NWPath& path);
    static std::optional<std::string> getIPForInterface(std::string_view name);
    static std::optional<std::string> getVpnTunnelIp();

    // NetworkSettings: which flows the operating system offers.
    static platform::NETransparentProxyNetworkSettings createProxySettings();

    // Identity: under which name the rules know a flow's owner.
    static bool isSystemProcess(std::string_view bundleId, const AuditToken& auditToken);
    static std::optional<std::uint32_t> euidFromAuditToken(const platform::Data& auditToken);
    bool isProtectedVpnClient(std::string_view bundleId) const;
    void discoverVpnClients();
    void rememberVpnClient(std::string_view providerBundleIdentifier);
    std::string resolveParentBundleId(const std::string& bundleId, const AuditToken& auditToken,
                                      const RuleState& rules);
    // The name, and how it was found.
    struct KnownName {
        enum class Through { itself, prefix, ancestor, rememberedAncestor, nothing };
        std::string name;
        Through through = Through::nothing;
    };
    KnownName findKnownName(const std::string& bundleId, const AuditToken& auditToken,
                            const RuleState& rules) const;
    KnownName resolveViaProcessTree(const platform::Data& auditToken, const RuleState& rules) const;
    void registerChildMappingIfNeeded(std::string_view resolvedBundleId,
                                      const AuditToken& auditToken) const;

    // AppMessages: the host application's requests.
    std::optional<platform::Data> statusReply() const;
    std::optional<platform::Data> reload(ExtensionMessage message);
    std::optional<platform::Data> activeAppsReply() const;
    std::optional<platform::Data> clearActivityLog();
    static std::optional<platform::Data> encodeResponse(const ExtensionResponse& response);

    // ActivityLog: the list of observed flows and its file.
    void recordActivity(const std::string& bundleId, const std::string& routingDecision,
                        std::optional<std::string> actualRoute, std::optional<std::string> sourceIp,
                        const std::string& destinationHost, std::uint16_t destinationPort,
                        std::string protocolType, bool isVpnConnected);
    void scheduleActivityLogWrite();
    void writeActivityLogAfter(double seconds);
    bool beginsActivityLogWrite() REQUIRES(activityLogLock);
    void performActivityLogWrite();
    void endActivityLogWrite();
    std::vector<ActivityLogEntryIPC> activityLogWithDrainedBlocks();
    void trimActivityLog() REQUIRES(activityLogLock);

    // FailureNotices: the host application learns of direct flows that had to go elsewhere.
    void notifyDirectConnectionFailed(const std::string& bundleId, const std::string& host);
    bool passesFailureCooldown(const std::string& bundleId, platform::Date now);
    std::optional<std::string> resolvedSharedContainer() REQUIRES(failureFileLock);

    // The number of the newest session of this process; numbers go on over a stop and a start.
    static std::atomic<std::int64_t> nextSessionId;

    const platform::Logger logger{"org.quillmere.Vantry.Extension", "TransparentProxy"};

    // Not yet asked for, or the answer: a folder or none.
    std::optional<std::optional<std::string>> sharedContainer GUARDED_BY(failureFileLock);
    // Puts the updates of the failure file in one order.
    platform::NSLock failureFileLock{platform::NSLock::heldAcrossCalls};

    // `routingRules`, `defaultDecision`, `vpnFallback`, `directFallback`, `isVpnConnected` and
    // `blockedApps`, replaced under `ruleChangesLock` only.
    Published<RuleState> ruleState;
    // The last answer of `vpnRoutedBundleIds`, and to what.
    struct VpnRouted {
        SharedRules rules;
        SharedBundleIds excluded;
        SharedBundleIds bundleIds;
    };
    VpnRouted vpnRouted GUARDED_BY(ruleChangesLock);
    // Puts changes of the rules in one order, each from its load to its last word to the coordinator.
    platform::NSLock ruleChangesLock{platform::NSLock::heldAcrossCalls};

    std::deque<ActivityLogEntryIPC> activityLog GUARDED_BY(activityLogLock);
    platform::Date activityLogLastWriteTime GUARDED_BY(activityLogLock) =
        platform::Date::distantPast();
    bool activityLogWritePending GUARDED_BY(activityLogLock) = false;
    bool activityLogWriteUnderWay GUARDED_BY(activityLogLock) = false;
    // A write that fell due during the one under way.
    bool activityLogWriteFollows GUARDED_BY(activityLogLock) = false;
    mutable platform::NSLock activityLogLock;
    // Held for a whole write of the log file and for its removal. Taken before `activityLogLock`.
    platform::NSLock activityLogWriterLock{platform::NSLock::heldAcrossCalls};

    std::shared_ptr<platform::NWPathMonitor> pathMonitor GUARDED_BY(pathMonitorLock);
    platform::NSLock pathMonitorLock;
    Published<std::optional<platform::NWInterface>> physicalInterface;

    SessionTable activeSessions GUARDED_BY(sessionsLock);
    mutable platform::NSLock sessionsLock;

    Published<BundleIdSet> dynamicVpnClients;
    ProcessCache processCache;

    platform::StringMap<platform::Date> lastFailureNotificationTime GUARDED_BY(failureTimesLock);
    platform::NSLock failureTimesLock;

    std::atomic<bool> hasLoggedFirstFlow{false};
    std::atomic<std::int64_t> startProxyCount{0};
    std::atomic<bool> isFlushingDeclinedFlows{false};
};

// A change of the rules, for as long as it lives: one at a time, and what the providers decide meanwhile is
// asked again after it.
class SCOPED_CAPABILITY TransparentProxyProvider::RuleChange {
public:
    explicit RuleChange(TransparentProxyProvider& changing) ACQUIRE(changing.ruleChangesLock);
    ~RuleChange() RELEASE();
    RuleChange(const RuleChange&) = delete;
    RuleChange& operator=(const RuleChange&) = delete;

private:
    TransparentProxyProvider& provider;
};

}  // namespace vantry
