#include "Platform/Linux/Rules/PacketRule.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <libnftnl/expr.h>
#include <linux/if_arp.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tuple_common.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/xt_NFQUEUE.h>

#include <cstdlib>
#include <new>

namespace platform::interception {

namespace {
// Every condition loads what it tests into the same register.
constexpr std::uint32_t workRegister = NFT_REG_1;
}  // namespace

PacketRule::PacketRule(const char* chain) : rule(nftnl_rule_alloc()) {
    if (!rule) throw std::bad_alloc();
    nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, packetTableName);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain);
}

nftnl_expr* PacketRule::add(const char* name) {
    nftnl_expr* const expression = nftnl_expr_alloc(name);
    if (!expression) throw std::bad_alloc();
    nftnl_rule_add_expr(rule.get(), expression);
    return expression;
}

void PacketRule::load(const char* kind, std::uint16_t keyAttribute, std::uint16_t registerAttribute,
                      std::uint32_t key) {
    nftnl_expr* const expression = add(kind);
    nftnl_expr_set_u32(expression, keyAttribute, key);
    nftnl_expr_set_u32(expression, registerAttribute, workRegister);
}

void PacketRule::loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length) {
    nftnl_expr* const expression = add("payload");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_DREG, workRegister);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_BASE, base);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_LEN, length);
}

void PacketRule::mask32(std::uint32_t keep, std::uint32_t flip) {
    nftnl_expr* const expression = add("bitwise");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_SREG, workRegister);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_DREG, workRegister);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_LEN, sizeof keep);
    nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_MASK, &keep, sizeof keep);
    nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_XOR, &flip, sizeof flip);
}

void PacketRule::compare(std::uint32_t operation, const void* data, std::uint32_t length) {
    nftnl_expr* const expression = add("cmp");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_CMP_SREG, workRegister);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_CMP_OP, operation);
    nftnl_expr_set(expression, NFTNL_EXPR_CMP_DATA, data, length);
}

PacketRule& PacketRule::leavingByLoopback() {
    load("meta", NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG, NFT_META_OIFTYPE);
    const std::uint16_t type = ARPHRD_LOOPBACK;
    compare(NFT_CMP_EQ, &type, sizeof type);
    return *this;
}

PacketRule& PacketRule::ofNetworkProtocol(std::uint8_t family) {
    load("meta", NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG, NFT_META_NFPROTO);
    compare(NFT_CMP_EQ, &family, sizeof family);
    return *this;
}

PacketRule& PacketRule::ofProtocol(std::uint8_t protocol) {
    load("meta", NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG, NFT_META_L4PROTO);
    compare(NFT_CMP_EQ, &protocol, sizeof protocol);
    return *this;
}

PacketRule& PacketRule::withTcpFlags(std::uint8_t mask, std::uint8_t flags) {
    constexpr std::uint32_t offsetOfFlags = 13;
    loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, offsetOfFlags, 1);
    compareBits(mask, flags);
    return *this;
}

void PacketRule::compareBits(std::uint8_t mask, std::uint8_t bits) {
    const std::uint8_t none = 0;
    nftnl_expr* const expression = add("bitwise");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_SREG, workRegister);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_DREG, workRegister);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_LEN, 1);
    nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_MASK, &mask, 1);
    nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_XOR, &none, 1);
    compare(NFT_CMP_EQ, &bits, 1);
}

// RFC 8684, section 3: the option's kind is 30; its third byte begins with the subtype, MP_JOIN is 1.
PacketRule& PacketRule::joiningMultipathConnection() {
    nftnl_expr* const expression = add("exthdr");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_EXTHDR_OP, NFT_EXTHDR_OP_TCPOPT);
    nftnl_expr_set_u8(expression, NFTNL_EXPR_EXTHDR_TYPE, 30);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_EXTHDR_OFFSET, 2);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_EXTHDR_LEN, 1);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_EXTHDR_DREG, workRegister);
    compareBits(0xf0, 0x10);
    return *this;
}

PacketRule& PacketRule::withPayload() {
    loadPayload(NFT_PAYLOAD_INNER_HEADER, 0, 1);
    return *this;
}

PacketRule& PacketRule::sentByProcess() {
    load("meta", NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG, NFT_META_SKUID);
    return *this;
}

PacketRule& PacketRule::withPacketMark(std::uint32_t mask, std::uint32_t value) {
    load("meta", NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG, NFT_META_MARK);
    mask32(mask, 0);
    compare(NFT_CMP_EQ, &value, sizeof value);
    return *this;
}

PacketRule& PacketRule::withPriority(std::uint32_t mask, std::uint32_t value) {
    load("meta", NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG, NFT_META_PRIORITY);
    mask32(mask, 0);
    compare(NFT_CMP_EQ, &value, sizeof value);
    return *this;
}

PacketRule& PacketRule::withConnectionMark(std::uint32_t mask, std::uint32_t value) {
    load("ct", NFTNL_EXPR_CT_KEY, NFTNL_EXPR_CT_DREG, NFT_CT_MARK);
    mask32(mask, 0);
    compare(NFT_CMP_EQ, &value, sizeof value);
    return *this;
}

PacketRule& PacketRule::ofNewConnection() {
    load("ct", NFTNL_EXPR_CT_KEY, NFTNL_EXPR_CT_DREG, NFT_CT_STATE);
    // A connection that another one announced (a file transfer's data) begins as a related one.
    mask32(NF_CT_STATE_BIT(IP_CT_NEW) | NF_CT_STATE_BIT(IP_CT_RELATED), 0);
    const std::uint32_t none = 0;
    compare(NFT_CMP_NEQ, &none, sizeof none);
    return *this;
}

