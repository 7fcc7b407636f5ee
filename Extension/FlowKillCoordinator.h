// The state that both providers share: which applications are watched, which are blocked, whether the
// VPN is up, and which child belongs to which parent. The proxy writes it; the filter asks it for every
// new flow and every outbound chunk, and leaves its block records in it, which the activity log
// collects. Any thread may call any operation. Each answer is exact for one moment; two questions in a
// row may straddle a change.
//
// After construction and after `resetState` the coordinator fails open: every question is answered
// false. It counts as initialized from the first VPN state on, until it is reset.
#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "Extension/BundleIdSet.h"
#include "Extension/ipc/ActivityLogEntryIPC.h"
#include "Platform/Foundation.h"
#include "Platform/Logging.h"

namespace vantry {

class FlowKillCoordinator {
public:
    static FlowKillCoordinator& shared();

    // From now on questions about `childBundleId` are answered for `parentBundleId`. One step only: a
    // parent that is itself a child is not followed. Mappings survive `resetState`.
    void registerChildProcess(std::string_view childBundleId, std::string_view parentBundleId);

    // Replaces the watched applications, those that a rule routes through the VPN. A set that is in force
    // already costs nothing.
    void updateMonitoredApps(const SharedBundleIds& vpnRoutedBundleIds);
    // Replaces the blocked applications. Likewise.
    void updateBlockedApps(const SharedBundleIds& blockedBundleIds);
    // The VPN's state, and what becomes of watched applications while it is down: only "block" has an
    // effect. Initializes the coordinator.
    void updateVpnState(bool isConnected, std::string_view fallback);

    // True if `bundleId`, or the parent that it is mapped to, is in the set in question or lies below
    // one of its members ("a.b" covers "a.b.c", not "a.bc"). Cost: one lookup per dot.
    bool shouldMonitorFlow(std::string_view bundleId) const;
    bool shouldBlockFlow(std::string_view bundleId) const;
    // True for a watched application while the VPN is down with fallback "block".
    bool shouldBlockForVpnFallback(std::string_view bundleId) const;

    // All answers about a name at once, for those who only want to know. A name that
    // `isMapped` is that of a parent already.
    struct Answers {
        std::string name;  // that they are about
        bool hasReceivedState = false;
        bool isMonitored = false;
        bool isBlocked = false;
        bool isBlockedForVpnFallback = false;
    };
    Answers answersFor(std::string_view bundleId, bool isMapped) const;

    // Whether the proxy has delivered a VPN state since the start or the last reset.
    bool hasReceivedState() const;

    // Back to failing open; records that no one has collected are dropped.
    void resetState();

    // Leaves the record of a dropped flow for the activity log, whatever its protocol. No more are kept
    // than the log keeps: the oldest one goes.
    void recordQuicBlock(const ActivityLogEntryIPC& entry);
    // Takes all records left, oldest first.
    std::deque<ActivityLogEntryIPC> drainQuicBlocks();

private:
    // Looks at the whole state, for tests.
    friend class ProxyProbe;

    FlowKillCoordinator();

    // Tells the platform whether watched flows may leave beside the tunnel.
    void keepFlowsInTunnel();
    std::string_view resolveChildMapping(std::string_view bundleId) const REQUIRES(lock);
    bool matches(const BundleIdSet& members, std::string_view bundleId) const REQUIRES(lock);

    static const platform::StringMap<std::string>& knownXpcMappings();

    const platform::Logger logger{"org.quillmere.Vantry.Extension", "FlowKillCoordinator"};
    // Guards every field below, for one operation at a time.
    mutable platform::NSLock lock;
    platform::NSLock tunnelGuardLock{platform::NSLock::heldAcrossCalls};
    SharedBundleIds monitoredBundleIds GUARDED_BY(lock) = share({});
    SharedBundleIds blockedBundleIds GUARDED_BY(lock) = share({});
    bool isVpnConnected GUARDED_BY(lock) = true;
    std::string vpnFallback GUARDED_BY(lock) = "allow";
    bool isStateInitialized GUARDED_BY(lock) = false;
    std::deque<ActivityLogEntryIPC> pendingQuicBlocks GUARDED_BY(lock);
    platform::StringMap<std::string> childToParentMap GUARDED_BY(lock);
};

}  // namespace vantry
