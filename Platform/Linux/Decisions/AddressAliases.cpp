#include "Platform/Linux/Decisions/AddressAliases.h"

#include <net/if.h>
#include <sys/socket.h>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace platform::interception {

namespace {

bool isTunnel(unsigned interfaceIndex) {
    const auto state = NetworkMonitor::shared().state();
    return std::ranges::any_of(state->interfaces, [&](const NetworkInterface& interface) {
        return interface.index == static_cast<int>(interfaceIndex) && interface.isTunnel;
    });
}

struct Address {
    int family;
    std::array<std::uint8_t, 16> bytes;
    friend bool operator<(const Address& left, const Address& right) {
        return std::tie(left.family, left.bytes) < std::tie(right.family, right.bytes);
    }
};

// Whether an interface that leads out has it; the loopback interface may have our alias.
bool hasOutside(const NetworkState& network, const Address& address) {
    return std::ranges::any_of(network.interfaces, [&](const NetworkInterface& interface) {
        return interface.type != NWInterface::InterfaceType::loopback &&
               std::ranges::any_of(interface.addresses, [&](const InterfaceAddress& present) {
                   return present.family == address.family && present.bytes == address.bytes;
               });
    });
}

netlink::Request addressRequest(unsigned type, unsigned flags, const Address& address) {
    const auto bytes =
        std::as_bytes(std::span(address.bytes).first(address.family == AF_INET ? 4 : 16));
    ifaddrmsg about{};
    about.ifa_family = static_cast<std::uint8_t>(address.family);
    about.ifa_prefixlen = static_cast<std::uint8_t>(bytes.size() * 8);
    about.ifa_scope = RT_SCOPE_HOST;
    about.ifa_index = if_nametoindex("lo");
    netlink::Request request(type, NLM_F_ACK | flags, about);
    request.put(IFA_LOCAL, bytes).put(IFA_ADDRESS, bytes);
    return request;
}

std::optional<netlink::Socket> openAddressSocket() {
    auto opened = netlink::Socket::open(NETLINK_ROUTE);
    return opened ? std::optional(std::move(*opened)) : std::nullopt;
}

}  // namespace

// The addresses and their users.
class AddressAliases::Table {
public:
    void add(const Address& address) {
        const MutexGuard guard(lock);
        ++users[address];
    }
    // The alias, if there is one, is taken when the addresses are next looked at, by a thread that
    // may wait for the kernel.
    void remove(const Address& address) {
        const MutexGuard guard(lock);
        const auto found = users.find(address);
        if (--found->second == 0) users.erase(found);
    }

    // Puts aliases for what has vanished, renews them, and takes those that no one needs any more.
    void follow(const NetworkState& network) {
        const MutexGuard guard(asking);
        if (!socket) return;
        const auto unneeded = std::exchange(aliases, {});
        for (const Address& address : used())
            if (!hasOutside(network, address) && put(address, lifetimeSeconds))
                aliases.insert(address);
        for (const Address& address : unneeded)
            if (!aliases.contains(address)) take(address);
    }

    void sayFarewell() {
        const MutexGuard guard(asking);
        for (const Address& address : aliases) static_cast<void>(put(address, secondsForFarewell));
    }

private:
    std::vector<Address> used() {
        const MutexGuard guard(lock);
        std::vector<Address> addresses;
        for (const auto& [address, count] : users) addresses.push_back(address);
        return addresses;
    }
    Result<> put(const Address& address, std::uint32_t seconds) REQUIRES(asking);
    void take(const Address& address) REQUIRES(asking);

    // Held while the kernel is asked; who counts claims doesn't need it.
    Mutex asking;
    std::optional<netlink::Socket> socket GUARDED_BY(asking) = openAddressSocket();
    std::set<Address> aliases GUARDED_BY(asking);
    Mutex lock;
    std::map<Address, std::size_t> users GUARDED_BY(lock);
};

Result<> AddressAliases::Table::put(const Address& address, std::uint32_t seconds) {
    auto request = addressRequest(RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE, address);
    // Never preferred: no one shall choose it as the source of a new flow.
    const ifa_cacheinfo lifetime{0, seconds, 0, 0};
    request.put(IFA_FLAGS, std::uint32_t{IFA_F_NODAD}).put(IFA_CACHEINFO, lifetime);
    return socket->request(request);
}

void AddressAliases::Table::take(const Address& address) {
    auto request = addressRequest(RTM_DELADDR, 0, address);
    // One that cannot be taken goes by itself.
    static_cast<void>(socket->request(request));
}

AddressAliases::AddressAliases()
    : table(std::make_shared<Table>()),
      following(NetworkMonitor::shared().observe(
          [held = table](const std::shared_ptr<const NetworkState>& state) {
              held->follow(*state);
          })) {}

AddressAliases::~AddressAliases() {
    following.reset();
    table->sayFarewell();
}

std::shared_ptr<void> AddressAliases::keepSourceOf(const FlowTuple& flow) {
    if (!isTunnel(flow.outputInterface)) return nullptr;
    const Address address{flow.family, flow.sourceAddress};
    table->add(address);
    return {nullptr, [kept = table, address](void*) { kept->remove(address); }};
}

void AddressAliases::renew() { table->follow(*NetworkMonitor::shared().state()); }

}  // namespace platform::interception
