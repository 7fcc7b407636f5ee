#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <vector>

#include "Platform/Linux/Netlink/Socket.h"
#include "Tests/Platform/Linux/Namespaces.h"

namespace platform::netlink {
namespace {

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
