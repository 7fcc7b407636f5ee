#include "Platform/Linux/Rules/PacketTable.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cerrno>
#include <climits>
#include <new>
#include <string_view>
#include <utility>

#include "Platform/Linux/ClosedLast.h"
#include "Platform/Linux/Rules/RuleCounters.h"

namespace platform::interception {

namespace {

// The chains. `offer` comes after connection tracking (-200) and before every redirect of others (-100);
// `answer` right after it, so that few rules of others can come between a verdict and its effect.
constexpr const char* offerChain = "offer";
constexpr const char* ownTrafficChain = "own_traffic";
constexpr const char* generationChain = "generation";
constexpr const char* openingsChain = "openings";
constexpr const char* datagramsChain = "datagrams";
constexpr const char* segmentsChain = "segments";
constexpr const char* answerChain = "answer";
constexpr const char* takeVerdictChain = "take_verdict";
constexpr const char* redirectChain = "redirect";
constexpr std::int32_t offerPriority = -150;
constexpr std::int32_t redirectPriority = -100;

// A sequence of changes that the kernel carries out together or not at all.
class Transaction {
public:
    Transaction() {
        nftnl_batch_begin(room(), sequence);
        advance();
    }

    void replaceTable(std::uint32_t flags) {
        // Adding a table that exists is no error, deleting one that does not is.
        addTable(flags);
        deleteTable();
        addTable(flags);
    }
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

