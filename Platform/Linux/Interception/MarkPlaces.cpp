#include "Platform/Linux/Interception/MarkPlaces.h"

#include <sys/socket.h>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <nftables/libnftables.h>

#include <bit>
#include <charconv>
#include <memory>
#include <sstream>

#include "Platform/Linux/Interception/PacketRule.h"
#include "Platform/Linux/Netlink/Socket.h"

namespace platform::interception {

namespace {

// A number with most bits set is a mask that keeps those and speaks of the others.
std::uint32_t bitsMeantBy(std::uint32_t number) {
    return std::popcount(number) > 16 ? ~number : number;
}

std::uint32_t bitsInLine(std::string_view line) {
    std::uint32_t bits = 0;
    for (auto at = line.find("0x"); at != std::string_view::npos; at = line.find("0x", at + 2)) {
        std::uint32_t number = 0;
        std::from_chars(line.data() + at + 2, line.data() + line.size(), number, 16);
        bits |= bitsMeantBy(number);
    }
    return bits;
}

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
        const std::uint32_t mark = number(FRA_FWMARK);
        const std::uint32_t mask = number(FRA_FWMASK);
        // Whoever compares the whole mark uses the bits of the value.
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
    const auto tables = outputOf(context.get(), "list tables");
    if (!tables) return std::nullopt;
    std::string rules;
    std::istringstream lines(*tables);
    const std::string prefix = "table inet ";
    for (std::string table; std::getline(lines, table);)
        if (table != prefix + packetTableName && table != prefix + guardTableName)
            rules += outputOf(context.get(), "list " + table).value_or("");
    return rules;
}

std::uint32_t markBitsInRules(std::string_view rules) {
    std::uint32_t bits = 0;
    while (!rules.empty()) {
        const auto end = rules.find('\n');
        const std::string_view line = rules.substr(0, end);
        rules.remove_prefix(end == std::string_view::npos ? rules.size() : end + 1);
        if (line.find("mark") != std::string_view::npos) bits |= bitsInLine(line);
    }
    return bits;
}

std::uint32_t markBitsInUse() {
    return bitsInRoutingRules() | markBitsInRules(packetRulesOfOthers().value_or(""));
}

MarkPlace freeMarkPlace(std::uint32_t used) {
    constexpr unsigned highest = 24;
    MarkPlace best(highest);
    for (unsigned shift = highest + 1; shift-- > 0;) {
        const MarkPlace place(shift);
        if (std::popcount(used & place.mask()) < std::popcount(used & best.mask())) best = place;
    }
    return best;
}

}  // namespace platform::interception
