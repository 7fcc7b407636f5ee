#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <optional>

#include "Platform/InterfaceAddresses.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Network/InterfaceKind.h"
#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Network.h"
#include "Tests/Platform/Linux/Eventually.h"
#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/TestNetwork.h"

namespace platform {
namespace {

using ::testing::ElementsAre;
using Type = NWInterface::InterfaceType;

TEST(NetworkInterfaceKind, FollowsTheLinksHardwareAndDriver) {
    for (const char* card : {"", "veth", "bridge", "bond", "vlan"}) {
        EXPECT_EQ(interfaceType(ARPHRD_ETHER, card, false, false), Type::wiredEthernet) << card;
        EXPECT_FALSE(isTunnelLink(ARPHRD_ETHER, card, false)) << card;
    }
    const std::pair<unsigned, const char*> tunnels[] = {{ARPHRD_ETHER, "tun"},
                                                        {ARPHRD_NONE, "tun"},
                                                        {ARPHRD_NONE, "wireguard"},
                                                        {ARPHRD_PPP, "ppp"},
                                                        {ARPHRD_NONE, "xfrm"}};
    for (const auto& [hardware, tunnel] : tunnels) {
        EXPECT_EQ(interfaceType(hardware, tunnel, false, false), Type::other) << tunnel;
        EXPECT_TRUE(isTunnelLink(hardware, tunnel, false)) << tunnel;
    }
    // Of a modem the driver tells, or else the device.
    for (const unsigned hardware : {ARPHRD_ETHER, ARPHRD_RAWIP, ARPHRD_NONE}) {
        for (const char* modem : {"", "wwan"}) {
            const bool isSaidByDevice = *modem == '\0';
            EXPECT_EQ(interfaceType(hardware, modem, false, isSaidByDevice), Type::cellular);
            EXPECT_FALSE(isTunnelLink(hardware, modem, isSaidByDevice)) << hardware << modem;
        }
    }
    EXPECT_EQ(interfaceType(ARPHRD_ETHER, "", true, false), Type::wifi);
    EXPECT_EQ(interfaceType(ARPHRD_LOOPBACK, "", false, false), Type::loopback);
}

TEST(NetworkInterfaceKind, TunnelsAreShownUnderNamesOfTheirOwn) {
    std::vector<NetworkInterface> interfaces(6);
    const char* names[] = {"eth0", "tun0", "utun0", "wg-work", "xfrm1", "ipsec-test"};
    for (std::size_t i = 0; i < interfaces.size(); ++i) {
        interfaces[i].name = names[i];
        interfaces[i].isTunnel = i != 0;
    }
    interfaces[4].linkKind = "xfrm";
    chooseShownNames(interfaces);
    std::vector<std::string> shown;
    for (const auto& interface : interfaces) shown.push_back(interface.shownName);
    EXPECT_THAT(shown, ElementsAre("eth0", "utun1", "utun0", "utun2", "ipsec0", "ipsec-test"));
}

// The path as a monitor delivers it.
class Watcher {
public:
    Watcher() {
        monitor.setPathUpdateHandler([this](const NWPath& path) {
            const std::lock_guard guard(mutex);
            latest = path.availableInterfaces;
        });
        monitor.start(DispatchQueue::global(QualityOfService::utility));
    }
    // Whether the path becomes this list of names.
    bool sees(const std::vector<std::string>& names) {
        return eventually([&] {
            const std::lock_guard guard(mutex);
            return latest && std::ranges::equal(*latest, names, {}, &NWInterface::name);
        });
    }
    Type firstType() {
        const std::lock_guard guard(mutex);
        return latest->front().type();
    }

private:
    std::mutex mutex;
    std::optional<std::vector<NWInterface>> latest;
    NWPathMonitor monitor;
};

class NetworkPath : public ::testing::Test {
protected:
    void SetUp() override {
        network = TestNetwork::make();
        if (!network) GTEST_SKIP() << "no namespaces here";
        runCommand("ip link set vpn0 down");  // a tunnel of another kind takes its place
    }
    // A tun device as a VPN makes one; it lives as long as the descriptor.
    static FileDescriptor makeTunnel(const char* name) {
        FileDescriptor device(::open("/dev/net/tun", O_RDWR | O_CLOEXEC));
        ifreq request{};
        std::string(name).copy(request.ifr_name, sizeof request.ifr_name - 1);
        request.ifr_flags = IFF_TUN | IFF_NO_PI;
        if (!device || ::ioctl(device.get(), TUNSETIFF, &request) != 0) return {};
        return device;
    }