    void addTable(std::uint32_t flags) { table(NFT_MSG_NEWTABLE, NLM_F_CREATE, flags); }

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
    for (const char* const chain : {ownTrafficChain, generationChain, openingsChain, datagramsChain,
                                    segmentsChain, takeVerdictChain})
        transaction.addChain(chain);
    transaction.addOutputChain(offerChain, "filter", offerPriority);
    transaction.addOutputChain(answerChain, "filter", offerPriority + 1);
    transaction.addOutputChain(redirectChain, "nat", redirectPriority);
}

PacketRule ruleOnState(const char* chain, MarkPlace place, FlowState state) {
    return std::move(PacketRule(chain).withConnectionMark(place.stateMask(), place.value(state)));
}

std::uint16_t queueOfOffers(const QueueNumbers& queues, FlowState state, PacketKind kind) {
    if (isClaimed(state)) return queues.newOverClaimed;
    return kind == PacketKind::tcpOpening ? queues.newOverOthers : queues.newFlows;
}

PacketRule& offerTo(PacketRule& rule, MarkPlace place, std::uint16_t queue, QueueForm form) {
    return rule.sentByProcess()
        .putConnectionMark(place.mask(), place.value(FlowState::passedUnseen))
        .queueTo(queue, form);
}

// Adds the rule that has one effect of the table on packets of one kind, in the chain for that kind. That
// denied connections are refused is the answer chain's.
void addEffect(Transaction& transaction, const PacketTableContent& content, QueueForm form,
               const char* chain, FlowState state, PacketKind kind) {
    const MarkPlace place = content.place;
    const Effect effect = effectOn(state, kind);
    PacketRule rule = ruleOnState(chain, place, state);
    switch (effect) {
        case Effect::pass:
            return;
        case Effect::refuse:
            if (kind != PacketKind::tcpOpening) return;
            rule.inDirectionOfOpening().rejectWithReset();
            break;
        case Effect::offerIfFirst:
            rule.ofNewConnection();
            [[fallthrough]];
        case Effect::offer:
            offerTo(rule, place, queueOfOffers(content.queues, state, kind), form);
            break;
        case Effect::offerAgain:
            // A socket that its process has closed sends what it holds, and then is no process's.
            if (kind == PacketKind::tcpPayload)
                rule.withPayload();
            else
                rule.sentByProcess();
            rule.queueTo(content.queues.offeredAgain, form);
            break;
        case Effect::show:
            rule.withPayload().queueTo(
                isClaimed(state) ? content.queues.watchedDataOfClaimed : content.queues.watchedData,
                form);
            break;
    }
    transaction.addRule(rule);
}

// The chain that every outbound packet meets. The commonest packet, one of a declined flow, leaves
// it after a few tests.
void addOfferRules(Transaction& transaction, const PacketTableContent& content) {
    const auto rule = [] { return PacketRule(offerChain); };
    const MarkPlace place = content.place;
    transaction.addRule(rule().leavingByLoopback().accept());
    transaction.addRule(
        rule().withPacketMark(place.mask(), place.ownValue()).goTo(ownTrafficChain));
    const bool offersTcp = content.offeredProtocols.contains(IPPROTO_TCP);
    if (offersTcp)
        transaction.addRule(rule()
                                .ofProtocol(IPPROTO_TCP)
                                .withTcpFlags(TH_FIN | TH_SYN | TH_RST | TH_ACK, TH_SYN)
                                .goTo(openingsChain));
    transaction.addRule(rule().jumpTo(generationChain));
    // Whatever comes after the opening passes, and it is most of what a direct connection sends.
    static_assert(effectOn(FlowState::claimed, PacketKind::tcpPayload) == Effect::pass &&
                  effectOn(FlowState::claimed, PacketKind::otherTcp) == Effect::pass &&
                  effectOn(FlowState::claimed, PacketKind::datagram) == Effect::pass);
    transaction.addRule(ruleOnState(offerChain, place, FlowState::claimed).accept());
    if (content.offeredProtocols.contains(IPPROTO_UDP))
        transaction.addRule(rule().ofProtocol(IPPROTO_UDP).goTo(datagramsChain));
    if (!offersTcp) return;
    transaction.addRule(rule().ofProtocol(IPPROTO_TCP).withTcpFlags(TH_RST, TH_RST).accept());
    transaction.addRule(rule().ofProtocol(IPPROTO_TCP).goTo(segmentsChain));
}

void addEffects(Transaction& transaction, const PacketTableContent& content, QueueForm form) {
    PacketRule first = ruleOnState(openingsChain, content.place, FlowState::unseen);
    transaction.addRule(
        offerTo(first.meetingNoEntry(), content.place, content.queues.newFlows, form));
    for (const FlowState state : allFlowStates) {
        const auto add = [&](const char* chain, PacketKind kind) {
            addEffect(transaction, content, form, chain, state, kind);
        };
        add(openingsChain, PacketKind::tcpOpening);
        add(datagramsChain, PacketKind::datagram);
        add(segmentsChain, PacketKind::tcpPayload);
        const Effect onOthers = effectOn(state, PacketKind::otherTcp);
        // Where the effect is the same, one rule does for both, but for what may be no process's any more.
        if (onOthers == Effect::offerAgain || onOthers != effectOn(state, PacketKind::tcpPayload))
            add(segmentsChain, PacketKind::otherTcp);
    }
    // The kernel opens further ways of a Multipath TCP connection from sockets that no process holds, so that no rule would
    // ever be asked about them. Without them the connection goes on as it began.
    PacketRule joining = ruleOnState(openingsChain, content.place, FlowState::unseen);
    transaction.addRule(joining.joiningMultipathConnection().drop());
}

// Our own packets pass; their connections are known by it from the first one on.
void addOwnTrafficRules(Transaction& transaction, MarkPlace place) {
    transaction.addRule(PacketRule(ownTrafficChain)
                            .ofProtocol(IPPROTO_TCP)
                            .withTcpFlags(TH_SYN | TH_ACK, TH_SYN)
                            .putConnectionMark(place.mask(), place.ownValue()));
    transaction.addRule(PacketRule(ownTrafficChain).accept());
}

void addRedirectRules(Transaction& transaction, const PacketTableContent& content) {
    const auto redirect = [&](std::uint8_t family, std::uint16_t port, FlowState state) {
        if (port == 0) return;
        // Those that the kernel carries have the number of an interface in their mark.
        transaction.addRule(
            PacketRule(redirectChain)
                .withConnectionMark(content.place.mask(), content.place.value(state))
                .ofNetworkProtocol(family)
                .ofProtocol(IPPROTO_TCP)
                .redirectTo(port));
    };
    for (const FlowState state : {FlowState::claimed, FlowState::claimedAndWatched}) {
        redirect(NFPROTO_IPV4, content.listeners.ipv4, state);
        redirect(NFPROTO_IPV6, content.listeners.ipv6, state);
    }
}

// Takes a verdict from the packet's priority to the connection's mark. The rule language of most kernels
// has no way to combine the two, so it goes bit by bit; only packets that carry a verdict get here.
void addTakeVerdictRules(Transaction& transaction, MarkPlace place) {
    const auto rule = [] { return PacketRule(takeVerdictChain); };
    transaction.addRule(rule().putConnectionMark(place.mask(), 0));
    for (unsigned bit = 0; bit < 8; ++bit) {
        const std::uint32_t carried = 1u << (VerdictPriority::shift + bit);
        const std::uint32_t value = 1u << (place.shift() + bit);
        transaction.addRule(rule().withPriority(carried, carried).putConnectionMark(value, value));
    }
    transaction.addRule(rule().putPriority(~VerdictPriority::packetsOwn, 0));
}

// What has come through `offer`, with a verdict or without.
void addAnswerRules(Transaction& transaction, MarkPlace place, VerdictCarrier carrier) {
    if (carrier == VerdictCarrier::priority) {
        addTakeVerdictRules(transaction, place);
        transaction.addRule(PacketRule(answerChain)
                                .withPriority(VerdictPriority::signMask, VerdictPriority::sign)
                                .jumpTo(takeVerdictChain));
    }
    transaction.addRule(ruleOnState(answerChain, place, FlowState::passedUnseen).count());
    const auto denied = [&] {
        return std::move(ruleOnState(answerChain, place, FlowState::denied).inDirectionOfOpening());
    };
    transaction.addRule(denied().ofProtocol(IPPROTO_TCP).withTcpFlags(TH_RST, 0).rejectWithReset());
    transaction.addRule(denied().ofProtocol(IPPROTO_UDP).rejectAsPortUnreachable());
}

// True if there is a table of ours. Whoever may not change rules is not told.
bool hasTable(netlink::Socket& socket) {
    alignas(nlmsghdr) std::array<char, 256> buffer;
    nlmsghdr* const header =
        nftnl_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETTABLE, NFPROTO_INET, NLM_F_ACK, 2);
    mnl_attr_put_strz(header, NFTA_TABLE_NAME, packetTableName);
    return static_cast<bool>(socket.request(*header, [](const netlink::Message&) {}));
}

// A table with an owner refuses every change of others.
Result<> commitTable(Transaction& transaction, netlink::Socket& socket) {
    auto committed = transaction.commit(socket);
    const bool isRefused = !committed && committed.error().code() == EPERM;
    if (isRefused && hasTable(socket))
        return Error(EBUSY, "take the packet table 'vantry', which another program owns");
    return committed;
}

}  // namespace

