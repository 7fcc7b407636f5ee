// Whole stories of starts and stops, of sleep and wake, of an interface that goes, and of what the host application
// asks for.

#include "Tests/Extension/StoryTest.h"

namespace vantry {
namespace {

class LifecycleStory : public StoryTest {
protected:
    static std::string stopOfProxy(int reason, int sessions) {
        std::string ends;
        for (int n = 0; n < sessions; ++n) ends += ended("<any>", 0);
        return filled(R"(
            proxy  info  [STOP] stopProxy() entered, reason: $reason
            proxy  info  [STOP] Darwin observer removed
            proxy  info  [STOP] Collected $sessions sessions to cancel
            $ends
            proxy  info  [STOP] All sessions cancelled
            shared info  Coordinator state reset (proxy stopped)
            proxy  info  [STOP] Coordinator state reset — filter now fail-open
            proxy  info  [STOP] stopProxy() completionHandler called — shutdown complete
            )",
                      {{"$reason", std::to_string(reason)},
                       {"$sessions", std::to_string(sessions)},
                       {"$ends", ends}});
    }
    // A request and its answer; the lines that every one leaves, and those behind them.
    void asks(const std::string& message, const std::string& reply, const std::string& type,
              const std::string& lines = {}) {
        EXPECT_EQ(world.message(message).text(), reply);
        EXPECT_TRUE(happened(filled(R"(
            proxy  info  Received app message: $size bytes
            proxy  info  Decoded message type: $type
            )",
                                    {{"$size", std::to_string(message.size())}, {"$type", type}}) +
                             lines));
    }
    void reloads(const std::string& message, const std::string& lines) {
        asks(message, R"({"success":{}})", "reload", lines);
    }
};

