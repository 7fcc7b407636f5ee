#include "Platform/Linux/Rules/RuleCounters.h"

#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <string_view>

namespace platform::interception {

namespace {

struct FreeRule {
    void operator()(nftnl_rule* rule) const { nftnl_rule_free(rule); }
};
using OwnedRule = std::unique_ptr<nftnl_rule, FreeRule>;

void addCountsOf(nftnl_rule* rule, std::optional<std::uint64_t>& packets) {
    nftnl_expr_foreach(
        rule,
        [](nftnl_expr* expression, void* into) {
            auto& sum = *static_cast<std::optional<std::uint64_t>*>(into);
            if (std::string_view(nftnl_expr_get_str(expression, NFTNL_EXPR_NAME)) == "counter")
                sum = sum.value_or(0) + nftnl_expr_get_u64(expression, NFTNL_EXPR_CTR_PACKETS);
            return 0;
        },
        &packets);
}

}  // namespace

Result<> visitRules(const char* table, netlink::Socket& socket,
                    const std::function<void(const netlink::Message&)>& visit) {
    alignas(nlmsghdr) std::array<char, 256> buffer;
    const OwnedRule every(nftnl_rule_alloc());
    if (!every) throw std::bad_alloc();
    nftnl_rule_set_u32(every.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
    nftnl_rule_set_str(every.get(), NFTNL_RULE_TABLE, table);
    nlmsghdr* const header =
        nftnl_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETRULE, NFPROTO_INET, NLM_F_DUMP, 2);
    nftnl_rule_nlmsg_build_payload(header, every.get());
    return socket.request(*header, visit);
}

std::optional<std::uint64_t> packetsCounted(const char* table, netlink::Socket& socket) {
    // A count that another change of the rules spoils is taken again.
    for (;;) {
        std::optional<std::uint64_t> packets;
        const auto read = visitRules(table, socket, [&packets](const netlink::Message& message) {
            const OwnedRule rule(nftnl_rule_alloc());
            if (rule && nftnl_rule_nlmsg_parse(&message.header(), rule.get()) >= 0)
                addCountsOf(rule.get(), packets);
        });
        if (read) return packets;
        if (read.error().code() != EINTR) return std::nullopt;
    }
}

}  // namespace platform::interception