Result<std::unique_ptr<PacketTable>> PacketTable::open(TableOwnership ownership) {
    auto socket = netlink::Socket::open(NETLINK_NETFILTER);
    if (!socket) return socket.error();
    if (const int last = closedLast::takeNumber(); last >= 0) socket->moveTo(last);
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
    const auto stopped = transaction.commit(socket);
    // Without the table nothing is offered.
    return !stopped && stopped.error().code() == ENOENT ? Result<>() : stopped;
}

std::uint32_t PacketTable::tableFlags() const {
    return ownership == TableOwnership::exclusive ? std::uint32_t{NFT_TABLE_F_OWNER} : 0;
}

template <class Install>
Result<> PacketTable::inWorkingForm(Install install) {
    if (workingForm) return install(*workingForm);
    const auto installed = install(QueueForm::native);
    const bool isUnknown = !installed && installed.error().code() == ENOENT;
    return isUnknown ? install(QueueForm::target) : installed;
}

Result<> PacketTable::install(const PacketTableContent& wanted) {
    content = wanted;
    return inWorkingForm([this](QueueForm form) { return installIn(form); });
}

Result<> PacketTable::installIn(QueueForm form) {
    Transaction transaction;
    transaction.replaceTable(tableFlags());
    addChains(transaction);
    transaction.addRule(currentGeneration(content.place, content.generation));
    addOfferRules(transaction, content);
    addEffects(transaction, content, form);
    addOwnTrafficRules(transaction, content.place);
    addRedirectRules(transaction, content);
    addAnswerRules(transaction, content.place, content.carrier);
    auto committed = commitTable(transaction, socket);
    if (committed) {
        workingForm = form;
        ruleCount = transaction.ruleCount();
    }
    return committed;
}

Result<> PacketTable::installProbe(MarkPlace place, std::uint16_t queueNumber,
                                   VerdictCarrier carrier) {
    return inWorkingForm(
        [&](QueueForm form) { return installProbeIn(form, place, queueNumber, carrier); });
}

Result<> PacketTable::installProbeIn(QueueForm form, MarkPlace place, std::uint16_t queueNumber,
                                     VerdictCarrier carrier) {
    Transaction transaction;
    transaction.replaceTable(tableFlags());
    addChains(transaction);
    transaction.addRule(PacketRule(offerChain)
                            .leavingByLoopback()
                            .withPacketMark(place.mask(), place.ownValue())
                            .ofProtocol(IPPROTO_UDP)
                            .queueTo(queueNumber, form));
    addAnswerRules(transaction, place, carrier);
    auto committed = commitTable(transaction, socket);
    if (committed) workingForm = form;
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
        std::size_t found = 0;
        const auto counted =
            visitRules(packetTableName, socket, [&](const netlink::Message&) { ++found; });
        if (counted) return found == ruleCount;
        if (counted.error().code() != EINTR) return false;
    }
}

std::optional<std::uint64_t> PacketTable::passedUnseen() {
    // The table has one counter.
    return packetsCounted(packetTableName, socket);
}

}  // namespace platform::interception
