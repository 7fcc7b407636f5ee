#include "Platform/Linux/Interception/PacketTable.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/rule.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cerrno>
#include <climits>
#include <new>

namespace platform::interception {

namespace {

// The chains. `offer` comes before every redirect of others (priority -100) and behind connection
// tracking (-200); `keep` behind both.
constexpr const char* offerChain = "offer";
constexpr const char* ownTrafficChain = "own_traffic";
constexpr const char* generationChain = "generation";
constexpr const char* newFlowsChain = "new_flows";
constexpr const char* redirectChain = "redirect";
constexpr const char* keepChain = "keep";
constexpr const char* keepMarkChain = "keep_mark";

// A sequence of changes that the kernel carries out together or not at all.
class Transaction {
public:
    Transaction() {
        nftnl_batch_begin(room(), sequence);
        advance();
    }

    void addTable(std::uint32_t flags) { table(NFT_MSG_NEWTABLE, NLM_F_CREATE, flags); }
    void deleteTable() { table(NFT_MSG_DELTABLE, 0, 0); }

    void addChain(const char* name) { chain(name, nullptr, 0); }
    void addOutputChain(const char* name, const char* type, std::int32_t priority) {
        chain(name, type, priority);
    }

    void addRule(const PacketRule& rule) {
        nlmsghdr* const header = message(NFT_MSG_NEWRULE, NLM_F_APPEND | NLM_F_CREATE);
        nftnl_rule_nlmsg_build_payload(header, const_cast<nftnl_rule*>(rule.get()));
        advance();
        ++rules;
    }
    void flushChain(const char* name) {
        PacketRule every(name);
        nftnl_rule_nlmsg_build_payload(message(NFT_MSG_DELRULE, 0), every.get());
        advance();
    }

    std::size_t ruleCount() const { return rules; }

    Result<> commit(netlink::Socket& socket) {
        nftnl_batch_end(room(), sequence);
        advance();
        return socket.transact(std::as_bytes(std::span(buffer.data(), used)));
    }

private:
    static constexpr std::uint32_t sequence = 1;

    char* room() { return buffer.data() + used; }
    void advance() { used += reinterpret_cast<const nlmsghdr*>(room())->nlmsg_len; }

    nlmsghdr* message(std::uint16_t type, std::uint16_t flags) {
        return nftnl_nlmsg_build_hdr(room(), type, NFPROTO_INET, flags, sequence);
    }

    void table(std::uint16_t type, std::uint16_t messageFlags, std::uint32_t tableFlags) {
        const std::unique_ptr<nftnl_table, decltype(&nftnl_table_free)> made(nftnl_table_alloc(),
                                                                             &freeTable);
        if (!made) throw std::bad_alloc();
        nftnl_table_set_u32(made.get(), NFTNL_TABLE_FAMILY, NFPROTO_INET);
        nftnl_table_set_str(made.get(), NFTNL_TABLE_NAME, packetTableName);
        if (tableFlags != 0) nftnl_table_set_u32(made.get(), NFTNL_TABLE_FLAGS, tableFlags);
        nftnl_table_nlmsg_build_payload(message(type, messageFlags), made.get());
        advance();
    }
    static void freeTable(const nftnl_table* made) { nftnl_table_free(made); }

