#include "Platform/Linux/Interception/Interception.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "Platform/Linux/Interception/MarkPlaces.h"
#include "Platform/Linux/Interception/NetworkRules.h"
#include "Platform/Linux/Interception/VerdictProbe.h"
#include "Platform/Linux/OwnTraffic.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/SystemError.h"

namespace platform::interception {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds betweenHousekeepings{5};

std::set<std::uint8_t> protocolsOf(const Offers& offers) {
    if (offers.filterAction) return {IPPROTO_TCP, IPPROTO_UDP};
    std::set<std::uint8_t> protocols;
    for (const NENetworkRule& rule : offers.proxyRules) {
        if (rule.protocol != NENetworkRule::Protocol::UDP) protocols.insert(IPPROTO_TCP);
        if (rule.protocol != NENetworkRule::Protocol::TCP) protocols.insert(IPPROTO_UDP);
    }
    return protocols;
}

int millisecondsUntil(Clock::time_point instant) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(instant - Clock::now());
    return std::max(0, static_cast<int>(left.count()));
}

}  // namespace

Interception::Interception(Providers providers, Choices choices)
    : place(freeMarkPlace(markBitsInUse())),
      directRoutes(place),
      tunnelGuard(place),
      decisions(std::move(providers)),
      chosen(choices),
      wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      nextHousekeeping(Clock::now() + betweenHousekeepings) {
    OwnTraffic::setMark(place.ownValue());
    settingsThread = std::thread([this] { serveSettings(); });
}

Interception::~Interception() {
    {
        const MutexGuard guard(lock);
        isStopping = true;
    }
    eventfd_write(wakeUp.get(), 1);
    settingsThread.join();
    for (Setting& setting : takeSettings())
        if (setting.completion) setting.completion(systemError(ECANCELED));
    // First nothing new comes, then what is held goes, then the rules that it needs on its way.
    if (isInstalled) static_cast<void>(table->stopOffering());
    workers.reset();
    if (table) static_cast<void>(table->remove());
    if (entries && isInstalled)
        static_cast<void>(entries->changeMarks(place.mask(), [&](std::uint32_t mark) {
            return (mark & place.mask()) != 0 ? std::optional(0u) : std::nullopt;
        }));
}

void Interception::setProxyRules(std::vector<NENetworkRule> rules, ErrorCompletion completion) {
    apply([rules = std::move(rules)](Offers& offers) { offers.proxyRules = rules; },
          std::move(completion));
}

void Interception::setFilterAction(std::optional<NEFilterAction> action,
                                   ErrorCompletion completion) {
    apply([action](Offers& offers) { offers.filterAction = action; }, std::move(completion));
}

void Interception::apply(Change change, ErrorCompletion completion) {
    {
        const MutexGuard guard(lock);
        waiting.push_back({std::move(change), std::move(completion)});
    }
    eventfd_write(wakeUp.get(), 1);
}

void Interception::serveSettings() {
    while (waitForWork()) {
        for (Setting& setting : takeSettings()) {
            const auto done = carryOut(setting.change);
            if (!setting.completion) continue;
            setting.completion(done ? std::nullopt : std::optional(systemError(done.error())));
        }
    }
}

// False when the end has come.
bool Interception::waitForWork() {
    std::array<pollfd, 3> polled{{{wakeUp.get(), POLLIN, 0},
                                  {ruleEvents ? ruleEvents->descriptor() : -1, POLLIN, 0},
                                  {directRoutes.eventDescriptor(), POLLIN, 0}}};
    poll(polled.data(), polled.size(), millisecondsUntil(nextHousekeeping));
    eventfd_t ignored = 0;
    eventfd_read(wakeUp.get(), &ignored);
    if (polled[1].revents != 0) watchRules();
    if (polled[2].revents != 0) directRoutes.putBackWhatIsMissing();
    // Due whatever else happens: addresses are kept for a limited time.
    if (Clock::now() >= nextHousekeeping) {
        nextHousekeeping = Clock::now() + betweenHousekeepings;
        decisions.keepHouse();
    }
    const MutexGuard guard(lock);
    return !isStopping;
}

std::vector<Interception::Setting> Interception::takeSettings() {
    const MutexGuard guard(lock);
    return std::exchange(waiting, {});
}

