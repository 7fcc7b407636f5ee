#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "Platform/Linux/Interception/ConnectionEntries.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Network/RouteMessages.h"
#include "Tests/Platform/Linux/Namespaces.h"

namespace platform::netlink {
namespace {

// The messages of one read, at the very end of their memory: who reads further is caught by the
// address sanitizer.
class Read {
public:
    explicit Read(Bytes messages) : bytes(new std::byte[messages.size()]), size(messages.size()) {
        std::ranges::copy(messages, bytes.get());
    }
    std::byte& operator[](std::size_t index) { return bytes[index]; }
    NetworkState network() const {
        NetworkState result;
        forEachMessage({bytes.get(), size},
                       [&](const Message& message) { addToNetwork(message, result); });
        return result;
    }

private:
    std::unique_ptr<std::byte[]> bytes;
    std::size_t size;
};

// A link, an address of it, and a default route with two ways over it.
std::vector<std::byte> linkAddressAndRoute() {
    ifinfomsg link{};
    link.ifi_index = 7;
    Request first(RTM_NEWLINK, 0, link);
    first.put(IFLA_IFNAME, std::as_bytes(std::span("wg0")));
    first.nest(IFLA_LINKINFO,
               [&] { first.put(IFLA_INFO_KIND, std::as_bytes(std::span("wireguard"))); });
    ifaddrmsg address{};
    address.ifa_index = 7;
    address.ifa_family = AF_INET;
    Request second(RTM_NEWADDR, 0, address);
    second.put(IFA_ADDRESS, std::uint32_t{1}).put(IFA_LOCAL, std::uint32_t{2});
    rtmsg route{};
    route.rtm_family = AF_INET;
    route.rtm_table = RT_TABLE_MAIN;
    route.rtm_type = RTN_UNICAST;
    Request third(RTM_NEWROUTE, 0, route);
    third.put(RTA_PRIORITY, std::uint32_t{5});
    third.nest(RTA_MULTIPATH, [&] {
        const struct {
            rtnexthop hop;
            nlattr attribute;
            std::uint32_t gateway;
        } way{{16, 0, 0, 7}, {8, RTA_GATEWAY}, 3};
        auto* const room = static_cast<char*>(mnl_nlmsg_get_payload_tail(third.message()));
        for (int count = 0; count < 2; ++count) std::memcpy(room + count * 16, &way, sizeof way);
        third.message()->nlmsg_len += 32;
    });
    std::vector<std::byte> all;
    for (Request* const each : {&first, &second, &third})
        all.insert(all.end(), each->bytes().begin(), each->bytes().end());
    return all;
}

TEST(Netlink, MessagesOfAnyLengthAndContentAreReadWithinTheirBounds) {
    const auto whole = linkAddressAndRoute();
    const NetworkState network = Read(whole).network();
    ASSERT_EQ(network.interfaces.size(), 1u);
    EXPECT_EQ(network.interfaces[0].name, "wg0");
    EXPECT_TRUE(network.interfaces[0].isTunnel);
    ASSERT_EQ(network.interfaces[0].addresses.size(), 1u);
    EXPECT_EQ(network.interfaces[0].addresses[0].bytes[0], 2);
    ASSERT_TRUE(network.interfaces[0].ipv4.has_value());
    EXPECT_EQ(network.interfaces[0].ipv4->gateway.value()[0], 3);
    EXPECT_EQ(network.interfaces[0].ipv4->metric, 5u);

    for (std::size_t length = 0; length < whole.size(); ++length) {
        const NetworkState cut = Read(std::span(whole).first(length)).network();
        EXPECT_TRUE(cut.interfaces.empty() || !cut.interfaces[0].ipv4) << length;
    }
    // Wrong lengths within the messages.
    std::mt19937 random(20);
    for (int run = 0; run < 20'000; ++run) {
        Read read(whole);
        for (auto count = 1 + random() % 3; count > 0; --count)
            read[random() % whole.size()] = static_cast<std::byte>(random());
        EXPECT_LE(read.network().interfaces.size(), 3u);
    }
}

TEST(Netlink, EntryWithATupleOfAnyLengthIsUpdatedWithinItsRoom) {
    using namespace interception;
    Request entry(IPCTNL_MSG_CT_NEW, 0, nfgenmsg{});
    entry.nest(CTA_TUPLE_ORIG, [&] {
        entry.nest(CTA_TUPLE_PROTO, [&] { entry.put(CTA_PROTO_SRC_PORT, htons(80)); });
    });
    const Message message(*entry.message());
    EXPECT_EQ(openingIn(message)->sourcePort, 80);
    EXPECT_EQ(openingIn(message)->destinationPort, 0);
    std::vector<std::byte> updates;
    appendMarkUpdate(updates, message, 0xff, 1);
    EXPECT_FALSE(updates.empty());

    updates.clear();
    std::vector<std::uint32_t> longTuple(256);
    longTuple[0] = static_cast<std::uint32_t>(longTuple.size() * 4);
    longTuple[5] = static_cast<std::uint32_t>((longTuple.size() - 5) * 4) | CTA_TUPLE_ORIG << 16;
    const Message tooLong(*reinterpret_cast<const nlmsghdr*>(longTuple.data()));
    EXPECT_TRUE(openingIn(tooLong).has_value());
    appendMarkUpdate(updates, tooLong, 0xff, 1);
    EXPECT_TRUE(updates.empty());
}

TEST(Netlink, RequestThatDoesNotFitItsRoomIsNotSent) {
    Request request(RTM_GETLINK, NLM_F_DUMP, ifinfomsg{});
    request.put(IFLA_IFNAME, std::as_bytes(std::span("lo")));
    EXPECT_TRUE(request.isWhole());
    const std::vector<std::byte> tooMuch(70'000);
    request.nest(IFLA_LINKINFO, [&] { request.put(IFLA_INFO_KIND, tooMuch); });
    EXPECT_FALSE(request.isWhole());
    EXPECT_LE(request.message()->nlmsg_len, Request::capacity);
    auto socket = Socket::open(NETLINK_ROUTE);
    ASSERT_TRUE(socket);
    const auto sent = socket->request(request);
    ASSERT_FALSE(sent);
    EXPECT_EQ(sent.error().code(), EMSGSIZE);
}

TEST(Netlink, OnlyTheKernelIsListenedTo) {
    if (!enterNamespaces(Namespace::network)) GTEST_SKIP() << "no network namespaces here";
    auto socket = Socket::open(NETLINK_ROUTE);
    auto stranger = Socket::open(NETLINK_ROUTE);
    ASSERT_TRUE(socket && stranger);
    // The refusal of the question that is about to be asked.
    Request forged(NLMSG_ERROR, 0, nlmsgerr{-EPERM, {}});
    forged.message()->nlmsg_seq = 1;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = socket->portId();
    ASSERT_GT(::sendto(stranger->descriptor(), forged.message(), forged.message()->nlmsg_len, 0,
                       reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    Request links(RTM_GETLINK, NLM_F_DUMP, ifinfomsg{});
    std::size_t count = 0;
    EXPECT_TRUE(socket->request(links, [&](const Message&) { ++count; }));
    EXPECT_GT(count, 0u);

    ifinfomsg nowhere{};
    nowhere.ifi_index = 4711;
    Request unknown(RTM_GETLINK, NLM_F_ACK, nowhere);
    const auto refused = socket->request(unknown);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code(), ENODEV);
    EXPECT_EQ(refused.error().text(), "cannot ask the kernel over netlink: No such device");
}

}  // namespace
}  // namespace platform::netlink