    void chain(const char* name, const char* type, std::int32_t priority) {
        const std::unique_ptr<nftnl_chain, decltype(&nftnl_chain_free)> made(nftnl_chain_alloc(),
                                                                             &nftnl_chain_free);
        if (!made) throw std::bad_alloc();
        nftnl_chain_set_u32(made.get(), NFTNL_CHAIN_FAMILY, NFPROTO_INET);
        nftnl_chain_set_str(made.get(), NFTNL_CHAIN_TABLE, packetTableName);
        nftnl_chain_set_str(made.get(), NFTNL_CHAIN_NAME, name);
        if (type) {
            nftnl_chain_set_str(made.get(), NFTNL_CHAIN_TYPE, type);
            nftnl_chain_set_u32(made.get(), NFTNL_CHAIN_HOOKNUM, NF_INET_LOCAL_OUT);
            nftnl_chain_set_s32(made.get(), NFTNL_CHAIN_PRIO, priority);
            nftnl_chain_set_u32(made.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
        }
        nftnl_chain_nlmsg_build_payload(message(NFT_MSG_NEWCHAIN, NLM_F_CREATE), made.get());
        advance();
    }

    std::array<char, 32 * 1024> buffer{};
    std::size_t used = 0;
    std::size_t rules = 0;
};

PacketRule currentGeneration(MarkPlace place, unsigned generation) {
    return std::move(
        PacketRule(generationChain)
            .withConnectionMark(place.mask(), place.value(FlowState::declined, generation))
            .accept());
}

void addChains(Transaction& transaction) {
    transaction.addChain(ownTrafficChain);
    transaction.addChain(generationChain);
    transaction.addChain(newFlowsChain);
    transaction.addChain(keepMarkChain);
    transaction.addOutputChain(offerChain, "filter", -150);
    transaction.addOutputChain(redirectChain, "nat", -100);
    // The kernel routes a packet anew when its verdict brings a mark. Marks decide on routes, and a
    // VPN may want exactly its own; so once ours is off the mark again, so must be that detour.
    transaction.addOutputChain(keepChain, "route", 0);
}

// The chain that every outbound packet meets. The commonest packet, one of a declined flow, leaves
// it after three tests.
void addOfferRules(Transaction& transaction, const PacketTableContent& content, QueueForm form) {
    const MarkPlace place = content.place;
    const auto state = [&](FlowState value) { return place.value(value); };
    const auto rule = [] { return PacketRule(offerChain); };

    transaction.addRule(rule().leavingByLoopback().accept());
    transaction.addRule(rule()
                            .withPacketMark(place.stateMask(), state(FlowState::ownTraffic))
                            .jumpTo(ownTrafficChain));
    transaction.addRule(rule().jumpTo(generationChain));
    // What applications put there themselves is no verdict of ours.
    transaction.addRule(rule().withoutPacketMark(place.mask(), 0).putPacketMark(place.mask(), 0));
    transaction.addRule(rule().ofProtocol(IPPROTO_TCP).withTcpFlags(TH_RST, TH_RST).accept());
    transaction.addRule(rule().withConnectionMark(place.mask(), 0).jumpTo(newFlowsChain));
    transaction.addRule(rule()
                            .withConnectionMark(place.stateMask(), state(FlowState::declined))
                            .sentByProcess()
                            .queueTo(content.queues.offeredAgain, form));
    for (const FlowState watched : {FlowState::watched, FlowState::claimedAndWatched})
        transaction.addRule(rule()
                                .withConnectionMark(place.stateMask(), state(watched))
                                .withPayload()
                                .queueTo(content.queues.watchedData, form));
    // The socket of another program that has the addresses and ports of a connection of ours.
    transaction.addRule(rule()
                            .withConnectionMark(place.stateMask(), state(FlowState::ownTraffic))
                            .inDirectionOfOpening()
                            .ofProtocol(IPPROTO_TCP)
                            .rejectWithReset());
}

// Our own packets pass; their connections are known by it from the first one on.
void addOwnTrafficRules(Transaction& transaction, MarkPlace place) {
    transaction.addRule(PacketRule(ownTrafficChain)
                            .ofProtocol(IPPROTO_TCP)
                            .withTcpFlags(TH_SYN | TH_ACK, TH_SYN)
                            .putConnectionMark(place.mask(), place.value(FlowState::ownTraffic)));
    transaction.addRule(PacketRule(ownTrafficChain).accept());
}

void addNewFlowRules(Transaction& transaction, const PacketTableContent& content, QueueForm form) {
    for (const std::uint8_t protocol : content.offeredProtocols) {
        PacketRule rule(newFlowsChain);
        rule.ofProtocol(protocol).ofNewConnection();
        if (protocol == IPPROTO_TCP) rule.withTcpFlags(TH_FIN | TH_SYN | TH_RST | TH_ACK, TH_SYN);
        transaction.addRule(rule.sentByProcess().queueTo(content.queues.newFlows, form));
    }
}

void addRedirectRules(Transaction& transaction, const PacketTableContent& content) {
    const MarkPlace place = content.place;
    const auto redirect = [&](std::uint8_t family, std::uint16_t port, FlowState state) {
        if (port == 0) return;
        transaction.addRule(PacketRule(redirectChain)
                                .withPacketMark(place.stateMask(), place.value(state))
                                .ofNetworkProtocol(family)
                                .ofProtocol(IPPROTO_TCP)
                                .redirectTo(port));
    };
    for (const FlowState state : {FlowState::claimed, FlowState::claimedAndWatched}) {
        redirect(NFPROTO_IPV4, content.listeners.ipv4, state);
        redirect(NFPROTO_IPV6, content.listeners.ipv6, state);
    }
}

// Copies the packet's byte to the connection. The rule language of most kernels has no way to
// combine two marks, so it goes bit by bit; only packets that carry a verdict get here.
void addKeepRules(Transaction& transaction, const PacketTableContent& content) {
    const MarkPlace place = content.place;
    transaction.addRule(PacketRule(keepChain)
                            .withPacketMark(place.stateMask(), place.value(FlowState::ownTraffic))
                            .accept());
    transaction.addRule(
        PacketRule(keepChain).withoutPacketMark(place.mask(), 0).jumpTo(keepMarkChain));

    const auto denied = [&] {
        return std::move(PacketRule(keepChain)
                             .withConnectionMark(place.stateMask(), place.value(FlowState::denied))
                             .inDirectionOfOpening());
    };
    transaction.addRule(denied().ofProtocol(IPPROTO_TCP).withTcpFlags(TH_RST, 0).rejectWithReset());
    transaction.addRule(denied().ofProtocol(IPPROTO_UDP).rejectAsPortUnreachable());

    transaction.addRule(PacketRule(keepMarkChain).putConnectionMark(place.mask(), 0));
    for (unsigned bit = 0; bit < 8; ++bit) {
        const std::uint32_t value = 1u << (place.shift() + bit);
        transaction.addRule(
            PacketRule(keepMarkChain).withPacketMark(value, value).putConnectionMark(value, value));
    }
    transaction.addRule(PacketRule(keepMarkChain).putPacketMark(place.mask(), 0));
}

}  // namespace

Result<std::unique_ptr<PacketTable>> PacketTable::open(TableOwnership ownership) {
    auto socket = netlink::Socket::open(NETLINK_NETFILTER);
    if (!socket) return socket.error();
    return std::unique_ptr<PacketTable>(new PacketTable(std::move(*socket), ownership));
}

PacketTable::~PacketTable() {
    // A table that is gone already is no failure, and of any other one the process's end is near.
    static_cast<void>(remove());
}

Result<> PacketTable::remove() {
    ruleCount = 0;
    Transaction transaction;
    transaction.deleteTable();
    return transaction.commit(socket);
}

Result<> PacketTable::stopOffering() {
    Transaction transaction;
    transaction.flushChain(offerChain);
    return transaction.commit(socket);
}

Result<> PacketTable::install(const PacketTableContent& wanted) {
    content = wanted;
    if (workingForm) return installIn(*workingForm);
    const auto installed = installIn(QueueForm::native);
    const bool isUnknown = !installed && installed.error().code() == ENOENT;
    return isUnknown ? installIn(QueueForm::target) : installed;
}

Result<> PacketTable::installIn(QueueForm form) {
    const std::uint32_t flags =
        ownership == TableOwnership::exclusive ? std::uint32_t{NFT_TABLE_F_OWNER} : 0;
    Transaction transaction;
    // Adding a table that exists is no error, deleting one that does not is.
    transaction.addTable(flags);
    transaction.deleteTable();
    transaction.addTable(flags);
    addChains(transaction);
    transaction.addRule(currentGeneration(content.place, content.generation));
    addOfferRules(transaction, content, form);
    addOwnTrafficRules(transaction, content.place);
    addNewFlowRules(transaction, content, form);
    addRedirectRules(transaction, content);
    addKeepRules(transaction, content);
    const auto committed = transaction.commit(socket);
    if (committed) {
        workingForm = form;
        ruleCount = transaction.ruleCount();
    }
    return committed;
}

Result<> PacketTable::setGeneration(unsigned generation) {
    content.generation = generation;
    Transaction transaction;
    transaction.flushChain(generationChain);
    transaction.addRule(currentGeneration(content.place, generation));
    return transaction.commit(socket);
}

bool PacketTable::isComplete() {
    // A count that another change of the rules spoils is taken again.
    for (;;) {
        const auto found = countRules();
        if (found) return *found == ruleCount;
        if (found.error().code() != EINTR) return false;
    }
}

Result<std::size_t> PacketTable::countRules() {
    alignas(nlmsghdr) std::array<char, 256> buffer;
    const PacketRule every(offerChain);
    nlmsghdr* const header =
        nftnl_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETRULE, NFPROTO_INET, NLM_F_DUMP, 2);
    nftnl_rule* const table = const_cast<nftnl_rule*>(every.get());
    nftnl_rule_unset(table, NFTNL_RULE_CHAIN);
    nftnl_rule_nlmsg_build_payload(header, table);
    std::size_t found = 0;
    const auto counted = socket.request(*header, [&](const netlink::Message&) { ++found; });
    if (!counted) return counted.error();
    return found;
}

}  // namespace platform::interception
