// The language of whole stories of both providers, told act by act. Each act says everything that was
// logged since the act before, of all loggers and levels, and what the story then looks like: the
// state that both providers share, what became of flows, what the files hold.
//
//     EXPECT_TRUE(happened(R"(
//         proxy  info  System sleeping...
//     )"));
//     EXPECT_EQ(state(), "watched [] blocked [] vpn up allow, sessions 1, settings 1");
//     EXPECT_EQ(fates({flow}), Lines{"claimed, open"});
//
// A line says who logs it, at which level, and the text from the sixth place behind the level's first
// letter on; "<any>" stands for any run of characters. The order of the rules in a table and of the
// sessions in theirs carries no meaning: runs of lines that follow it are compared sorted.
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyProbe.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {

using Lines = std::vector<std::string>;

// A rules file of a story: one rule, for "acme.mail", and all other keys.
struct Rules {
    std::string word = {};
    bool isVpnUp = true;
    std::string vpnFallback = "allow";
    std::string directFallback = "block";
    bool isBlocked = false;

    std::string document() const {
        return R"({"rules":{"acme.mail":")" + word + R"("},"defaultAction":"vpn","vpnFallback":")" +
               vpnFallback + R"(","directFallback":")" + directFallback + R"(","vpnConnected":)" +
               (isVpnUp ? "true" : "false") + R"(,"blockedApps":[)" +
               (isBlocked ? R"("acme.mail")" : "") + "]}";
    }
};

class StoryTest : public ProxyTest {
protected:
    using Kind = FlowDescription::Kind;
    using Interface = NWInterface;

    void SetUp() override {
        world.setInterfaceAddresses(
            {{"en0", "10.0.0.2"}, {"en1", "10.0.1.2"}, {"utun0", "10.8.0.2"}});
        world.setPath({{"en0", Interface::InterfaceType::wifi}});
        world.peer("h", 443).echoes();
    }

    testing::AssertionResult happened(std::string_view text) {
        auto actual = world.takeLog();
        for (auto from = actual.begin(); from != actual.end();) {
            const auto isOther = [&](const auto& line) { return line.format != from->format; };
            const auto to = std::find_if(from, actual.end(), isOther);
            if (unordered().contains(from->format)) std::ranges::sort(from, to, {}, &LogLine::text);
            from = to;
        }
        return linesAre(actual, parsed(text));
    }

    // Acts.

    // Both providers start with this file, and no configuration.
    testing::AssertionResult begin(const Rules& first) {
        rules = first;
        putRules(rules.document());
        EXPECT_TRUE(world.start());
        return happened("filter info  Filter provider started\n" + startOfProxy(1) +
                        "filter info  Filter settings applied (default: filterData)\n" +
                        firstDelivery() + endOfStart());
    }
    // New rules are put into force as the host application does. What every delivery logs follows
    // from the two files; `consequences` are the lines behind that.
    testing::AssertionResult rulesBecome(const Rules& next, int sessions,
                                         const std::string& consequences) {
        const auto before = std::exchange(rules, next);
        changeRules(rules.document());
        return happened(delivery(before, sessions) + consequences);
    }
    Flow open(const Process& app, const char* port = "443", Kind kind = Kind::tcp) {
        auto flow =
            newFlow(app.signingIdentifier, app.auditToken(), NWHostEndpoint{"h", port}, kind);
        world.offer(flow);
        world.runUntilIdle();
        return flow;
    }
    void sendsAByte(const Flow& flow) {
        world.outbound(flow, "x");
        world.runUntilIdle();
    }

    // What is logged of them.

