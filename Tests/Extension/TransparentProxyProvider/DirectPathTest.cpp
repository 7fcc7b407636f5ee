#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::NWOtherEndpoint;
using platform::RemoteEndpoint;
using platform::simulated::debug;
using platform::simulated::error;
using platform::simulated::info;
using platform::simulated::LogLine;
using Type = NWInterface::InterfaceType;

class DirectPathTest : public ProxyTest {
protected:
    void SetUp() override {
        putRules(R"({"rules":{},"defaultAction":"direct"})");
        world.setPath({{"en0", Type::wifi}});
        ASSERT_TRUE(world.start());
        world.takeLog();
    }
    Flow flowTo(RemoteEndpoint endpoint) {
        return world.flow(
            {.remoteEndpoint = std::move(endpoint), .signingIdentifier = "com.example.App"});
    }
    // The lines between the intake's own, those of the direct path.
    std::vector<LogLine> directLines() {
        std::vector<LogLine> lines;
        for (auto& line : world.takeLog(proxyCategory))
            if (!line.text.starts_with("TCP flow:") && !line.text.starts_with("  -> ") &&
                !line.text.starts_with("DIRECT path:") && !line.text.starts_with("First flow"))
                lines.push_back(std::move(line));
        return lines;
    }
    static std::string argument(const std::vector<LogLine>& lines, std::string_view start,
                                std::size_t index) {
        for (const auto& line : lines)
            if (line.text.starts_with(start)) return line.arguments[index];
        return "";
    }
};

TEST_F(DirectPathTest, AClaimedFlowIsRelayedOverThePhysicalInterface) {
    world.peer("203.0.113.7", 443).echoes();
    auto flow = flowTo(NWHostEndpoint{"203.0.113.7", "443"});
    EXPECT_TRUE(world.offer(flow).claimed);
    auto lines = directLines();
    const auto hash = argument(lines, "Session created", 1);
    EXPECT_TRUE(platform::simulated::linesAre(
        lines, {debug("Binding to interface: en0"),
                debug("Direct proxy binding to en0 for com.example.App -> 203.0.113.7:443"),
                debug("remoteEndpoint: 203.0.113.7 type=IPv4 interface=en0"),
                debug("Session created: sid=1 flowHash=" + hash +
                      " bundleId=com.example.App totalSessions=1")}));
    flow.sends("hello");
    world.runUntilIdle();
    EXPECT_EQ(flow.received(), "hello");
    const auto connection = world.peer("203.0.113.7", 443).connection();
    EXPECT_EQ(connection->requiredInterface(), NWInterface("en0", Type::wifi));

    // A session stays on the interface that it was built with.
    world.setPath({{"en1", Type::wiredEthernet}});
    world.runUntilIdle();
    flow.sends("!");
    world.runUntilIdle();
    EXPECT_EQ(flow.received(), "hello!");
    world.takeLog();
    flow.endsSending();
    world.runUntilIdle();
    EXPECT_TRUE(platform::simulated::linesAre(
        directLines(), {debug("Session ended: sid=1 flowHash=" + hash +
                              " bundleId=com.example.App remainingSessions=0")}));
}

TEST_F(DirectPathTest, HostsAreClassifiedForTheLogAlone) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"1.2.3.4", "IPv4"},     {"999.1.2.3", "IPv4"},     {"1.2.3", "hostname"},
        {"1.2.3.x", "hostname"}, {".1..2.3.4.", "IPv4"},    {"-1.2.3.4", "hostname"},
        {"fe80::1", "IPv6"},     {"a.b.c.d:e", "IPv6"},     {"www.example.com", "hostname"},
        {"", "hostname"},        {"1.2.3.4.5", "hostname"},
    };
    for (const auto& [host, type] : cases) {
        world.takeLog();
        EXPECT_TRUE(world.offerToProxy(flowTo(NWHostEndpoint{host, "1"})).claimed);
        EXPECT_EQ(argument(world.takeLog(), "remoteEndpoint: ", 1), type) << host;
    }
}

