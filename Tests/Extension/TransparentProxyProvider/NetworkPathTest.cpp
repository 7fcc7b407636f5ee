// Whose addresses are recorded, and what stays when the path is no longer watched. How the interface is
// chosen is in the stories.

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

class NetworkPathTest : public ProxyTest {
protected:
    void SetUp() override {
        putRules(R"({"rules":{"direct.app":"direct"}})");
        world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
        ASSERT_TRUE(world.start());
    }
    // The source address that a flow of this application is recorded with; "none" without one.
    std::string recordedSource(const std::string& signingIdentifier) {
        world.advance(2);  // so that the record is written at once
        offer(signingIdentifier);
        return logFileEntries().back().sourceIp.value_or("none");
    }
};

TEST_F(NetworkPathTest, AddressesAreTheFirstIPv4OnesOfTheInterfaceAndOfATunnel) {
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
    world.setInterfaceAddresses({{"en0", "10.0.0.2"}});
    world.stopProxy();
    world.stopProxy();
    EXPECT_EQ(recordedSource("direct.app"), "10.0.0.2");
    ASSERT_TRUE(world.start());
    world.takeLog();
    world.providers.letGoOfProxy();
    world.setPath({{"en1", NWInterface::InterfaceType::wifi}});
    world.runToEnd();
    EXPECT_TRUE(proxyLogIs({}));
}

}  // namespace
}  // namespace vantry
