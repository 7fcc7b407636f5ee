// One rule of our table, written down as a chain of conditions and a last word, in the order in
// which the kernel tests them: `PacketRule("offer").ofProtocol(IPPROTO_TCP).accept()`. A condition
// that cannot be tested on a packet (no socket, no connection entry) does not hold. A plain builder
// on one thread.
#pragma once

#include <libnftnl/rule.h>

#include <cstdint>
#include <memory>

namespace platform::interception {

// The name of our table, of family inet.
inline constexpr const char* packetTableName = "vantry";
// The table that keeps watched flows in the tunnel.
inline constexpr const char* guardTableName = "vantry_guard";
// The one that steers direct connections.
inline constexpr const char* steeringTableName = "vantry_steering";

// The two forms in which kernels know the packet queue: an expression of the rule language, or the
// older target that the rule language can embed.
enum class QueueForm { native, target };

class PacketRule {
public:
    explicit PacketRule(const char* chain);

    PacketRule& leavingByLoopback();
    PacketRule& ofNetworkProtocol(std::uint8_t family);
    PacketRule& ofProtocol(std::uint8_t protocol);
    // Of the TCP flags in `mask`, exactly those in `flags` are set.
    PacketRule& withTcpFlags(std::uint8_t mask, std::uint8_t flags);
    // Asks to become a further way of a Multipath TCP connection.
    PacketRule& joiningMultipathConnection();
    PacketRule& withPayload();
    // Sent through a socket that a process holds; packets of the kernel's own are not.
    PacketRule& sentByProcess();
    PacketRule& withPacketMark(std::uint32_t mask, std::uint32_t value);
    PacketRule& withPriority(std::uint32_t mask, std::uint32_t value);
    PacketRule& withConnectionMark(std::uint32_t mask, std::uint32_t value);
    PacketRule& ofNewConnection();
    // The kernel's table of connections has no entry yet that the packet belongs to.
    PacketRule& meetingNoEntry();
    PacketRule& inDirectionOfOpening();

    // Replaces the bits in `mask`, and only those.
    PacketRule& putPriority(std::uint32_t mask, std::uint32_t value);
    PacketRule& putConnectionMark(std::uint32_t mask, std::uint32_t value);
    // Counts the packets that get here.
    PacketRule& count();

    // Last words.
    PacketRule& accept();
    PacketRule& drop();
    // The rest of the chain comes after the other one.
    PacketRule& jumpTo(const char* chain);
    // The other chain takes the place of the rest.
    PacketRule& goTo(const char* chain);
    // Leaves the chain.
    PacketRule& leave();
    // Hands the packet to a queue; it passes when no one reads there.
    PacketRule& queueTo(std::uint16_t queueNumber, QueueForm form);
    PacketRule& redirectTo(std::uint16_t localPort);
    PacketRule& rejectWithReset();
    PacketRule& rejectAsPortUnreachable();

    const nftnl_rule* get() const { return rule.get(); }
    nftnl_rule* get() { return rule.get(); }

private:
    struct Free {
        void operator()(nftnl_rule* made) const { nftnl_rule_free(made); }
    };

    nftnl_expr* add(const char* name);
    void load(const char* kind, std::uint16_t keyAttribute, std::uint16_t registerAttribute,
              std::uint32_t key);
    void loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length);
    void mask32(std::uint32_t keep, std::uint32_t flip);
    // Of the byte loaded, those in `mask` are `bits`.
    void compareBits(std::uint8_t mask, std::uint8_t bits);
    void compare(std::uint32_t operation, const void* data, std::uint32_t length);
    void verdict(std::uint32_t verdict, const char* chain);

    std::unique_ptr<nftnl_rule, Free> rule;
};

}  // namespace platform::interception