    std::unique_ptr<TestNetwork> network;
};

TEST_F(NetworkPath, FollowsRoutesAddressesAndLinksInTheOrderOfTheirMetrics) {
    Watcher watcher;
    EXPECT_TRUE(watcher.sees({"eth0"}));
    EXPECT_EQ(watcher.firstType(), Type::wiredEthernet);
    const auto tunnel = makeTunnel("tun0");
    if (!tunnel) GTEST_SKIP() << "no tun devices here";
    runCommand(
        "ip address add 10.9.0.2 peer 10.9.0.1 dev tun0; ip link set tun0 up; "
        "ip route add 0.0.0.0/1 via 10.9.0.1; ip route add 128.0.0.0/1 via 10.9.0.1");
    EXPECT_TRUE(watcher.sees({"tun0", "eth0"}));
    EXPECT_EQ(watcher.firstType(), Type::other);
    // A VPN takes the physical default routes away: the gateway is remembered.
    runCommand("ip route del default dev eth0; ip -6 route del default dev eth0");
    runCommand("ip link set tun0 down");
    EXPECT_TRUE(watcher.sees({"eth0"}));
    const auto state = NetworkMonitor::shared().state();
    ASSERT_NE(state->named("eth0"), nullptr);
    EXPECT_TRUE(state->named("eth0")->ipv4->isRemembered);
    EXPECT_TRUE(state->named("eth0")->ipv6->isRemembered);
    // Without an address, or a link, nothing is remembered.
    runCommand("ip -6 address flush dev eth0; ip address flush dev eth0");
    EXPECT_TRUE(watcher.sees({}));
    runCommand("ip address add 192.0.2.2/24 dev eth0; ip route add default via 192.0.2.1");
    EXPECT_TRUE(watcher.sees({"eth0"}));
    runCommand("ip link set eth0 down");
    EXPECT_TRUE(watcher.sees({}));
    runCommand("ip link set eth0 up");
    EXPECT_TRUE(watcher.sees({}));  // the route went with the link
}

TEST_F(NetworkPath, ACancelledMonitorAndOneThatIsLetGoDeliverNothingMore) {
    std::atomic<int> deliveries = 0;
    NWPathMonitor cancelled;
    cancelled.setPathUpdateHandler([&](const NWPath&) { ++deliveries; });
    cancelled.cancel();
    cancelled.start(DispatchQueue::global(QualityOfService::utility));
    {
        NWPathMonitor letGo;
        letGo.setPathUpdateHandler([&](const NWPath& path) {
            if (path.availableInterfaces.empty()) ++deliveries;
        });
        letGo.start(DispatchQueue::global(QualityOfService::utility));
    }
    Watcher watcher;
    EXPECT_TRUE(watcher.sees({"eth0"}));
    runCommand("ip link set eth0 down");
    EXPECT_TRUE(watcher.sees({}));
    EXPECT_EQ(deliveries, 0);
}

TEST_F(NetworkPath, TheAddressListShowsTunnelsAndKeepsTheOrderOfTheLinks) {
    const auto tunnel = makeTunnel("tun0");
    if (!tunnel) GTEST_SKIP() << "no tun devices here";
    runCommand("ip address add 10.9.0.2 peer 10.9.0.1 dev tun0; ip link set tun0 up");
    Watcher watcher;
    EXPECT_TRUE(watcher.sees({"eth0"}));
    ifaddrs* list = nullptr;
    ASSERT_EQ(platform::getifaddrs(&list), 0);
    std::vector<std::string> seen;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
        std::array<char, NI_MAXHOST> text{};
        EXPECT_EQ(
            platform::getnameinfo(entry->ifa_addr, platform::socketAddressLength(*entry->ifa_addr),
                                  text.data(), text.size(), nullptr, 0, NI_NUMERICHOST),
            0);
        seen.push_back(std::string(entry->ifa_name) + " " + text.data());
    }
    platform::freeifaddrs(list);
    EXPECT_THAT(seen,
                ElementsAre("lo 127.0.0.1", "eth0 192.0.2.2", "vpn0 10.8.0.2", "utun0 10.9.0.2"));
}

}  // namespace
}  // namespace platform