// The file wins for every key that it carries. Its load takes the configuration's blocked list along;
// the first delivery takes blocked applications from the watched ones, here when the file has gone.
TEST_F(LifecycleStory, AStartWhereFileAndConfigurationDisagree) {
    world.preferences.setProviderConfiguration(
        R"({"rules":{"acme.mail":"direct"},"defaultAction":"direct","vpnFallback":"block",
            "directFallback":"block","vpnConnected":true,"blockedApps":["acme.chat"]})");
    world.preferences.setTunnelProviders({"acme.tunnel.provider"});
    putRules(
        R"({"rules":{"acme.mail":"vpn","acme.chat":"vpn"},"directFallback":"vpn","vpnConnected":false})");
    world.startFilter();
    const auto started = world.startProxy();
    world.files.remove(rulesFile);
    world.runUntilIdle();
    EXPECT_TRUE(started.succeeded());
    EXPECT_TRUE(happened(R"(
        filter info  Filter provider started
        proxy  info  startProxy() called (invocation #1)
        proxy  info  Starting transparent proxy...
        shared info  VPN state updated: connected=true fallback=block firstInit=true
        proxy  info  Loaded 1 routing rules from config, default: direct, blocked: 1
        proxy  info  Fallback settings from config: vpn=block, direct=block
        proxy  debug Reading rules from: /tmp/org.quillmere.Vantry.rules.json
        proxy  debug Raw file contents (91 bytes): {"rules":{"acme.mail":"vpn","acme.chat":"vpn"},"directFallback":"vpn","vpnConnected":false}
        shared info  VPN state updated: connected=false fallback=block firstInit=false
        shared info  Blocked apps updated: +1 -0 total=1
        proxy  debug Loaded rules from shared file: 1 -> 2, default: direct, blocked: 1
        proxy  debug Fallback settings: vpn=block, direct=vpn, vpnConnected=false
        proxy  debug Rule: acme.chat -> vpn
        proxy  debug Rule: acme.mail -> vpn
        proxy  debug Initial rules after startProxy load (2 rules):
        proxy  debug Startup rule: acme.chat -> vpn
        proxy  debug Startup rule: acme.mail -> vpn
        proxy  info  Registered for Darwin rules-changed notification
        shared info  Monitoring updated: +2 -0 total=2
        filter info  Filter settings applied (default: filterData)
        proxy  debug Received rules-changed Darwin notification
        proxy  debug Current routingRules.count BEFORE reload: 2
        proxy  debug Old rule: acme.chat -> vpn
        proxy  debug Old rule: acme.mail -> vpn
        proxy  debug Reading rules from: /tmp/org.quillmere.Vantry.rules.json
        proxy  debug No rules file found at /tmp/org.quillmere.Vantry.rules.json
        proxy  debug Rules identical after reload: true
        proxy  debug routingRules.count AFTER reload: 2
        proxy  debug Active proxy sessions at notification time: 0
        proxy  debug killSessionsForChangedRules: oldRules=2 newRules=2
        proxy  debug Comparing acme.chat: old=vpn new=vpn
        proxy  debug Comparing acme.mail: old=vpn new=vpn
        proxy  debug changedBundleIds count (direct->vpn): 0
        proxy  debug No direct->vpn rule changes detected, skipping session kill
        shared info  Monitoring updated: +0 -1 total=1
        proxy  info  Discovered VPN client: acme.tunnel
        proxy  info  Physical interface detected: en0 (wifi)
        proxy  info  Transparent proxy started with 2 rules
    )"));
    EXPECT_EQ(state(),
              "watched [acme.mail] blocked [acme.chat] vpn down block, sessions 0, settings 1");

    const auto held = open(mail);
    const auto blocked = open(world.application("Chat", "acme.chat"));
    const auto tunnel = open(world.application("Tunnel", "acme.tunnel"));
    const auto direct = open(world.application("News", "acme.news"));
    EXPECT_TRUE(happened(firstFlow() + R"(
        proxy  info  TCP flow: acme.mail, decision: vpn
        proxy  debug   -> h:443
        proxy  error VPN fallback BLOCK (filter-enforced): acme.mail -> h:443
        filter info  VPN BLOCK: acme.mail TCP -> h:443
        proxy  info  BLOCK (filter-enforced): acme.chat TCP -> h:443
        filter info  BLOCK: acme.chat TCP -> h:443
        proxy  debug Protected VPN client, passing through: acme.tunnel
        )" + filled(relayed(1, 1), {{"acme.mail", "acme.news"}})));
    EXPECT_EQ(
        fates({held, blocked, tunnel, direct}),
        (Lines{"declined, dropped", "declined, dropped", "declined, passing", "claimed, open"}));
    EXPECT_EQ(recorded(), (Lines{"acme.news direct direct 10.0.0.2 h:443 tcp no vpn",
                                 "acme.mail vpn blocked - h:443 tcp no vpn",
                                 "acme.chat block blocked - h:443 tcp no vpn"}));
}

TEST_F(LifecycleStory, AStopWithSessionsAndStaggeredKillsPendingAndThenANewStart) {
    EXPECT_TRUE(begin({.word = "direct"}));
    const std::vector<Flow> killed{open(mail), open(mail), open(mail)};
    EXPECT_TRUE(happened(firstFlow() + relayed(1, 1) + relayed(2, 2) + relayed(3, 3)));
    EXPECT_TRUE(rulesBecome({.word = "vpn"}, 3, R"(
        proxy  debug CHANGE direct->vpn: acme.mail
        proxy  debug changedBundleIds count (direct->vpn): 1
        proxy  debug activeSessions.count: 3
        proxy  debug Evaluating session sid=1 flowHash=<any>: bundleId=acme.mail shouldKill=true
        proxy  debug Evaluating session sid=2 flowHash=<any>: bundleId=acme.mail shouldKill=true
        proxy  debug Evaluating session sid=3 flowHash=<any>: bundleId=acme.mail shouldKill=true
        proxy  debug Scheduling graceful kill: sid=<any> bundleId=acme.mail delay=0ms
        proxy  debug Scheduling graceful kill: sid=<any> bundleId=acme.mail delay=50ms
        proxy  debug Scheduling graceful kill: sid=<any> bundleId=acme.mail delay=100ms
        proxy  info  Gracefully killed 3 proxy sessions for 1 changed rules
        shared info  Monitoring updated: +1 -0 total=1
        )" + ended("<any>", 0)));
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn up allow, sessions 0, settings 1");
    const auto watched = open(mail);
    EXPECT_TRUE(happened(leftToTheSystem("acme.mail") + "filter debug MONITORING flow: acme.mail"));
    EXPECT_TRUE(rulesBecome({.word = "direct"}, 0, comesToDirect()));
    const std::vector<Flow> kept{open(mail), open(mail)};
    EXPECT_TRUE(happened(relayed(4, 1) + relayed(5, 2)));

    EXPECT_TRUE(world.stopProxy().hasCome());
    EXPECT_TRUE(happened(stopOfProxy(1, 2)));
    EXPECT_EQ(state(),
              "watched [] blocked [] vpn up allow, no state received, sessions 0, settings 3");
    EXPECT_EQ(world.network.monitorsAtWork(), 0u);
    changeRules("nobody hears of it");
    sendsAByte(watched);
    EXPECT_TRUE(happened("filter info  DROP stale VPN flow: acme.mail offset=0"));
    EXPECT_EQ(fates({watched}), Lines{"declined, ended"});
    const auto between = open(mail);
    EXPECT_EQ(fates({between}), Lines{"declined, passing"});
    EXPECT_TRUE(happened(""));

    putRules(rules.document());
    const auto started = world.startProxy();
    world.runUntilIdle();
    EXPECT_TRUE(started.succeeded());
    EXPECT_TRUE(happened(startOfProxy(2) + firstDelivery() + endOfStart()));
    const auto fresh = open(mail);
    EXPECT_TRUE(happened(firstFlow() + relayed(6, 1)));
    world.advance(0.049);
    EXPECT_TRUE(happened(""));
    world.advance(0.002);
    EXPECT_TRUE(happened(ended("<any>", 1)));
    world.advance(0.05);
    EXPECT_TRUE(happened(ended("<any>", 1)));
    EXPECT_EQ(fates(killed), Lines(3, "claimed, reset"));
    EXPECT_EQ(fates({kept[0], kept[1], fresh}),
              (Lines{"claimed, closed", "claimed, closed", "claimed, open"}));
    EXPECT_EQ(state(), "watched [] blocked [] vpn up allow, sessions 1, settings 4");
    const Lines direct(6, "acme.mail direct direct 10.0.0.2 h:443 tcp vpn");
    auto records = direct;
    records.insert(records.begin() + 3, "acme.mail vpn vpn 10.8.0.2 h:443 tcp vpn");
    EXPECT_EQ(recorded(), records);
}

// The file changes while the machine sleeps, and the notification comes after the wake: in between the
// configuration's rules stand beside the sets of the old file.
TEST_F(LifecycleStory, SleepAndWakeAcrossARulesChange) {
    EXPECT_TRUE(begin({.word = "vpn", .isVpnUp = false, .vpnFallback = "block"}));
    EXPECT_TRUE(world.sleep().hasCome());
    EXPECT_TRUE(happened("proxy  info  System sleeping..."));
    world.preferences.setProviderConfiguration(
        R"({"rules":{"acme.mail":"direct"},"vpnConnected":true})");
    putRules(Rules{.word = "vpn"}.document());
    const auto wakes = [&](const std::string& isVpnUp) {
        world.wake();
        world.runUntilIdle();
        EXPECT_TRUE(happened(filled(R"(
            proxy  info  System waking...
            shared info  VPN state updated: connected=$up fallback=block firstInit=false
            proxy  info  Loaded 1 routing rules from config, default: vpn, blocked: 0
            proxy  info  Fallback settings from config: vpn=block, direct=block
            proxy  info  Physical interface detected: en0 (wifi)
            )",
                                    {{"$up", isVpnUp}})));
    };
    wakes("true");
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn up block, sessions 0, settings 1");
    EXPECT_EQ(world.network.monitors().letGoWithoutCancel, 1);
    EXPECT_EQ(world.network.monitors().cancelled, 0);
    const std::string watched = "filter debug MONITORING flow: acme.mail";
    const auto claimed = open(mail), dropped = open(mail);
    EXPECT_TRUE(
        happened(firstFlow() + relayed(1, 1, "en0", watched) + relayed(2, 2, "en0", watched)));

    // The filter ends claimed flows, at a byte or before they are opened, as it does others.
    world.preferences.setProviderConfiguration(R"({"vpnConnected":false})");
    wakes("false");
    sendsAByte(dropped);
    const auto held = open(mail);
    EXPECT_TRUE(
        happened("filter info  VPN FALLBACK DROP: acme.mail offset=0\n" + ended("2", 1) +
                 filled(relayed(3, 2, "en0", "filter info  VPN BLOCK: acme.mail TCP -> h:443"),
                        {{"debug sid=3 Connection ready, starting relay",
                          "error Failed to open TCP flow: The flow was ended by the filter "
                          "(NEAppProxyErrorDomain 5)"}}) +
                 ended("3", 1)));
    EXPECT_EQ(fates({claimed, dropped, held}),
              (Lines{"claimed, open", "claimed, closed", "claimed, closed"}));

    rules = {.word = "direct"};  // what the configuration left
    EXPECT_TRUE(rulesBecome({.word = "vpn"}, 1, leavesDirect(1) + ended("1", 0)));
    EXPECT_EQ(fates({claimed}), Lines{"claimed, reset"});
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn up allow, sessions 0, settings 1");
    EXPECT_EQ(recorded(), (Lines{"acme.mail direct direct 10.0.0.2 h:443 tcp vpn",
                                 "acme.mail direct direct 10.0.0.2 h:443 tcp vpn",
                                 "acme.mail direct direct 10.0.0.2 h:443 tcp no vpn",
                                 "acme.mail vpn blocked - h:443 tcp no vpn"}));

    // Whatever is no configuration changes nothing, nor does a file that cannot be read.
    using Tunnel = NETunnelProviderProtocol;
    for (const auto& none :
         {std::shared_ptr<NEVPNProtocol>(), std::make_shared<NEVPNProtocol>(),
          std::shared_ptr<NEVPNProtocol>(std::make_shared<Tunnel>(std::nullopt, std::nullopt))}) {
        world.preferences.setProtocolConfiguration(none);
        world.wake();
        world.runUntilIdle();
        EXPECT_TRUE(happened(R"(
            proxy  info  System waking...
            proxy  error No providerConfiguration available
            proxy  info  Physical interface detected: en0 (wifi)
        )"));
    }
    world.files.fail(FileOperation::read, rulesFile);
    world.post(rulesChanged);
    world.runUntilIdle();
    EXPECT_TRUE(logHolds(world, {debug("No rules file found at <any>"),
                                 debug("Rules identical after reload: true")}));
}

// A message changes the rules in memory and nothing else: no session ends, no flow is flushed, the
// filter follows the old file. The file has the last word.
TEST_F(LifecycleStory, AReloadByMessageAndThenByFile) {
    EXPECT_TRUE(begin({.word = "vpn"}));
    const std::string toDirect = R"({"type":"reload","rules":{"acme.mail":"direct"}})";
    reloads(toDirect, "proxy  info  Reloaded rules via IPC: 1 -> 1, default: vpn");
    asks(R"({"type":"getStatus"})", R"({"isActive":true,"ruleCount":1})", "getStatus");
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn up allow, sessions 0, settings 1");
    const auto claimed = open(mail);
    EXPECT_TRUE(
        happened(firstFlow() + relayed(1, 1, "en0", "filter debug MONITORING flow: acme.mail")));
    sendsAByte(claimed);
    EXPECT_EQ(claimed.received(), "x");

    reloads(R"({"type":"reload","rules":{},"defaultAction":"odd"})",
            "proxy  info  Reloaded rules via IPC: 1 -> 0, default: odd");
    reloads(R"({"type":"reload","defaultAction":"direct"})",
            "proxy  error Reload message had no rules, keeping existing 0 rules");
    open(mail);
    EXPECT_TRUE(happened(R"(
        proxy  info  TCP flow: acme.mail, decision: odd
        proxy  debug   -> h:443
        proxy  debug VPN path: bundleId=acme.mail dest=h:443 vpnConnected=true (OS handles)
        filter debug MONITORING flow: acme.mail
    )"));
    EXPECT_EQ(fates({claimed}), Lines{"claimed, open"});
    reloads(toDirect, "proxy  info  Reloaded rules via IPC: 0 -> 1, default: vpn");

    rules = {.word = "direct"};  // what the message left
    EXPECT_TRUE(rulesBecome({.word = "block"}, 1, leavesDirect(1) + ended("1", 0)));
    EXPECT_EQ(fates({claimed}), Lines{"claimed, reset"});
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn up allow, sessions 0, settings 1");
    EXPECT_EQ(recorded(), (Lines{"acme.mail direct direct 10.0.0.2 h:443 tcp vpn",
                                 "acme.mail odd vpn 10.8.0.2 h:443 tcp vpn"}));
}

// The log grows past its limit while the filter's records wait, joins them at its end, survives a
// failing write, and is cleared by a message.
TEST_F(LifecycleStory, TheLogGrowsPastItsLimitWithTheFiltersRecordsDrainingIn) {
    EXPECT_TRUE(begin({.word = "vpn", .isBlocked = true}));
    const auto news = world.application("News", "acme.news");
    const auto readsNews = [&](int port) {
        open(news, std::to_string(port).c_str());
        return leftToTheSystem("acme.news", true, "h:" + std::to_string(port));
    };
    auto lines = filled(firstFlow(), {{"acme.mail", "acme.news"}});
    Lines entries;
    for (int port = 1; port <= 490; ++port) {
        lines += readsNews(port);
        entries.push_back("acme.news vpn vpn 10.8.0.2 h:" + std::to_string(port) + " tcp vpn");
    }
    for (int port = 1; port <= 20; ++port) {
        open(mail, std::to_string(port).c_str());
        lines += filled(R"(
            proxy  info  BLOCK (filter-enforced): acme.mail TCP -> h:$port
            filter info  BLOCK: acme.mail TCP -> h:$port
            )",
                        {{"$port", std::to_string(port)}});
        entries.push_back("acme.mail block blocked - h:" + std::to_string(port) + " tcp no vpn");
    }
    EXPECT_TRUE(happened(lines));
    EXPECT_EQ(logFileEntries().size(), 1u);  // the first is written at once, the others together
    EXPECT_EQ(ProxyProbe::recordsLeft().size(), 20u);
    entries.erase(entries.begin(), entries.begin() + 10);
    EXPECT_EQ(recorded(), entries);
    EXPECT_EQ(ProxyProbe::recordsLeft().size(), 0u);

    world.files.fail(FileOperation::writeAtomically, activityLogFile);
    lines = readsNews(1000);
    EXPECT_TRUE(happened(filled(lines, {{"proxy  debug VPN path", R"(
            proxy  error Failed to write activity log file: <any>
            proxy  debug VPN path)"}})));
    EXPECT_EQ(recorded(), entries);
    EXPECT_TRUE(happened(readsNews(1001)));
    entries.erase(entries.begin(), entries.begin() + 2);
    entries.emplace_back("acme.news vpn vpn 10.8.0.2 h:1000 tcp vpn");
    entries.emplace_back("acme.news vpn vpn 10.8.0.2 h:1001 tcp vpn");
    EXPECT_EQ(recorded(), entries);

    asks(R"({"type":"clearActivityLog"})", R"({"success":{}})", "clearActivityLog");
    EXPECT_FALSE(world.files.exists(activityLogFile));
    EXPECT_EQ(state(), "watched [] blocked [acme.mail] vpn up allow, sessions 0, settings 1");
}

TEST_F(LifecycleStory, TheInterfaceIsLostAndFound) {
    EXPECT_TRUE(begin({.word = "direct"}));
    const auto before = open(mail);
    EXPECT_TRUE(happened(firstFlow() + relayed(1, 1)));
    world.setPath(
        {{"pdp", Interface::InterfaceType::cellular}, {"utun0", Interface::InterfaceType::other}});
    world.runUntilIdle();
    const auto closed = open(mail);
    EXPECT_TRUE(happened(R"(
        proxy  error No physical interface found
        proxy  info  TCP flow: acme.mail, decision: direct
        proxy  debug   -> h:443
        proxy  debug Direct fallback triggered: behavior=block bundleId=acme.mail
        proxy  error No physical interface, BLOCKING direct flow per fallback setting: acme.mail
        proxy  debug DIRECT path: bundleId=acme.mail dest=h:443 handled=true interface=none
    )"));
    EXPECT_EQ(fates({closed}), Lines{"claimed, closed"});
    EXPECT_FALSE(world.files.exists("/container/connection_failures.json"));

    EXPECT_TRUE(rulesBecome({.word = "direct", .directFallback = "vpn"}, 1, nothingLeavesDirect()));
    const auto declined = open(mail);
    open(mail);
    EXPECT_TRUE(happened(leftWithoutInterface("vpn", "443", true) +
                         leftWithoutInterface("vpn", "443", false)));
    EXPECT_EQ(fates({declined}), Lines{"declined, passing"});
    EXPECT_EQ(world.files.contents("/container/connection_failures.json"),
              R"([{"bundleId":"acme.mail","host":"h","timestamp":"2026-01-01T00:00:00Z"}])");

    world.setPath({{"pdp", Interface::InterfaceType::cellular},
                   {"en1", Interface::InterfaceType::wiredEthernet},
                   {"en0", Interface::InterfaceType::wifi}});
    world.runUntilIdle();
    const auto after = open(mail);
    EXPECT_TRUE(happened("proxy  info  Physical interface detected: en1 (wiredEthernet)\n" +
                         relayed(2, 2, "en1")));
    EXPECT_EQ(world.network.connections().back()->requiredInterface()->name(), "en1");
    sendsAByte(before);  // stays on the interface that it was built with
    EXPECT_EQ(before.received(), "x");
    EXPECT_EQ(fates({after}), Lines{"claimed, open"});
    EXPECT_EQ(state(), "watched [] blocked [] vpn up allow, sessions 2, settings 1");
    EXPECT_EQ(recorded(), (Lines{"acme.mail direct direct 10.0.0.2 h:443 tcp vpn",
                                 "acme.mail direct direct - h:443 tcp vpn",
                                 "acme.mail direct vpn 10.8.0.2 h:443 tcp vpn",
                                 "acme.mail direct vpn 10.8.0.2 h:443 tcp vpn",
                                 "acme.mail direct direct 10.0.1.2 h:443 tcp vpn"}));
}

}  // namespace
}  // namespace vantry
