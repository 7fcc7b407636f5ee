// Ends sessions that a rule change has taken off the direct path. They leave the table at once, carry
// nothing more from then on, and end one after the other, 50 ms apart, with a reset, so that their
// applications reconnect under the new rule without doing so all in one moment.

#include <array>
#include <cstdio>

#include "Extension/TransparentProxyProvider.h"

namespace vantry {

using platform::Logger;
using platform::LogLevel;
using platform::NSLockGuard;

namespace {

constexpr double secondsBetweenKills = 0.05;

using KillList = std::vector<std::pair<std::intptr_t, std::shared_ptr<ProxySession>>>;

double killDelay(std::size_t index) { return secondsBetweenKills * static_cast<double>(index); }

std::string inMilliseconds(double seconds) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.0f", seconds * 1000);
    return text.data();
}

// Not a byte passes from here on, however long a session's turn to end may take.
void holdBack(const KillList& killList) {
    for (const auto& [flowHash, session] : killList) session->holdBack();
}

// The closure keeps the session and nothing else. A session that has ended by then is left alone.
void scheduleKill(std::shared_ptr<ProxySession> session, double delay) {
    platform::DispatchQueue::global(platform::QualityOfService::userInitiated)
        .asyncAfter(delay, [session = std::move(session)] { session->cancelGracefully(); });
}

const std::string& decisionIn(const RuleTable& rules, const std::string& bundleId,
                              const std::string& otherwise) {
    const auto rule = rules.find(bundleId);
    return rule == rules.end() ? otherwise : rule->second;
}

// The applications whose decision went from "direct" to any other word. Each side's word without a rule
// is the present default.
BundleIdSet directToOther(const RuleTable& oldRules, const RuleTable& newRules,
                          const std::string& defaultWord, const Logger& logger) {
    BundleIdSet changed;
    if (&oldRules == &newRules && !Logger::isEnabled(LogLevel::debug)) return changed;
    for (const auto& [bundleId, oldDecision] : oldRules) {
        if (oldDecision != "direct" && !Logger::isEnabled(LogLevel::debug)) continue;
        const auto& newDecision = decisionIn(newRules, bundleId, defaultWord);
        logger.debug("Comparing %{public}s: old=%{public}s new=%{public}s", bundleId, oldDecision,
                     newDecision);
        if (oldDecision != "direct" || newDecision == "direct") continue;
        changed.insert(bundleId);
        logger.debug("CHANGE direct->vpn: %{public}s", bundleId);
    }
    return changed;
}

// The applications whose decision went from any other word to "direct".
BundleIdSet otherToDirect(const RuleTable& oldRules, const RuleTable& newRules,
                          const std::string& defaultWord, const Logger& logger) {
    BundleIdSet changed;
    if (&oldRules == &newRules) return changed;
    for (const auto& [bundleId, newDecision] : newRules) {
        if (newDecision != "direct") continue;
        if (decisionIn(oldRules, bundleId, defaultWord) == "direct") continue;
        changed.insert(bundleId);
        logger.debug("CHANGE vpn->direct: %{public}s", bundleId);
    }
    return changed;
}

void logAppearedAndRemoved(const RuleTable& oldRules, const RuleTable& newRules,
                           const Logger& logger) {
    if (!Logger::isEnabled(LogLevel::debug)) return;
    for (const auto& [bundleId, decision] : newRules)
        if (!oldRules.contains(bundleId))
            logger.debug("NEW rule appeared: %{public}s -> %{public}s", bundleId, decision);
    for (const auto& [bundleId, decision] : oldRules)
        if (!newRules.contains(bundleId))
            logger.debug("REMOVED rule: %{public}s was %{public}s", bundleId, decision);
}

}  // namespace

