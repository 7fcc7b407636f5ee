#include "Platform/Linux/Steering/IpsecPolicies.h"

#include <sys/socket.h>

#include <linux/xfrm.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

namespace platform::steering {

namespace {

constexpr std::array<unsigned, 1> policyEvents{XFRMNLGRP_POLICY};
constexpr std::array<std::uint16_t, 2> policyFamilies{AF_INET, AF_INET6};
constexpr std::array<std::uint8_t, 2> policyDirections{XFRM_POLICY_OUT, XFRM_POLICY_IN};

// Of any byte of the marks, as an earlier process may have used another one.
bool isMarkOfSteering(const xfrm_mark& mark) {
    for (const unsigned shift : {0U, 8U, 16U, 24U}) {
        const SteeringMarks marks{MarkPlace(shift)};
        if (mark.m != marks.mask()) continue;
        for (unsigned number = 1; number <= mostUplinks; ++number)
            if (mark.v == marks.ofPacket(number)) return true;
    }
    return false;
}

// All packets of the family.
xfrm_selector everything(std::uint16_t family) {
    xfrm_selector selector{};
    selector.family = family;
    return selector;
}

xfrm_lifetime_cfg forever() {
    constexpr __u64 unlimited = ~__u64{0};
    xfrm_lifetime_cfg limits{};
    limits.soft_byte_limit = limits.hard_byte_limit = unlimited;
    limits.soft_packet_limit = limits.hard_packet_limit = unlimited;
    return limits;
}

// The address that a tunnel has given the machine: a policy into it is for this one alone, and its packets leave from
// another one. Policies of transport mode, as L2TP has them, and those from host to host are for the machine's own.
std::optional<TunnelAddresses::value_type> addressOfTunnel(const xfrm_userpolicy_info& policy,
                                                           const xfrm_user_tmpl& form) {
    const int family = policy.sel.family;
    const std::size_t length = family == AF_INET ? 4 : 16;
    const bool isOfHost = policy.sel.prefixlen_s == length * 8;
    if (policy.dir != XFRM_POLICY_OUT || form.mode != XFRM_MODE_TUNNEL || !isOfHost)
        return std::nullopt;
    std::array<std::uint8_t, 16> inside{};
    std::array<std::uint8_t, 16> outside{};
    std::memcpy(inside.data(), &policy.sel.saddr, length);
    std::memcpy(outside.data(), &form.saddr, form.family == AF_INET ? 4 : 16);
    if (outside == std::array<std::uint8_t, 16>{} || outside == inside) return std::nullopt;
    return TunnelAddresses::value_type{family, inside};
}

}  // namespace

IpsecPolicies::IpsecPolicies(SteeringMarks steeringMarks) : marks(steeringMarks) {
    // A kernel without IPsec has no such sockets, and no policies.
    if (auto asking = netlink::Socket::open(NETLINK_XFRM)) socket.emplace(std::move(*asking));
    if (auto reports = netlink::Socket::open(NETLINK_XFRM, policyEvents))
        events.emplace(std::move(*reports));
}

void IpsecPolicies::takeAway() {
    if (std::exchange(isTakenAway, true)) return;
    // What the kernel does not take away does no harm: no packet has its mark any more.
    if (look()) static_cast<void>(exempt({}));
}

Result<> IpsecPolicies::look() {
    ours.clear();
    ofTunnels.clear();
    haveOthers = false;
    if (!socket) return {};
    netlink::Request dump(XFRM_MSG_GETPOLICY, NLM_F_DUMP, xfrm_userpolicy_id{});
    return socket->request(dump, [this](const netlink::Message& answer) { take(answer); });
}

void IpsecPolicies::take(const netlink::Message& answer) {
    const auto policy = answer.fixedHeader<xfrm_userpolicy_info>();
    if (answer.type() != XFRM_MSG_NEWPOLICY || !policy) return;
    const auto attributes = answer.attributes<xfrm_userpolicy_info>();
    const auto marked = attributes.find(XFRMA_MARK);
    const auto mark = marked ? marked->record<xfrm_mark>().value_or(xfrm_mark{}) : xfrm_mark{};
    const auto forms = attributes.find(XFRMA_TMPL);
    if (policy->priority == 0 && !forms && isMarkOfSteering(mark)) {
        ours.insert({policy->sel.family, policy->dir, mark.v, mark.m});
        return;
    }
    haveOthers = true;
    // Of several, the first one is the innermost.
    const auto form = forms ? forms->record<xfrm_user_tmpl>() : std::nullopt;
    if (const auto address = form ? addressOfTunnel(*policy, *form) : std::nullopt)
        ofTunnels.insert(*address);
}

std::set<IpsecPolicies::Exemption> IpsecPolicies::wantedFor(
    const std::vector<Uplink>& uplinks) const {
    std::set<Exemption> wanted;
    if (!haveOthers) return wanted;
    for (const Uplink& uplink : uplinks)
        for (const std::uint16_t family : policyFamilies)
            for (const std::uint8_t direction : policyDirections)
                wanted.insert({family, direction, marks.ofPacket(uplink.number), marks.mask()});
    return wanted;
}

Result<> IpsecPolicies::exempt(const std::vector<Uplink>& uplinks) {
    const auto wanted = wantedFor(uplinks);
    Result<> done;
    const auto keepFirst = [&done](Result<> result) {
        if (done && !result) done = std::move(result);
    };
    for (const Exemption& each : wanted)
        if (!ours.contains(each)) keepFirst(add(each));
    for (const Exemption& each : ours)
        if (!wanted.contains(each)) keepFirst(remove(each));
    return done;
}

Result<> IpsecPolicies::add(const Exemption& exemption) {
    xfrm_userpolicy_info policy{};
    policy.sel = everything(exemption.family);
    policy.lft = forever();
    policy.dir = exemption.direction;
    policy.action = XFRM_POLICY_ALLOW;
    netlink::Request request(XFRM_MSG_UPDPOLICY, NLM_F_ACK, policy);
    request.put(XFRMA_MARK, xfrm_mark{exemption.mark, exemption.mask});
    return socket->request(request);
}

Result<> IpsecPolicies::remove(const Exemption& exemption) {
    xfrm_userpolicy_id policy{};
    policy.sel = everything(exemption.family);
    policy.dir = exemption.direction;
    netlink::Request request(XFRM_MSG_DELPOLICY, NLM_F_ACK, policy);
    request.put(XFRMA_MARK, xfrm_mark{exemption.mark, exemption.mask});
    return socket->request(request);
}

}  // namespace platform::steering