    std::string delivery(const Rules& before, int sessions) const {
        return filled(R"(
            proxy  debug Received rules-changed Darwin notification
            proxy  debug Current routingRules.count BEFORE reload: 1
            proxy  debug Old rule: acme.mail -> $old
            $load
            proxy  debug Rules identical after reload: $identical
            proxy  debug routingRules.count AFTER reload: 1
            proxy  debug Active proxy sessions at notification time: $sessions
            proxy  debug killSessionsForChangedRules: oldRules=1 newRules=1
            proxy  debug Comparing acme.mail: old=$old new=$new
            )",
                      {{"$load", loadOfFile(before.isBlocked, "1", "false")},
                       {"$old", before.word},
                       {"$new", rules.word},
                       {"$identical", before.word == rules.word ? "true" : "false"},
                       {"$sessions", std::to_string(sessions)}});
    }
    // The delivery that comes with the registration. Only a blocked application makes a difference: it is
    // taken from the watched ones.
    std::string firstDelivery() const {
        const bool isTaken = rules.isBlocked && rules.word != "direct";
        return delivery(rules, 0) + nothingLeavesDirect() +
               (isTaken ? "shared info  Monitoring updated: +0 -1 total=0\n" : "");
    }
    std::string startOfProxy(int invocation) const {
        return filled(
            R"(
            proxy  info  startProxy() called (invocation #$invocation)
            proxy  info  Starting transparent proxy...
            proxy  error No providerConfiguration available
            $load
            proxy  debug Initial rules after startProxy load (1 rules):
            proxy  debug Startup rule: acme.mail -> $word
            proxy  info  Registered for Darwin rules-changed notification
            $watched)",
            {{"$invocation", std::to_string(invocation)},
             {"$load", loadOfFile(false, invocation == 1 ? "0" : "1", "true")},
             {"$word", rules.word},
             {"$watched",
              rules.word == "direct" ? "" : "shared info  Monitoring updated: +1 -0 total=1\n"}});
    }
    static std::string endOfStart() {
        return R"(
            proxy  info  Physical interface detected: en0 (wifi)
            proxy  info  Transparent proxy started with 1 rules
            )";
    }
    static std::string firstFlow() {
        return "proxy  debug First flow handled at 1767225600.000 app=acme.mail\n";
    }
    // A flow that the VPN takes, or, while it is down, whatever route there is.
    static std::string leftToTheSystem(const std::string& app, bool isVpnUp = true,
                                       const std::string& where = "h:443") {
        return filled(R"(
            proxy  info  TCP flow: $app, decision: vpn
            proxy  debug   -> $where
            proxy  debug VPN path: bundleId=$app dest=$where vpnConnected=$up (OS handles)
            )",
                      {{"$app", app}, {"$where", where}, {"$up", isVpnUp ? "true" : "false"}});
    }
    // A flow of acme.mail that is claimed, and the lines that the filter has for it.
    static std::string relayed(int sid, int sessions, const std::string& interface = "en0",
                               const std::string& linesOfFilter = {}) {
        return filled(R"(
            proxy  info  TCP flow: acme.mail, decision: direct
            proxy  debug   -> h:443
            proxy  debug Binding to interface: $interface
            proxy  debug Direct proxy binding to $interface for acme.mail -> h:443
            proxy  debug remoteEndpoint: h type=hostname interface=$interface
            proxy  debug Session created: sid=$sid flowHash=<any> bundleId=acme.mail totalSessions=$total
            proxy  debug DIRECT path: bundleId=acme.mail dest=h:443 handled=true interface=$interface
            $filter
            proxy  debug sid=$sid Connection ready, starting relay
            )",
                      {{"$interface", interface},
                       {"$sid", std::to_string(sid)},
                       {"$total", std::to_string(sessions)},
                       {"$filter", linesOfFilter}});
    }
    // A flow of acme.mail for the direct path that has no interface.
    static std::string leftWithoutInterface(const std::string& fallback, const std::string& port,
                                            bool givesNotice) {
        return filled(
            R"(
            proxy  info  TCP flow: acme.mail, decision: direct
            proxy  debug   -> h:$port
            proxy  debug Direct fallback triggered: behavior=$fallback bundleId=acme.mail
            proxy  error No physical interface, falling back to VPN per fallback setting: acme.mail
            $notice
            proxy  debug DIRECT path: bundleId=acme.mail dest=h:$port handled=false interface=none
            )",
            {{"$fallback", fallback},
             {"$port", port},
             {"$notice",
              givesNotice ? "proxy  error Direct connection failed for acme.mail -> h" : ""}});
    }
    static std::string ended(const std::string& sid, int remaining) {
        return filled(
            "proxy  debug Session ended: sid=$sid flowHash=<any> bundleId=acme.mail "
            "remainingSessions=$remaining\n",
            {{"$sid", sid}, {"$remaining", std::to_string(remaining)}});
    }
    // The one session of acme.mail, and its rule with it, leaves the direct path.
    static std::string leavesDirect(int sid) {
        return filled(R"(
            proxy  debug CHANGE direct->vpn: acme.mail
            proxy  debug changedBundleIds count (direct->vpn): 1
            proxy  debug activeSessions.count: 1
            proxy  debug Evaluating session sid=$sid flowHash=<any>: bundleId=acme.mail shouldKill=true
            proxy  debug Scheduling graceful kill: sid=$sid bundleId=acme.mail delay=0ms
            proxy  info  Gracefully killed 1 proxy sessions for 1 changed rules
            )",
                      {{"$sid", std::to_string(sid)}});
    }
    // Its rule comes to the direct path, which it is no longer watched for.
    static std::string comesToDirect() {
        return "proxy  debug CHANGE vpn->direct: acme.mail\n" + nothingLeavesDirect() + R"(
            proxy  debug Flushing declined flows: adding sentinel rule
            shared info  Monitoring updated: +0 -1 total=0
            )" +
               flushed();
    }
    static std::string nothingLeavesDirect() {
        return R"(
            proxy  debug changedBundleIds count (direct->vpn): 0
            proxy  debug No direct->vpn rule changes detected, skipping session kill
            )";
    }
    static std::string flushed() {
        return R"(
            proxy  debug Sentinel applied, removing to restore clean settings...
            proxy  debug Clean settings restored, NECP policy active
            )";
    }
    using Values = std::initializer_list<std::pair<std::string_view, std::string>>;
    // The text with each name replaced by its value.
    static std::string filled(std::string text, Values values) {
        for (const auto& [name, value] : values)
            for (auto at = text.find(name); at != std::string::npos;
                 at = text.find(name, at + value.size()))
                text.replace(at, name.size(), value);
        return text;
    }

    // What a story looks like now.

    std::string state() {
        const auto shared = ProxyProbe::shared();
        const auto listed = [](const std::set<std::string>& members) {
            std::string text;
            for (const auto& member : members) text += (text.empty() ? "" : " ") + member;
            return "[" + text + "]";
        };
        return "watched " + listed(shared.watched) + " blocked " + listed(shared.blocked) +
               (shared.isVpnConnected ? " vpn up " : " vpn down ") + shared.vpnFallback +
               (shared.isInitialized ? "" : ", no state received") + ", sessions " +
               std::to_string(ProxyProbe(*world.proxy()).sessions()) + ", settings " +
               std::to_string(world.providers.proxySettings.calls().size());
    }
    // What became of flows.
    static std::vector<std::string> fates(const std::vector<Flow>& flows) {
        std::vector<std::string> texts;
        for (const auto& flow : flows)
            texts.push_back(flow.isClaimed() ? "claimed, " + fateOfClaimed(flow)
                                             : "declined, " + fateOfDeclined(flow));
        return texts;
    }
    // The records of the log file, once a write that is due has been made.
    std::vector<std::string> recorded() {
        world.advance(2);
        std::vector<std::string> lines;
        for (const auto& entry : logFileEntries()) {
            EXPECT_EQ(entry.appName, lastComponent(entry.bundleId));
            lines.push_back(entry.bundleId + " " + entry.routingDecision + " " +
                            entry.actualRoute.value_or("-") + " " + entry.sourceIp.value_or("-") +
                            " " + entry.destinationIp.value_or("-") + ":" +
                            std::to_string(entry.destinationPort.value_or(0)) + " " +
                            entry.protocolType.value_or("-") +
                            (entry.isVpnConnected ? " vpn" : " no vpn"));
        }
        return lines;
    }

    const Process mail = world.application("Mail", "acme.mail");
    Rules rules;  // in force

