// Keeps the source address of claimed flows alive. A flow that began while a tunnel was up has the
// tunnel's address on the application's side; when the tunnel goes, the kernel would no longer
// deliver to it. While such a claim lives the address also stands on the loopback interface, with a
// short lifetime that is renewed, so that it goes by itself whatever becomes of this process. Any
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <tuple>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Interception/NetlinkSocket.h"

namespace platform::interception {

class AddressAliases : public std::enable_shared_from_this<AddressAliases> {
public:
    AddressAliases();
    // Aliases that are still in use stay for a moment more: the end of their connections, which may
    // be as late as the end of the process, has to reach the applications.
    ~AddressAliases();
    AddressAliases(const AddressAliases&) = delete;
    AddressAliases& operator=(const AddressAliases&) = delete;

    // Keeps the flow's source address while the token lives. Nothing is kept for a flow that does
    // not leave through a tunnel. Needs the object to be held by a shared pointer.
    std::shared_ptr<void> keepSourceOf(const FlowTuple& flow);
    // To be called more often than every `lifetimeSeconds`.
    void renew();

    static constexpr std::uint32_t lifetimeSeconds = 30;
    static constexpr std::uint32_t secondsForFarewell = 3;

private:
    struct Address {
        int family;
        std::array<std::uint8_t, 16> bytes;
        friend bool operator<(const Address& left, const Address& right) {
            return std::tie(left.family, left.bytes) < std::tie(right.family, right.bytes);
        }
    };

    bool put(const Address& address, std::uint32_t seconds) REQUIRES(lock);
    void take(const Address& address) REQUIRES(lock);
    void letGo(const Address& address);

    Mutex lock;
    const std::unique_ptr<NetlinkSocket> socket PT_GUARDED_BY(lock);
    std::map<Address, std::size_t> users GUARDED_BY(lock);
};

}  // namespace platform::interception
