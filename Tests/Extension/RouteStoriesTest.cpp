// Whole stories of an application's way to the network, and of flows that are open when it changes.

#include "Tests/Extension/StoryTest.h"

namespace vantry {
namespace {

class RouteStory : public StoryTest {};

TEST_F(RouteStory, AnApplicationIsMovedDirectVpnBlockedUnblockedWithFlowsOpen) {
    EXPECT_TRUE(begin({.word = "direct"}));
    const auto direct = open(mail);
    EXPECT_TRUE(happened(firstFlow() + relayed(1, 1)));
    EXPECT_EQ(state(), "watched [] blocked [] vpn up allow, sessions 1, settings 1");
    const auto bystander = open(world.application("News", "acme.news"));
    EXPECT_TRUE(happened(leftToTheSystem("acme.news")));
    sendsAByte(direct);
    EXPECT_EQ(direct.received(), "x");

    EXPECT_TRUE(rulesBecome(
        {.word = "vpn"}, 1,
        leavesDirect(1) + "shared info  Monitoring updated: +1 -0 total=1\n" + ended("1", 0)));
    EXPECT_EQ(fates({direct}), Lines{"claimed, reset"});
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn up allow, sessions 0, settings 1");
    const auto watched = open(mail);
    EXPECT_TRUE(happened(leftToTheSystem("acme.mail") + "filter debug MONITORING flow: acme.mail"));
    sendsAByte(watched);
    EXPECT_EQ(fates({watched}), Lines{"declined, watched"});

    EXPECT_TRUE(rulesBecome({.word = "direct"}, 0, comesToDirect()));
    sendsAByte(watched);
    sendsAByte(bystander);  // is shown to both providers once more, and to neither after that
    sendsAByte(bystander);
    EXPECT_TRUE(happened("filter info  DROP stale VPN flow: acme.mail offset=1\n" +
                         leftToTheSystem("acme.news")));
    EXPECT_EQ(fates({watched, bystander}), (Lines{"declined, ended", "declined, passing"}));
    const auto directAgain = open(mail);
    EXPECT_TRUE(happened(relayed(2, 1)));

    EXPECT_TRUE(rulesBecome({.word = "direct", .isBlocked = true}, 1, nothingLeavesDirect() + R"(
        proxy  debug Scheduling block kill: sid=2 bundleId=acme.mail delay=0ms
        proxy  info  Killed 1 proxy sessions for 1 newly-blocked apps
        proxy  info  Block state changed: +1 blocked, -0 unblocked
        proxy  debug Flushing declined flows: adding sentinel rule
        )" + ended("2", 0) + flushed()));
    EXPECT_EQ(fates({directAgain}), Lines{"claimed, reset"});
    EXPECT_EQ(state(), "watched [] blocked [acme.mail] vpn up allow, sessions 0, settings 5");
    const auto blocked = open(mail);
    const auto dns = open(mail, "53", Kind::udp);
    const auto datagrams = open(mail, "5353", Kind::udp);
    EXPECT_TRUE(happened(R"(
        proxy  info  BLOCK (filter-enforced): acme.mail TCP -> h:443
        filter info  BLOCK: acme.mail TCP -> h:443
        filter info  BLOCK: acme.mail UDP -> h:5353
    )"));
    EXPECT_EQ(fates({blocked, dns, datagrams}),
              (Lines{"declined, dropped", "declined, passing", "declined, dropped"}));

    EXPECT_TRUE(rulesBecome({.word = "direct"}, 0, nothingLeavesDirect() + R"(
        proxy  info  Block state changed: +0 blocked, -1 unblocked
        proxy  debug Flushing declined flows: adding sentinel rule
        )" + flushed()));
    EXPECT_EQ(state(), "watched [] blocked [] vpn up allow, sessions 0, settings 7");
    const auto last = open(mail);
    EXPECT_TRUE(happened(relayed(3, 1)));
    EXPECT_EQ(fates({last}), Lines{"claimed, open"});
    EXPECT_EQ(recorded(), (Lines{"acme.mail direct direct 10.0.0.2 h:443 tcp vpn",
                                 "acme.news vpn vpn 10.8.0.2 h:443 tcp vpn",
                                 "acme.mail vpn vpn 10.8.0.2 h:443 tcp vpn",
                                 "acme.news vpn vpn 10.8.0.2 h:443 tcp vpn",
                                 "acme.mail direct direct 10.0.0.2 h:443 tcp vpn",
                                 "acme.mail direct direct 10.0.0.2 h:443 tcp vpn",
                                 "acme.mail block blocked - h:443 tcp no vpn",
                                 "acme.mail block blocked - h:5353 udp no vpn"}));
}

TEST_F(RouteStory, TheVpnFallsAndRisesUnderEachFallback) {
    EXPECT_TRUE(begin({.word = "vpn"}));
    const auto stream = open(mail);
    const auto quic = open(mail, "443", Kind::udp);
    EXPECT_TRUE(happened(firstFlow() + leftToTheSystem("acme.mail") + R"(
        filter debug MONITORING flow: acme.mail
        filter debug MONITORING flow: acme.mail
    )"));
    EXPECT_TRUE(rulesBecome({.word = "vpn", .isVpnUp = false}, 0, nothingLeavesDirect()));
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn down allow, sessions 0, settings 1");
    sendsAByte(stream);
    const auto beside = open(mail);
    EXPECT_TRUE(
        happened(leftToTheSystem("acme.mail", false) + "filter debug MONITORING flow: acme.mail"));
    EXPECT_EQ(fates({stream, beside}), (Lines{"declined, watched", "declined, watched"}));

    EXPECT_TRUE(rulesBecome({.word = "vpn", .isVpnUp = false, .vpnFallback = "block"}, 0,
                            nothingLeavesDirect()));
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn down block, sessions 0, settings 1");
    sendsAByte(stream);
    sendsAByte(quic);
    const auto held = open(mail);
    const auto dns = open(mail, "53", Kind::udp);
    const auto heldQuic = open(mail, "443", Kind::udp);
    EXPECT_TRUE(happened(R"(
        filter info  VPN FALLBACK DROP: acme.mail offset=1
        filter info  QUIC BLOCK (deferred): acme.mail -> h:443
        proxy  info  TCP flow: acme.mail, decision: vpn
        proxy  debug   -> h:443
        proxy  error VPN fallback BLOCK (filter-enforced): acme.mail -> h:443
        filter info  VPN BLOCK: acme.mail TCP -> h:443
        filter info  VPN BLOCK: acme.mail UDP -> h:443
    )"));
    EXPECT_EQ(fates({stream, quic, held, dns, heldQuic}),
              (Lines{"declined, ended", "declined, ended", "declined, dropped", "declined, passing",
                     "declined, dropped"}));

    EXPECT_TRUE(rulesBecome({.word = "vpn", .vpnFallback = "block"}, 0, nothingLeavesDirect()));
    EXPECT_EQ(state(), "watched [acme.mail] blocked [] vpn up block, sessions 0, settings 1");
    sendsAByte(beside);
    const auto again = open(mail);
    EXPECT_TRUE(happened(leftToTheSystem("acme.mail") + "filter debug MONITORING flow: acme.mail"));
    EXPECT_EQ(fates({beside, again}), (Lines{"declined, watched", "declined, watched"}));
    EXPECT_EQ(recorded(), (Lines{"acme.mail vpn vpn 10.8.0.2 h:443 tcp vpn",
                                 "acme.mail vpn direct 10.0.0.2 h:443 tcp no vpn",
                                 "acme.mail vpn vpn 10.8.0.2 h:443 tcp vpn",
                                 "acme.mail vpn blocked - h:443 udp no vpn",
                                 "acme.mail vpn blocked - h:443 tcp no vpn",
                                 "acme.mail vpn blocked - h:443 udp no vpn"}));
}

TEST_F(RouteStory, TheInterfaceIsLostAndFound) {
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