TEST_F(DirectPathTest, WhatCannotBeRelayedIsDeclinedAndUsesUpNoNumber) {
    EXPECT_FALSE(world.offer(flowTo(NWOtherEndpoint{})).claimed);
    EXPECT_TRUE(platform::simulated::linesAre(
        directLines(), {error("Cannot proxy flow: invalid endpoint, falling back to OS")}));
    for (const auto* port : {"65536", "", "+1", " 1", "1 ", "http", "0x50"}) {
        EXPECT_FALSE(world.offer(flowTo(NWHostEndpoint{"h", port})).claimed) << port;
        EXPECT_TRUE(platform::simulated::linesAre(
            directLines(),
            {debug("Binding to interface: en0"),
             debug(std::string("Direct proxy binding to en0 for com.example.App -> h:") + port),
             debug("remoteEndpoint: h type=hostname interface=en0"),
             error(std::string("Invalid port: ") + port + ", falling back to OS")}));
    }
    EXPECT_TRUE(world.offer(flowTo(NWHostEndpoint{"h", "00080"})).claimed);
    EXPECT_EQ(argument(directLines(), "Session created", 0), "1");
    EXPECT_EQ(world.network.connections().back()->port(), 80);
    EXPECT_FALSE(world.files.exists("/container/connection_failures.json"));
}

TEST_F(DirectPathTest, WithoutAnInterfaceTheFallbackDecides) {
    world.setPath({{"utun0", Type::other}});
    world.runUntilIdle();
    world.takeLog();
    auto closed = flowTo(NWHostEndpoint{"h", "443"});
    EXPECT_TRUE(world.offer(closed).claimed);
    EXPECT_TRUE(platform::simulated::linesAre(
        directLines(), {debug("Direct fallback triggered: behavior=block bundleId=com.example.App"),
                        error("No physical interface, BLOCKING direct flow per fallback setting: "
                              "com.example.App")}));
    world.runUntilIdle();
    EXPECT_TRUE(closed.isClosedOnceCleanly());
    EXPECT_EQ(closed.record().opens, 1);
    auto failing = flowTo(NWHostEndpoint{"h", "443"});
    failing.failsOpening({"test", 1, "gone"});
    EXPECT_TRUE(world.offer(failing).claimed);
    world.runUntilIdle();
    EXPECT_TRUE(failing.isClosedOnceCleanly());
    EXPECT_TRUE(world.network.connections().empty());
    EXPECT_FALSE(world.files.exists("/container/connection_failures.json"));

    changeRules(R"({"rules":{},"directFallback":"Block"})");
    world.takeLog();
    // An endpoint of another kind is turned away before the fallback is looked at.
    EXPECT_FALSE(world.offer(flowTo(std::monostate{})).claimed);
    EXPECT_TRUE(platform::simulated::linesAre(
        directLines(), {error("Cannot proxy flow: invalid endpoint, falling back to OS")}));
    auto declined = flowTo(NWHostEndpoint{"h", "bad port"});
    EXPECT_FALSE(world.offer(declined).claimed);
    EXPECT_TRUE(platform::simulated::linesAre(
        directLines(), {debug("Direct fallback triggered: behavior=Block bundleId=com.example.App"),
                        error("No physical interface, falling back to VPN per fallback setting: "
                              "com.example.App"),
                        error("Direct connection failed for com.example.App -> h")}));
    EXPECT_TRUE(world.files.exists("/container/connection_failures.json"));

    // The next session is the first one.
    world.setPath({{"en0", Type::wifi}});
    world.runUntilIdle();
    EXPECT_TRUE(world.offer(flowTo(NWHostEndpoint{"h", "1"})).claimed);
    EXPECT_EQ(argument(directLines(), "Session created", 0), "1");
}

TEST_F(DirectPathTest, ASessionThatOutlivesItsProviderEndsSilently) {
    auto flow = flowTo(NWHostEndpoint{"h", "443"});
    EXPECT_TRUE(world.offer(flow).claimed);
    world.runUntilIdle();
    world.takeLog();
    world.providers.letGoOfProxy();
    flow.endsSending();
    world.runToEnd();
    EXPECT_TRUE(world.takeLog(proxyCategory).empty());
}

TEST_F(DirectPathTest, NumbersGoOnOverAStopAndAStart) {
    EXPECT_TRUE(world.offer(flowTo(NWHostEndpoint{"h", "1"})).claimed);
    EXPECT_TRUE(world.offer(flowTo(NWHostEndpoint{"h", "1"})).claimed);
    world.stopProxy();
    const auto lines = world.takeLog(proxyCategory);
    std::size_t ended = 0;
    for (const auto& line : lines)
        if (line.text.starts_with("Session ended")) {
            ++ended;
            EXPECT_EQ(line.arguments[3], "0");
        }
    EXPECT_EQ(ended, 2u);
    ASSERT_TRUE(world.start());
    EXPECT_TRUE(world.offer(flowTo(NWHostEndpoint{"h", "1"})).claimed);
    EXPECT_EQ(argument(world.takeLog(proxyCategory), "Session created", 0), "3");
}

}  // namespace
}  // namespace vantry
