// The direct path, where the stories do not show it.

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::NWOtherEndpoint;
using platform::RemoteEndpoint;
using platform::simulated::debug;
using platform::simulated::error;
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

// Closed at once also if it cannot be opened; "Block" is another word; an endpoint of another kind is
// turned away before the fallback is looked at.
TEST_F(DirectPathTest, WithoutAnInterfaceTheFallbackDecides) {
    world.setPath({});
    world.runUntilIdle();
    auto failing = flowTo(NWHostEndpoint{"h", "443"});
    failing.failsOpening({"test", 1, "gone"});
    EXPECT_TRUE(world.offer(failing).claimed);
    world.runUntilIdle();
    EXPECT_TRUE(failing.isClosedOnceCleanly());
    EXPECT_TRUE(world.network.connections().empty());
    changeRules(R"({"rules":{},"directFallback":"Block"})");
    world.takeLog();
    EXPECT_FALSE(world.offer(flowTo(NWOtherEndpoint{})).claimed);
    EXPECT_TRUE(platform::simulated::linesAre(
        directLines(), {error("Cannot proxy flow: invalid endpoint, falling back to OS")}));
    EXPECT_FALSE(world.offer(flowTo(NWHostEndpoint{"h", "bad port"})).claimed);
    EXPECT_TRUE(platform::simulated::linesAre(
        directLines(), {debug("Direct fallback triggered: behavior=Block bundleId=com.example.App"),
                        error("No physical interface, falling back to VPN per fallback setting: "
                              "com.example.App"),
                        error("Direct connection failed for com.example.App -> h")}));
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

}  // namespace
}  // namespace vantry
