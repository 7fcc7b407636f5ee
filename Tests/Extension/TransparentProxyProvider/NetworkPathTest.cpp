#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using platform::simulated::InterfaceAddress;
using Type = NWInterface::InterfaceType;

class NetworkPathTest : public ProxyTest {
protected:
    // The interface that the next direct flow would leave by, and the source address in its record.
    std::string interfaceOfNextFlow() {
        world.takeLog();
        offer("direct.app");
        for (const auto& line : world.takeLog(proxyCategory))
            if (line.text.starts_with("DIRECT path:")) return line.arguments[4];
        return "?";
    }
    void offer(const std::string& signingIdentifier) {
        world.offerToProxy(world.flow(
            {.remoteEndpoint = NWHostEndpoint{"h", "1"}, .signingIdentifier = signingIdentifier}));
    }
    // The source address that a flow of this application is recorded with; "none" without one.
    std::string recordedSource(const std::string& signingIdentifier) {
        world.advance(2);  // so that the record is written at once
        offer(signingIdentifier);
        return logFileEntries().back().sourceIp.value_or("none");
    }
};

TEST_F(NetworkPathTest, TheFirstPhysicalInterfaceIsChosenAtEveryUpdate) {
    putRules(R"({"rules":{"direct.app":"direct"}})");
    ASSERT_TRUE(world.start());
    EXPECT_EQ(interfaceOfNextFlow(), "none");
    struct Case {
        std::vector<NWInterface> path;
        std::string chosen;
        ExpectedLine line;
    };
    const std::vector<Case> cases{
        {{{"pdp", Type::cellular}, {"en1", Type::wiredEthernet}, {"en0", Type::wifi}},
         "en1",
         info("Physical interface detected: en1 (wiredEthernet)")},
        {{{"en0", Type::wifi}, {"en1", Type::wiredEthernet}},
         "en0",
         info("Physical interface detected: en0 (wifi)")},
        {{{"en0", Type::wifi}, {"en1", Type::wiredEthernet}},
         "en0",
         info("Physical interface detected: en0 (wifi)")},
        {{{"pdp", Type::cellular}, {"utun0", Type::other}, {"lo0", Type::loopback}},
         "none",
         error("No physical interface found")},
    };
    for (const auto& test : cases) {
        world.takeLog();
        world.setPath(test.path);
        world.runUntilIdle();
        auto lines = world.takeLog(proxyCategory);
        std::erase_if(lines, [](const auto& line) { return line.text.starts_with("sid="); });
        EXPECT_TRUE(linesAre(lines, {test.line}));
        EXPECT_EQ(interfaceOfNextFlow(), test.chosen);
    }
}

TEST_F(NetworkPathTest, AddressesAreTheFirstIPv4OnesOfTheInterfaceAndOfATunnel) {
    putRules(R"({"rules":{"direct.app":"direct"}})");
    world.setPath({{"en0", Type::wifi}});
    ASSERT_TRUE(world.start());
    struct Case {
        std::vector<InterfaceAddress> list;
        std::string direct, vpn;
    };
    const std::vector<Case> cases{
        {{}, "none", "none"},
        {{{"en0", std::nullopt}, {"en0", "fe80::1"}, {"en0", "10.0.0.2"}, {"en0", "10.0.0.3"}},
         "10.0.0.2",
         "none"},
        {{{"en01", "10.0.0.9"}, {"en", "10.0.0.8"}}, "none", "none"},
        {{{"utun0", "fd00::1"}, {"utun3", "10.8.0.2"}, {"ipsec0", "10.9.0.2"}}, "none", "10.8.0.2"},
        {{{"ipsec-test", "10.9.0.2"}, {"utun0", "10.8.0.2"}}, "none", "10.9.0.2"},
        {{{"utunnel", "10.7.0.2"}}, "none", "10.7.0.2"},
        {{{"xutun0", "10.7.0.2"}, {"Utun0", "10.7.0.3"}, {"utun0", "fd00::1"}}, "none", "none"},
    };
    for (const auto& test : cases) {
        world.setInterfaceAddresses(test.list);
        EXPECT_EQ(recordedSource("direct.app"), test.direct);
        EXPECT_EQ(recordedSource("vpn.app"), test.vpn);
    }
    world.setInterfaceAddresses({{"en0", "10.0.0.2"}, {"en0", "10.0.0.3"}});
    world.interfaces.failGetnameinfo();
    EXPECT_EQ(recordedSource("direct.app"), "10.0.0.3");
    world.interfaces.failGetifaddrs();
    EXPECT_EQ(recordedSource("direct.app"), "none");
    EXPECT_EQ(world.interfaces.listsOutstanding(), 0u);
}

TEST_F(NetworkPathTest, WhatWasChosenStaysAfterAStopAndUpdatesDoNothingOnceTheProviderHasGone) {
    world.setPath({{"en0", Type::wifi}});
    ASSERT_TRUE(world.start());
    world.stopProxy();
    world.stopProxy();
    world.message(R"({"type":"reload","rules":{"direct.app":"direct"}})");
    EXPECT_EQ(interfaceOfNextFlow(), "en0");
    ASSERT_TRUE(world.start());
    world.takeLog();
    world.providers.letGoOfProxy();
    world.setPath({{"en1", Type::wifi}});
    world.runToEnd();
    EXPECT_TRUE(proxyLogIs({}));
}

}  // namespace
}  // namespace vantry
