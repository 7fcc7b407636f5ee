#include "Platform/Simulated/Interfaces.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <utility>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

// One list as the core holds it: the entries and the memory that they point to.
struct Interfaces::List {
    struct Entry {
        struct ::ifaddrs node {};
        std::string name;
        sockaddr_storage address{};
    };

    explicit List(const std::vector<InterfaceAddress>& from) : entries(from.size()) {
        for (std::size_t i = 0; i < from.size(); ++i) fill(entries[i], from[i]);
        link();
    }
    List(const List& other) : entries(other.entries) { link(); }
    List& operator=(const List&) = delete;

    // Has the nodes point into this list.
    void link() {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            auto& [node, name, address] = entries[i];
            node.ifa_next = i + 1 < entries.size() ? &entries[i + 1].node : nullptr;
            node.ifa_name = name.data();
            if (address.ss_family != AF_UNSPEC)
                node.ifa_addr = reinterpret_cast<sockaddr*>(&address);
        }
    }

    static void fill(Entry& entry, const InterfaceAddress& from) {
        entry.name = from.name;
        if (!from.address) return;
        if (from.address->find(':') != std::string::npos) {
            auto& v6 = reinterpret_cast<sockaddr_in6&>(entry.address);
            v6.sin6_family = AF_INET6;
            if (inet_pton(AF_INET6, from.address->c_str(), &v6.sin6_addr) != 1)
                breach("the test gives a bad IPv6 address: " + *from.address);
        } else {
            auto& v4 = reinterpret_cast<sockaddr_in&>(entry.address);
            v4.sin_family = AF_INET;
            if (inet_pton(AF_INET, from.address->c_str(), &v4.sin_addr) != 1)
                breach("the test gives a bad IPv4 address: " + *from.address);
        }
    }

    std::vector<Entry> entries;
};

Interfaces::Interfaces() = default;
Interfaces::~Interfaces() = default;

void Interfaces::set(const std::vector<InterfaceAddress>& list) {
    const MutexGuard guard(mutex);
    addresses = std::make_unique<const List>(list);
}

void Interfaces::failGetifaddrs(int times) {
    const MutexGuard guard(mutex);
    failingLists = times;
}

void Interfaces::failGetnameinfo(int times) {
    const MutexGuard guard(mutex);
    failingNames = times;
}

std::size_t Interfaces::listsOutstanding() const {
    const MutexGuard guard(mutex);
    return outstanding.size();
}

int Interfaces::take(struct ::ifaddrs** list) {
    const MutexGuard guard(mutex);
    if (failingLists > 0) {
        --failingLists;
        return -1;
    }
    *list = nullptr;
    if (!addresses || addresses->entries.empty()) return 0;
    auto made = std::make_unique<List>(*addresses);
    *list = &made->entries.front().node;
    outstanding.emplace(*list, std::move(made));
    return 0;
}

void Interfaces::giveBack(struct ::ifaddrs* list) {
    const MutexGuard guard(mutex);
    if (list != nullptr && outstanding.erase(list) == 0)
        breach("freeifaddrs is given a list that is not outstanding");
}

bool Interfaces::nameLookupFails() {
    const MutexGuard guard(mutex);
    if (failingNames == 0) return false;
    --failingNames;
    return true;
}

}  // namespace simulated

using simulated::checkPlatformCall;
using simulated::machine;

int getifaddrs(struct ::ifaddrs** list) {
    checkPlatformCall("getifaddrs");
    return machine().interfaces.take(list);
}

void freeifaddrs(struct ::ifaddrs* list) { machine().interfaces.giveBack(list); }

int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostLength,
                char* service, socklen_t serviceLength, int flags) {
    checkPlatformCall("getnameinfo");
    if (machine().interfaces.nameLookupFails()) return EAI_FAIL;
    return ::getnameinfo(address, length, host, hostLength, service, serviceLength,
                         flags | NI_NUMERICHOST | NI_NUMERICSERV);
}

}  // namespace platform
