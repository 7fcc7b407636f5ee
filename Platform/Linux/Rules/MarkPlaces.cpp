#include "Platform/Linux/Rules/MarkPlaces.h"

#include <sys/socket.h>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <string_view>
#include <utility>

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Rules/DirectRoutes.h"
#include "Platform/Linux/Rules/MarksInRules.h"
#include "Platform/Linux/Rules/PacketRule.h"
#include "Platform/Linux/Rules/RuleLanguage.h"
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

Error unlisted(const RuleLanguage::Answer& answer) {
    return Error(EIO, "list the packet rules of others", answer.failure);
}

// A table may go between the two questions.
bool isGone(const RuleLanguage::Answer& answer) {
    return answer.failure.find("No such file or directory") != std::string::npos;
}

}  // namespace

bool isOwnTable(std::string_view name) {
    return name == packetTableName || name == guardTableName || name == steeringTableName;
}

Result<std::string> packetRulesOfOthers() {
    RuleLanguage language;
    const auto tables = language.run("list tables");
    if (!tables.isDone) return unlisted(tables);
    std::string rules;
    std::istringstream lines(tables.output);
    constexpr std::string_view ofBothFamilies = "table inet ";
    for (std::string table; std::getline(lines, table);) {
        if (table.starts_with(ofBothFamilies) && isOwnTable(table.substr(ofBothFamilies.size())))
            continue;
        const auto listed = language.run("list " + table);
        if (!listed.isDone && !isGone(listed)) return unlisted(listed);
        rules += listed.output;
    }
    return rules;
}

std::optional<std::string> legacyTablesInUse(std::initializer_list<std::string_view> wanted) {
    std::string tables;
    for (const auto& [family, path] : {std::pair("ip ", "/proc/self/net/ip_tables_names"),
                                       std::pair("ip6 ", "/proc/self/net/ip6_tables_names")}) {
        std::ifstream names(path);
        if (!names && errno != ENOENT) return std::nullopt;
        for (std::string name; std::getline(names, name);)
            if (std::ranges::find(wanted, name) != wanted.end())
                tables.append(tables.empty() ? "" : ", ").append(family).append(name);
    }
    return tables;
}

MarkBits markBitsInUse() {
    const auto rules = packetRulesOfOthers();
    if (!rules) return {bitsInRoutingRules(), "", "", rules.error()};
    return {bitsInRoutingRules() | markBitsInRules(*rules), tablesThatOverwriteMarks(*rules),
            tablesThatDoNotTrack(*rules), std::nullopt};
}

std::optional<MarkPlace> freeMarkPlace(std::uint32_t used) {
    constexpr unsigned highest = 24;
    for (unsigned shift = highest + 1; shift-- > 0;)
        if ((used & MarkPlace(shift).mask()) == 0) return MarkPlace(shift);
    return std::nullopt;
}

}  // namespace platform::interception
