#include "Extension/FlowExplanation.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Extension/FlowKillCoordinator.h"
#include "Extension/FlowKillFilterProvider.h"
#include "Extension/ProcessUtils.h"
#include "Extension/TransparentProxyProvider.h"

namespace vantry {

using platform::FlowQuestion;
using platform::JSONObject;

// What has been found so far. The filter has the last word.
struct FlowExplanation::Findings {
    const char* route = "system";
    const char* decidedBy = "default";
    // What the proxy would teach the coordinator: the bundle of the process counts as this one.
    std::optional<std::string> bundle, countsAs;
    JSONObject document;

    void decide(const char* newRoute, const char* step) {
        route = newRoute;
        decidedBy = step;
    }
    FlowKillCoordinator::Answers answersFor(const std::string& name) const {
        const bool isMapped = countsAs && name == bundle;
        return FlowKillCoordinator::shared().answersFor(isMapped ? *countsAs : name, isMapped);
    }
};

namespace {

// The bundle that the process lives in; without a token the program is taken to be one of its own.
std::optional<std::string> bundleOf(const FlowQuestion& question) {
    const auto& [identifier, token] = question.metaData;
    if (!token) return identifier;
    const auto pid = ProcessUtils::pidFromAuditToken(*token);
    return pid ? ProcessUtils::getBundleIdForPid(*pid) : std::nullopt;
}

void describe(const RuleState& rules, JSONObject& document) {
    document["defaultAction"] = rules.defaultDecision;
    document["isVpnConnected"] = rules.isVpnConnected;
    document["vpnFallback"] = rules.vpnFallback;
    document["directFallback"] = rules.directFallback;
}

}  // namespace

JSONObject FlowExplanation::explain(const platform::NETransparentProxyProvider& proxy,
                                    const platform::NEFilterDataProvider& filter,
                                    const FlowQuestion& question) {
    Findings findings;
    findings.document["identifier"] = question.metaData.sourceAppSigningIdentifier;
    askProxy(static_cast<const TransparentProxyProvider&>(proxy), question, findings);
    askFilter(static_cast<const FlowKillFilterProvider&>(filter), question, findings);
    findings.document["route"] = findings.route;
    findings.document["decidedBy"] = findings.decidedBy;
    return std::move(findings.document);
}

void FlowExplanation::askProxy(const TransparentProxyProvider& proxy, const FlowQuestion& question,
                               Findings& findings) {
    auto& document = findings.document;
    const auto& [identifier, token] = question.metaData;
    const auto rules = proxy.ruleState.snapshot();
    describe(*rules, document);
    const auto interface = *proxy.physicalInterface.snapshot();
    if (interface) document["interface"] = interface->name();
    if (TransparentProxyProvider::isSystemProcess(identifier, token))
        return findings.decide("system", "systemProcess");
    if (proxy.isProtectedVpnClient(identifier)) return findings.decide("system", "vpnClient");

    const auto known = proxy.findKnownName(identifier, token, *rules);
    document["knownAs"] = known.name;
    document["through"] = wordFor(known.through);
    findings.bundle = bundleOf(question);
    if (findings.bundle && findings.bundle != known.name) findings.countsAs = known.name;
    const auto* rule = rules->ruleFor(known.name);
    if (rule) {
        document["ruleOf"] = rule->first;
        document["rule"] = rule->second;
        findings.decidedBy = rule->first == known.name ? "rule" : "parentRule";
    }
    const bool isDirect = rules->getRoutingDecision(known.name) == "direct";
    if (!isDirect || question.isDatagram) return;
    findings.route = "direct";
    if (interface) return;
    findings.decide(rules->directFallback == "block" ? "blocked" : "system", "directFallback");
}

void FlowExplanation::askFilter(const FlowKillFilterProvider& filter, const FlowQuestion& question,
                                Findings& findings) {
    const auto name = nameForFilter(filter, question, findings);
    if (!name) return;
    const auto answers = findings.answersFor(*name);
    const bool isDNS =
        question.isDatagram && question.remote.port == FlowKillFilterProvider::dnsPort;
    const bool isOtherDatagram =
        question.isDatagram && question.remote.port != FlowKillFilterProvider::quicPort;
    if (!answers.hasReceivedState && answers.isMonitored)
        return findings.decide("blocked", "start");
    if (answers.isBlocked) {
        findings.document["blockOf"] = answers.name;
        if (!isDNS) findings.decide("blocked", "block");
        return;
    }
    if (answers.isBlockedForVpnFallback) {
        if (!isOtherDatagram) findings.decide("blocked", "vpnFallback");
        return;
    }
    findings.document["isWatched"] = answers.isMonitored;
}

std::optional<std::string> FlowExplanation::nameForFilter(const FlowKillFilterProvider& filter,
                                                          const FlowQuestion& question,
                                                          const Findings& findings) {
    const auto& [identifier, token] = question.metaData;
    if (!token) return identifier;
    if (auto cached = filter.processCache.find(*token)) return cached;
    const auto pid = ProcessUtils::pidFromAuditToken(*token);
    if (!pid) return std::nullopt;
    return FlowKillFilterProvider::namesOf(*pid,
                                           [&](const std::string& candidate) {
                                               const auto answers = findings.answersFor(candidate);
                                               return answers.isMonitored || answers.isBlocked;
                                           })
        .found();
}

const char* FlowExplanation::wordFor(TransparentProxyProvider::KnownName::Through through) {
    using Through = TransparentProxyProvider::KnownName::Through;
    switch (through) {
        case Through::itself:
            return "itself";
        case Through::prefix:
            return "prefix";
        case Through::ancestor:
            return "ancestor";
        case Through::rememberedAncestor:
            return "rememberedAncestor";
        case Through::nothing:
            break;
    }
    return "nothing";
}

}  // namespace vantry