PacketRule& PacketRule::meetingNoEntry() {
    load("ct", NFTNL_EXPR_CT_KEY, NFTNL_EXPR_CT_DREG, NFT_CT_STATUS);
    mask32(IPS_CONFIRMED, 0);
    const std::uint32_t none = 0;
    compare(NFT_CMP_EQ, &none, sizeof none);
    return *this;
}

PacketRule& PacketRule::inDirectionOfOpening() {
    load("ct", NFTNL_EXPR_CT_KEY, NFTNL_EXPR_CT_DREG, NFT_CT_DIRECTION);
    const std::uint8_t original = IP_CT_DIR_ORIGINAL;
    compare(NFT_CMP_EQ, &original, sizeof original);
    return *this;
}

PacketRule& PacketRule::putPriority(std::uint32_t mask, std::uint32_t value) {
    load("meta", NFTNL_EXPR_META_KEY, NFTNL_EXPR_META_DREG, NFT_META_PRIORITY);
    mask32(~mask, value);
    nftnl_expr* const store = add("meta");
    nftnl_expr_set_u32(store, NFTNL_EXPR_META_KEY, NFT_META_PRIORITY);
    nftnl_expr_set_u32(store, NFTNL_EXPR_META_SREG, workRegister);
    return *this;
}

PacketRule& PacketRule::putConnectionMark(std::uint32_t mask, std::uint32_t value) {
    load("ct", NFTNL_EXPR_CT_KEY, NFTNL_EXPR_CT_DREG, NFT_CT_MARK);
    mask32(~mask, value);
    nftnl_expr* const store = add("ct");
    nftnl_expr_set_u32(store, NFTNL_EXPR_CT_KEY, NFT_CT_MARK);
    nftnl_expr_set_u32(store, NFTNL_EXPR_CT_SREG, workRegister);
    return *this;
}

void PacketRule::verdict(std::uint32_t verdict, const char* chain) {
    nftnl_expr* const expression = add("immediate");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_VERDICT, verdict);
    if (chain) nftnl_expr_set_str(expression, NFTNL_EXPR_IMM_CHAIN, chain);
}

PacketRule& PacketRule::count() {
    add("counter");
    return *this;
}

PacketRule& PacketRule::accept() {
    verdict(NF_ACCEPT, nullptr);
    return *this;
}

PacketRule& PacketRule::drop() {
    verdict(NF_DROP, nullptr);
    return *this;
}

PacketRule& PacketRule::jumpTo(const char* chain) {
    verdict(static_cast<std::uint32_t>(NFT_JUMP), chain);
    return *this;
}

PacketRule& PacketRule::goTo(const char* chain) {
    verdict(static_cast<std::uint32_t>(NFT_GOTO), chain);
    return *this;
}

PacketRule& PacketRule::leave() {
    verdict(static_cast<std::uint32_t>(NFT_RETURN), nullptr);
    return *this;
}

PacketRule& PacketRule::queueTo(std::uint16_t queueNumber, QueueForm form) {
    if (form == QueueForm::native) {
        nftnl_expr* const expression = add("queue");
        nftnl_expr_set_u16(expression, NFTNL_EXPR_QUEUE_NUM, queueNumber);
        nftnl_expr_set_u16(expression, NFTNL_EXPR_QUEUE_TOTAL, 1);
        nftnl_expr_set_u16(expression, NFTNL_EXPR_QUEUE_FLAGS, NFT_QUEUE_FLAG_BYPASS);
        return *this;
    }
    // The expression frees its description, so that has to come from malloc.
    auto* const description = static_cast<xt_NFQ_info_v3*>(std::calloc(1, sizeof(xt_NFQ_info_v3)));
    if (!description) throw std::bad_alloc();
    description->queuenum = queueNumber;
    description->queues_total = 1;
    description->flags = NFQ_FLAG_BYPASS;
    nftnl_expr* const expression = add("target");
    nftnl_expr_set_str(expression, NFTNL_EXPR_TG_NAME, "NFQUEUE");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_TG_REV, 3);
    nftnl_expr_set(expression, NFTNL_EXPR_TG_INFO, description, sizeof *description);
    return *this;  // NOLINT(clang-analyzer-unix.Malloc): the expression owns it now
}

PacketRule& PacketRule::redirectTo(std::uint16_t localPort) {
    const std::uint16_t port = htons(localPort);
    nftnl_expr* const immediate = add("immediate");
    nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_DREG, workRegister);
    nftnl_expr_set(immediate, NFTNL_EXPR_IMM_DATA, &port, sizeof port);
    nftnl_expr* const redirect = add("redir");
    nftnl_expr_set_u32(redirect, NFTNL_EXPR_REDIR_REG_PROTO_MIN, workRegister);
    return *this;
}

PacketRule& PacketRule::rejectWithReset() {
    nftnl_expr* const expression = add("reject");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_TCP_RST);
    return *this;
}

PacketRule& PacketRule::rejectAsPortUnreachable() {
    nftnl_expr* const expression = add("reject");
    nftnl_expr_set_u32(expression, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_ICMPX_UNREACH);
    nftnl_expr_set_u8(expression, NFTNL_EXPR_REJECT_CODE, NFT_REJECT_ICMPX_PORT_UNREACH);
    return *this;
}

}  // namespace platform::interception