private:
    static std::string fateOfClaimed(const Flow& flow) {
        if (flow.isClosedOnceWith(peerReset())) return "reset";
        if (flow.isClosedOnceCleanly()) return "closed";
        return flow.isClosed() ? "closed in an odd way" : "open";
    }
    static std::string fateOfDeclined(const Flow& flow) {
        if (flow.lastOffer().dropped()) return "dropped";
        if (flow.isEnded()) return "ended";
        return flow.lastOffer().watched() ? "watched" : "passing";
    }
    // The load of the file in force.
    std::string loadOfFile(bool wasBlocked, const std::string& oldCount,
                           const std::string& isFirst) const {
        std::string blocked;
        if (wasBlocked != rules.isBlocked)
            blocked = std::string("shared info  Blocked apps updated: ") +
                      (rules.isBlocked ? "+1 -0 total=1" : "+0 -1 total=0");
        return filled(R"(
            proxy  debug Reading rules from: /tmp/org.quillmere.Vantry.rules.json
            proxy  debug Raw file contents ($size bytes): $document
            shared info  VPN state updated: connected=$up fallback=$vpnFallback firstInit=$first
            $pushed
            proxy  debug Loaded rules from shared file: $oldCount -> 1, default: vpn, blocked: $blocked
            proxy  debug Fallback settings: vpn=$vpnFallback, direct=$directFallback, vpnConnected=$up
            proxy  debug Rule: acme.mail -> $word
            )",
                      {{"$size", std::to_string(rules.document().size())},
                       {"$document", rules.document()},
                       {"$up", rules.isVpnUp ? "true" : "false"},
                       {"$vpnFallback", rules.vpnFallback},
                       {"$directFallback", rules.directFallback},
                       {"$first", isFirst},
                       {"$pushed", blocked},
                       {"$oldCount", oldCount},
                       {"$blocked", rules.isBlocked ? "1" : "0"},
                       {"$word", rules.word}});
    }
    static const std::set<std::string_view>& unordered() {
        static const std::set<std::string_view> formats{
            "Rule: %{public}s -> %{public}s", "Startup rule: %{public}s -> %{public}s",
            "Old rule: %{public}s -> %{public}s",
            "Comparing %{public}s: old=%{public}s new=%{public}s",
            "Evaluating session sid=%ld flowHash=%ld: bundleId=%{public}s shouldKill=%{bool}d"};
        return formats;
    }
    static std::vector<ExpectedLine> parsed(std::string_view text) {
        static const std::map<std::string_view, std::string> categories{
            {"proxy", proxyCategory},
            {"filter", "FlowKillFilter"},
            {"shared", "FlowKillCoordinator"}};
        static const std::map<std::string_view, LogLevel> levels{
            {"debug", LogLevel::debug}, {"info ", LogLevel::info}, {"error", LogLevel::error}};
        std::vector<ExpectedLine> lines;
        while (!text.empty()) {
            auto line = text.substr(0, text.find('\n'));
            text.remove_prefix(std::min(line.size() + 1, text.size()));
            line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
            if (line.empty()) continue;
            const auto who = line.substr(0, line.find(' '));
            line.remove_prefix(line.find_first_not_of(' ', who.size()));
            lines.push_back(
                {levels.at(line.substr(0, 5)), std::string(line.substr(6)), categories.at(who)});
        }
        return lines;
    }
};

}  // namespace vantry
