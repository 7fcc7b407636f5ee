#include "Platform/Linux/Interception/AddressAliases.h"

#include <net/if.h>
#include <sys/socket.h>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <algorithm>

#include "Platform/Linux/Network/NetworkMonitor.h"

namespace platform::interception {

namespace {

bool isTunnel(unsigned interfaceIndex) {
    const auto state = NetworkMonitor::shared().state();
    return std::any_of(
        state->interfaces.begin(), state->interfaces.end(), [&](const NetworkInterface& interface) {
            return interface.index == static_cast<int>(interfaceIndex) && interface.isTunnel;
        });
}

}  // namespace

AddressAliases::AddressAliases() : socket(NetlinkSocket::open(NETLINK_ROUTE)) {}

AddressAliases::~AddressAliases() {
    const MutexGuard guard(lock);
    for (const auto& [address, count] : users) put(address, secondsForFarewell);
}

std::shared_ptr<void> AddressAliases::keepSourceOf(const FlowTuple& flow) {
    if (!socket || !isTunnel(flow.outputInterface)) return nullptr;
    const Address address{flow.family, flow.sourceAddress};
    const MutexGuard guard(lock);
    std::size_t& count = users[address];
    if (count == 0 && !put(address, lifetimeSeconds)) {
        users.erase(address);
        return nullptr;
    }
    ++count;
    return std::shared_ptr<void>(nullptr, [aliases = weak_from_this(), address](void*) {
        if (const auto living = aliases.lock()) living->letGo(address);
    });
}

void AddressAliases::renew() {
    const MutexGuard guard(lock);
    for (const auto& [address, count] : users) put(address, lifetimeSeconds);
}

void AddressAliases::letGo(const Address& address) {
    const MutexGuard guard(lock);
    const auto found = users.find(address);
    if (found == users.end() || --found->second > 0) return;
    users.erase(found);
    take(address);
}

namespace {

nlmsghdr* addressMessage(char* room, std::uint16_t type, std::uint16_t flags, int family,
                         const std::uint8_t* bytes) {
    const std::size_t length = family == AF_INET ? 4 : 16;
    nlmsghdr* const header = mnl_nlmsg_put_header(room);
    header->nlmsg_type = type;
    header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    header->nlmsg_seq = 1;
    auto* const about =
        static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ifaddrmsg)));
    about->ifa_family = static_cast<std::uint8_t>(family);
    about->ifa_prefixlen = static_cast<std::uint8_t>(length * 8);
    about->ifa_scope = RT_SCOPE_HOST;
    about->ifa_index = if_nametoindex("lo");
    mnl_attr_put(header, IFA_LOCAL, length, bytes);
    mnl_attr_put(header, IFA_ADDRESS, length, bytes);
    return header;
}

}  // namespace

bool AddressAliases::put(const Address& address, std::uint32_t seconds) {
    alignas(nlmsghdr) std::array<char, 256> room{};
    nlmsghdr* const header = addressMessage(room.data(), RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE,
                                            address.family, address.bytes.data());
    mnl_attr_put_u32(header, IFA_FLAGS, IFA_F_NODAD);
    // Never preferred: nobody shall choose it as the source of a new flow.
    const ifa_cacheinfo lifetime{0, seconds, 0, 0};
    mnl_attr_put(header, IFA_CACHEINFO, sizeof lifetime, &lifetime);
    return socket->request(*header) == 0;
}

void AddressAliases::take(const Address& address) {
    alignas(nlmsghdr) std::array<char, 256> room{};
    const nlmsghdr* const header =
        addressMessage(room.data(), RTM_DELADDR, 0, address.family, address.bytes.data());
    socket->request(*header);
}

}  // namespace platform::interception