Result<> Interception::carryOut(const Change& change) {
    const auto before = decisions.offers();
    Offers wanted = *before;
    change(wanted);
    const bool needsFlush = isInstalled && !wanted.proxyRules.empty() &&
                            !keepsAllRules(before->proxyRules, wanted.proxyRules);
    if (const auto put = putInForce(*before, wanted); !put) return put;
    decisions.setOffers(wanted);
    if (!needsFlush) return {};
    // From here on verdicts carry the new generation, and those that were asked for before don't.
    const auto flushed = flushDeclined(wanted);
    decisions.setOffers(wanted);
    return flushed;
}

Result<> Interception::putInForce(const Offers& before, const Offers& wanted) {
    const auto protocols = protocolsOf(wanted);
    if (isInstalled && protocols == protocolsOf(before)) return {};
    if (!isInstalled) {
        if (protocols.empty()) return {};
        if (const auto begun = begin(); !begun) return begun;
    }
    content.offeredProtocols = protocols;
    content.generation = markedGeneration(before.generation, before.generation);
    const auto changed = protocols.empty() ? table->stopOffering() : table->install(content);
    if (changed) isInstalled = true;
    return changed;
}

Result<> Interception::begin() {
    if (const auto opened = openKernelParts(); !opened) return opened;
    if (const auto carried = chooseCarrier(); !carried) return carried;
    if (!workers) {
        workers = std::make_unique<PacketWorkers>(
            *queue, [this](const HeldPacket& packet) { return decisions.verdictOn(packet); },
            [](std::size_t count) {
                platformLog.error("%ld packets had waited too long for a verdict and were passed",
                                  count);
            },
            chosen.limits);
    }
    if (!ruleEvents) {
        constexpr std::array<unsigned, 1> groups{NFNLGRP_NFTABLES};
        auto opened = netlink::Socket::open(NETLINK_NETFILTER, groups);
        if (!opened) return opened.error();
        ruleEvents = std::move(*opened);
    }
    content.place = place;
    content.queues = queue->numbers();
    content.listeners = decisions.listenerPorts();
    // An earlier process may have left its verdicts behind.
    return entries->changeMarks(place.mask(), [this](std::uint32_t mark) {
        return (mark & place.mask()) != 0 ? std::optional(0u) : std::nullopt;
    });
}

Result<> Interception::openKernelParts() {
    const auto open = [](auto& part, auto opened) -> Result<> {
        if (!opened) return opened.error();
        part = std::move(*opened);
        return {};
    };
    Result<> done;
    if (!entries) done = open(entries, ConnectionEntries::open());
    if (done && !table) done = open(table, PacketTable::open(chosen.ownership));
    if (done && !queue) done = open(queue, PacketQueue::open());
    return done;
}

Result<> Interception::chooseCarrier() {
    if (workers) return {};
    const auto carrier = probeVerdicts(*table, *queue, *entries, place);
    if (!carrier) return carrier.error();
    content.carrier = *carrier;
    const bool isDirect = *carrier == VerdictCarrier::connection;
    verdictPlace.set(isDirect ? "on the connection"
                              : "on the packet's priority, then the connection");
    if (!isDirect)
        platformLog.info(
            "This kernel takes no verdict to a connection by itself (NETFILTER_NETLINK_GLUE_CT is "
            "not "
            "built in): the packet's priority carries it to a rule that does");
    return {};
}

Result<> Interception::flushDeclined(Offers& wanted) {
    ++wanted.generation;
    content.generation = markedGeneration(wanted.generation, wanted.generation);
    const std::uint32_t reused = place.value(FlowState::declined, content.generation);
    const std::uint32_t stale = place.value(FlowState::declined, staleGeneration);
    static_cast<void>(entries->changeMarks(place.mask(), [&](std::uint32_t mark) {
        return (mark & place.mask()) == reused ? std::optional(stale) : std::nullopt;
    }));
    return table->setGeneration(content.generation);
}

// Somebody changed the packet rules of the machine, perhaps ours.
void Interception::watchRules() {
    ruleEvents->discard();
    if (!isInstalled || content.offeredProtocols.empty() || table->isComplete()) return;
    const auto installed = table->install(content);
    if (installed)
        platformLog.error("The interception's rules had been removed and were put back");
    else
        platformLog.error(
            "The interception's rules were removed and cannot be put back: %{public}s",
            installed.error().text());
}

}  // namespace platform::interception
