#include "Platform/Linux/Rules/RuleEvents.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "Platform/Linux/Rules/MarkPlaces.h"

namespace platform::interception {

namespace {

bool isOfOurs(const nfgenmsg& header, const netlink::Attributes& attributes) {
    // The same number in events of tables, chains, rules, sets and elements.
    const auto table = attributes.find(NFTA_TABLE_NAME);
    return table && header.nfgen_family == NFPROTO_INET && isOwnTable(table->text());
}

bool mayMapToMark(const netlink::Attribute& element) {
    const auto data = element.nested().find(NFTA_SET_ELEM_DATA);
    const auto value = data ? data->nested().find(NFTA_DATA_VALUE) : std::nullopt;
    return value && value->bytes().size() == sizeof(std::uint32_t);
}

// Of others.
bool concernsUs(unsigned kind, const netlink::Attributes& attributes) {
    if (kind == NFT_MSG_DELSETELEM) return false;
    if (kind != NFT_MSG_NEWSETELEM) return true;
    const auto elements = attributes.find(NFTA_SET_ELEM_LIST_ELEMENTS);
    return elements && std::ranges::any_of(elements->nested(), mayMapToMark);
}

void note(const netlink::Message& event, RuleEvents::News& news) {
    const unsigned kind = NFNL_MSG_TYPE(event.type());
    // The end of each change, whatever it was.
    const auto header = event.fixedHeader<nfgenmsg>();
    if (kind == NFT_MSG_NEWGEN || !header) return;
    const auto attributes = event.attributes<nfgenmsg>();
    if (isOfOurs(*header, attributes))
        news.areOursChanged = true;
    else if (concernsUs(kind, attributes))
        news.areOthersChanged = true;
}

}  // namespace

Result<RuleEvents> RuleEvents::open() {
    constexpr std::array<unsigned, 1> groups{NFNLGRP_NFTABLES};
    auto opened = netlink::Socket::open(NETLINK_NETFILTER, groups);
    if (!opened) return opened.error();
    return RuleEvents(std::move(*opened));
}

RuleEvents::News RuleEvents::take() {
    News news;
    alignas(nlmsghdr) std::array<std::byte, netlink::Socket::largestRead> buffer;
    for (;;) {
        const auto received = socket.receive(buffer, netlink::Socket::Wait::no);
        if (received) {
            netlink::forEachMessage(*received,
                                    [&](const netlink::Message& event) { note(event, news); });
        } else if (received.error().code() == ENOBUFS || received.error().code() == EMSGSIZE) {
            // What was lost may have been anything.
            news = {true, true};
        } else {
            return news;
        }
    }
}

}  // namespace platform::interception
