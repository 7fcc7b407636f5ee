#include "Platform/Linux/Rules/MarkPlaces.h"

#include <sys/socket.h>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <nftables/libnftables.h>

#include <memory>
#include <sstream>

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Rules/DirectRoutes.h"
#include "Platform/Linux/Rules/MarksInRules.h"
#include "Platform/Linux/Rules/PacketRule.h"
#include "Platform/Linux/Rules/SteeringMarks.h"

namespace platform::interception {

namespace {

std::uint32_t bitsInRoutingRules() {
    auto socket = netlink::Socket::open(NETLINK_ROUTE);
    if (!socket) return 0;
    std::uint32_t bits = 0;
    netlink::Request dump(RTM_GETRULE, NLM_F_DUMP, fib_rule_hdr{});
    // What has been seen of rules that are just being changed is good enough.
    static_cast<void>(socket->request(dump, [&](const netlink::Message& rule) {
        const auto attributes = rule.attributes<fib_rule_hdr>();
        const auto number = [&](std::uint16_t type) {
            const auto attribute = attributes.find(type);
            return attribute ? attribute->number<std::uint32_t>().value_or(0) : 0;
        };
        const std::uint32_t priority = number(FRA_PRIORITY);
        const bool isOfDirectRoutes =
            priority == nearRoutesPriority || priority == ownTablePriority;
        if (isOfDirectRoutes || steering::isTableOfSteering(number(FRA_TABLE))) return;
        const std::uint32_t mark = number(FRA_FWMARK);
        const std::uint32_t mask = number(FRA_FWMASK);
        // A comparison with the whole mark uses the bits of the value.
        bits |= mask == ~0u ? mark : mask;
    }));
    return bits;
}

// What a command of the rule language prints.
std::optional<std::string> outputOf(nft_ctx* context, const std::string& command) {
    if (nft_run_cmd_from_buffer(context, command.c_str()) != 0) return std::nullopt;
    return nft_ctx_get_output_buffer(context);
}

}  // namespace

std::optional<std::string> packetRulesOfOthers() {
    const std::unique_ptr<nft_ctx, decltype(&nft_ctx_free)> context(nft_ctx_new(NFT_CTX_DEFAULT),
                                                                    &nft_ctx_free);
    if (!context) return std::nullopt;
    nft_ctx_buffer_output(context.get());
    nft_ctx_buffer_error(context.get());
    // Marks may have names.
    nft_ctx_output_set_flags(context.get(), NFT_CTX_OUTPUT_NUMERIC_SYMBOL);
    const auto tables = outputOf(context.get(), "list tables");
    if (!tables) return std::nullopt;
    std::string rules;
    std::istringstream lines(*tables);
    const std::string prefix = "table inet ";
    for (std::string table; std::getline(lines, table);)
        if (table != prefix + packetTableName && table != prefix + guardTableName &&
            table != prefix + steeringTableName)
            rules += outputOf(context.get(), "list " + table).value_or("");
    return rules;
}

std::uint32_t markBitsInUse() {
    return bitsInRoutingRules() | markBitsInRules(packetRulesOfOthers().value_or(""));
}

std::optional<MarkPlace> freeMarkPlace(std::uint32_t used) {
    constexpr unsigned highest = 24;
    for (unsigned shift = highest + 1; shift-- > 0;)
        if ((used & MarkPlace(shift).mask()) == 0) return MarkPlace(shift);
    return std::nullopt;
}

}  // namespace platform::interception