// A change of rules that came between the decision and the entry in the table did not find the session there.
// As rules are published before the table is looked through, one of the two sees the other; whoever takes
// the session out of the table ends it.
void TransparentProxyProvider::endIfNoLongerDirect(FlowHash flowHash,
                                                   const std::shared_ptr<ProxySession>& session) {
    if (ruleState.snapshot()->getRoutingDecision(session->bundleId) == "direct") return;
    {
        const NSLockGuard hold(sessionsLock);
        const auto entry = activeSessions.find(flowHash);
        if (entry == activeSessions.end() || entry->second != session) return;
        activeSessions.erase(entry);
    }
    session->holdBack();
    logger.debug("Scheduling graceful kill: sid=%ld bundleId=%{public}s delay=%sms",
                 session->sessionId, session->bundleId, inMilliseconds(0));
    scheduleKill(session, 0);
}

void TransparentProxyProvider::killSessionsForChangedRules(const RuleTable& oldRules,
                                                           const RuleTable& newRules) {
    logger.debug("killSessionsForChangedRules: oldRules=%ld newRules=%ld", oldRules.size(),
                 newRules.size());
    const auto rules = ruleState.snapshot();
    const auto& defaultWord = rules->defaultDecision;
    const auto changedBundleIds = directToOther(oldRules, newRules, defaultWord, logger);
    const auto vpnToDirectBundleIds = otherToDirect(oldRules, newRules, defaultWord, logger);
    logAppearedAndRemoved(oldRules, newRules, logger);
    logger.debug("changedBundleIds count (direct->vpn): %ld", changedBundleIds.size());

    if (changedBundleIds.empty())
        logger.debug("No direct->vpn rule changes detected, skipping session kill");
    else
        killSessions(changedBundleIds);
    if (!vpnToDirectBundleIds.empty()) flushDeclinedFlows();
}

void TransparentProxyProvider::killSessions(const BundleIdSet& changedBundleIds) {
    KillList killList;
    {
        const NSLockGuard hold(sessionsLock);
        logger.debug("activeSessions.count: %ld", activeSessions.size());
        for (const auto& [flowHash, session] : activeSessions) {
            const bool shouldKill = covers(changedBundleIds, session->bundleId);
            logger.debug(
                "Evaluating session sid=%ld flowHash=%ld: bundleId=%{public}s shouldKill=%{bool}d",
                session->sessionId, flowHash, session->bundleId, shouldKill);
            if (shouldKill) killList.emplace_back(flowHash, session);
        }
        for (const auto& [flowHash, session] : killList) activeSessions.erase(flowHash);
    }
    holdBack(killList);
    for (std::size_t index = 0; index < killList.size(); ++index) {
        const auto& session = killList[index].second;
        const auto delay = killDelay(index);
        logger.debug("Scheduling graceful kill: sid=%ld bundleId=%{public}s delay=%sms",
                     session->sessionId, session->bundleId, inMilliseconds(delay));
        scheduleKill(session, delay);
    }
    logger.info("Gracefully killed %ld proxy sessions for %ld changed rules", killList.size(),
                changedBundleIds.size());
}

void TransparentProxyProvider::killSessionsForBlockedApps(const BundleIdSet& newlyBlocked) {
    KillList killList;
    {
        const NSLockGuard hold(sessionsLock);
        for (const auto& [flowHash, session] : activeSessions)
            if (covers(newlyBlocked, session->bundleId)) killList.emplace_back(flowHash, session);
        if (killList.empty()) return;
        for (const auto& [flowHash, session] : killList) activeSessions.erase(flowHash);
    }
    holdBack(killList);
    for (std::size_t index = 0; index < killList.size(); ++index) {
        const auto& session = killList[index].second;
        const auto delay = killDelay(index);
        logger.debug("Scheduling block kill: sid=%ld bundleId=%{public}s delay=%sms",
                     session->sessionId, session->bundleId, inMilliseconds(delay));
        scheduleKill(session, delay);
    }
    logger.info("Killed %ld proxy sessions for %ld newly-blocked apps", killList.size(),
                newlyBlocked.size());
}

}  // namespace vantry
