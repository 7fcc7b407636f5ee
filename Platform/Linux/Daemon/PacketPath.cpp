#include "Platform/Linux/Daemon/PacketPath.h"

#include <cerrno>
#include <string>
#include <utility>

#include "Platform/Linux/OwnTraffic.h"
#include "Platform/Linux/Packets/VerdictProbe.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/Rules/MarkPlaces.h"

namespace platform::interception {

namespace {

// Says when rules of others begin to be in the daemon's way, and when they no longer are.
void sayOf(health::Problem& problem, const std::string& tables, const char* whatTheyDo,
           const char* whatFollows) {
    if (tables.empty()) {
        if (problem.end()) platformLog.info("Rules of others no longer %{public}s", whatTheyDo);
    } else if (problem.begin("in the tables " + tables)) {
        platformLog.error("Rules of others %{public}s (tables: %{public}s). %{public}s", whatTheyDo,
                          tables, whatFollows);
    }
}

template <class Part>
Result<> openPart(Part& part, auto opened) {
    if (!opened) return opened.error();
    part = std::move(*opened);
    return {};
}

}  // namespace

PacketPath::PacketPath(FlowDecisions& toAsk, Carriage wantedCarriage, TableOwnership tableOwnership,
                       PacketWorkers::Limits workLimits)
    : decisions(toAsk),
      wanted(wantedCarriage),
      ownership(tableOwnership),
      limits(std::move(workLimits)) {}

PacketPath::~PacketPath() {
    // First nothing new comes, then what is held goes, then the rules that it needs on its way.
    if (isInForce) static_cast<void>(table->stopOffering());
    startedWorkers = nullptr;
    workers.reset();
    // Ends what is left of direct connections, while marks and rules still carry their last packets.
    endSteering();
    if (table) static_cast<void>(table->remove());
    if (isInForce) static_cast<void>(wipeMarks());
}

Result<> PacketPath::offer(const std::set<std::uint8_t>& protocols, unsigned generation) {
    if (isInForce && protocols == content.offeredProtocols) return {};
    if (!isInForce && protocols.empty()) return {};
    if (!isInForce) {
        if (auto begun = begin(); !begun) return begun;
    }
    PacketTableContent next = content;
    next.offeredProtocols = protocols;
    next.generation = markedGeneration(generation, generation);
    countPassed();
    auto changed = protocols.empty() ? table->stopOffering() : table->install(next);
    if (!changed) return changed;
    passedBefore = 0;
    content = next;
    isInForce = true;
    return {};
}

Result<> PacketPath::begin() {
    Result<> done = choosePlace();
    if (done) done = openParts();
    if (done) done = chooseCarrier();
    // Some marks that an earlier process left are of connections that are to end.
    if (done && !steering) startSteering();
    // An earlier process may have left its verdicts behind.
    if (done) done = wipeMarks();
    if (!done) return done;
    if (!workers) startWorkers();
    content.place = *place;
    content.queues = queue->numbers();
    content.listeners = decisions.listenerPorts();
    return {};
}

Result<> PacketPath::choosePlace() {
    const auto found = freeMarkPlace(readMarkBits().used);
    if (!found)
        return Error(
            EADDRINUSE,
            "find a byte of the packet marks that no packet rule or routing rule of others "
            "uses (see nft list ruleset and ip rule)");
    if (found != place) putInPlace(*found);
    return {};
}

// What cannot be read does not keep the daemon from its work: few rules use marks, and the place that is tried
// first is seldom theirs.
MarkBits PacketPath::readMarkBits() {
    auto bits = markBitsInUse();
    if (!bits.unread) {
        unreadRules.end();
        sayOf(overwriting, bits.overwritingTables, "write the whole mark of connections",
              "For those that pass them, blocks and the VPN's fallback reach only new ones, and "
              "direct ones may hang: have these rules keep the other bits, as in ct mark set ct "
              "mark & 0xffffff00 | 0x1");
        sayOf(untracked, bits.untrackingTables, "leave flows untracked",
              "No rule, no block and no fallback reaches those: take the notrack rules away");
    } else if (unreadRules.begin(bits.unread->text())) {
        platformLog.error(
            "Marks of connections may get into the way of others' packet rules: %{public}s",
            bits.unread->text());
    }
    return bits;
}

void PacketPath::putInPlace(MarkPlace newPlace) {
    place = newPlace;
    decisions.setPlace(newPlace);
    // What it steers bears marks in the place before.
    endSteering();
    OwnTraffic::setMark(newPlace.ownValue());
    directRoutes.emplace(newPlace);
    tunnelGuard.emplace(newPlace);
}

// Workers that decide just now, and the sessions of the core, may hold it longer than this.
void PacketPath::endSteering() {
    decisions.steerBy(nullptr);
    if (steering) steering->end();
    steering.reset();
}

Result<> PacketPath::openParts() {
    Result<> done;
    if (!events) done = openPart(events, RuleEvents::open());
    if (done && !entries) done = openPart(entries, ConnectionEntries::open());
    if (done && !table) done = openPart(table, PacketTable::open(ownership));
    if (done && !queue) done = openPart(queue, PacketQueue::open());
    return done;
}

Result<> PacketPath::chooseCarrier() {
    if (workers) return {};
    const auto found = probeVerdicts(*table, *queue, *entries, *place);
    if (!found) return found.error();
    content.carrier = *found;
    const bool isDirect = *found == VerdictCarrier::connection;
    const bool isNews = carrier.set(
        isDirect ? "on the connection" : "on the packet's priority, from there on the connection");
    if (isNews && !isDirect)
        platformLog.info(
            "This kernel takes no verdict to a connection by itself (NETFILTER_NETLINK_GLUE_CT is "
            "not built in): the packet's priority carries it to a rule that does");
    return {};
}

Result<> PacketPath::wipeMarks() {
    const std::uint32_t mask = place->mask();
    return entries->changeMarks(mask, [mask](std::uint32_t mark) {
        return (mark & mask) != 0 ? std::optional(0u) : std::nullopt;
    });
}

void PacketPath::startSteering() {
    if (wanted == Carriage::relay) {
        carriage.set("by the relay, as the preferences say");
        return;
    }
    auto started = steering::Steering::start(*place);
    if (started) {
        steering = std::move(*started);
        decisions.steerBy(steering);
        if (carriage.set("by the kernel"))
            platformLog.info("Direct connections are carried by the kernel");
    } else if (carriage.set("by the relay: " + started.error().text())) {
        platformLog.error(
            "Direct connections are relayed, and VPNs and firewalls may be in their way: "
            "%{public}s",
            started.error().text());
    }
}

void PacketPath::startWorkers() {
    workers = std::make_unique<PacketWorkers>(
        *queue, [this](const HeldPacket& packet) { return decisions.verdictOn(packet); },
        [this](const FlowTuple& flow, const PacketVerdict& verdict) {
            decisions.verdictWasGiven(flow, verdict);
        },
        [this](const PacketWorkers::Excess& excess) { reportExcess(excess); }, limits);
    startedWorkers = workers.get();
}

Result<> PacketPath::offerAgain(unsigned generation, unsigned flush) {
    const unsigned marked = markedGeneration(generation, generation);
    const std::uint32_t mask = place->mask();
    const auto declinedIn = [at = *place](unsigned number) {
        return at.value(FlowState::declined, number);
    };
    // The last flows to bear the number are so many generations old.
    const bool isReusedAfterFlush = generation - flush >= countedGenerations;
    const unsigned becomesOfReused = isReusedAfterFlush ? staleForFilter : staleGeneration;
    auto changed = entries->changeMarks(mask, [=](std::uint32_t mark) {
        const bool isOvertaken = generation == flush && (mark & mask) == declinedIn(staleForFilter);
        if (isOvertaken) return std::optional(declinedIn(staleGeneration));
        const bool isReused = (mark & mask) == declinedIn(marked);
        return isReused ? std::optional(declinedIn(becomesOfReused)) : std::nullopt;
    });
    if (!changed) return changed;
    const auto set = table->setGeneration(marked);
    if (set) content.generation = marked;
    return set ? set : installAs(marked);
}

// The table may have gone.
Result<> PacketPath::installAs(unsigned generation) {
    PacketTableContent next = content;
    next.generation = generation;
    auto installed = table->install(next);
    if (!installed) return installed;
    passedBefore = 0;
    content = next;
    return {};
}

void PacketPath::rulesHaveChanged() {
    const auto news = events->take();
    haveOthersChanged |= news.areOthersChanged;
    if (news.areAny()) putBack();
}

void PacketPath::putBack() {
    if (!isInForce || content.offeredProtocols.empty() || table->isComplete()) return;
    const auto installed = table->install(content);
    if (installed) {
        passedBefore = 0;
        platformLog.error("The interception's rules had been removed and were put back");
        heldUp.end();
    } else if (heldUp.begin("the rules were removed: " + installed.error().text())) {
        platformLog.error(
            "The interception's rules were removed and cannot be put back: %{public}s",
            installed.error().text());
    }
}

void PacketPath::keepHouse() {
    putBack();
    if (std::exchange(haveOthersChanged, false)) followMarksOfOthers();
    // No event tells of these.
    if (const auto tables = legacyTablesInUse({"raw", "mangle"}))
        sayOf(legacy, *tables, "may stand in tables of iptables-legacy",
              "What they do to marks and tracking cannot be read. After update-alternatives --set "
              "iptables /usr/sbin/iptables-nft and a restart of the machine it can");
    countPassed();
    if (!hadExcess.exchange(false) && areVerdictsMoving() && heldUp.end())
        platformLog.info("Verdicts are given in time again");
}

void PacketPath::followMarksOfOthers() {
    if (!place) return;
    const auto bits = readMarkBits();
    if ((bits.used & place->mask()) == 0) {
        if (!bits.unread && clash.end())
            platformLog.info("The bits of marks that are in use here are free again");
        return;
    }
    const auto found = freeMarkPlace(bits.used);
    const auto moved = found ? moveTo(*found) : Error(EADDRINUSE, "find a free byte");
    if (moved) {
        clash.end();
        platformLog.info(
            "Rules of others use the bits of marks that were in use here: eight others are, from "
            "%ld on",
            place->shift());
    } else if (clash.begin(moved.error().text())) {
        platformLog.error("Rules of others use the bits of marks that are in use here: %{public}s",
                          moved.error().text());
    }
}

// What connections bear is copied, then the rules change over, then what came between is copied too and
// the old place wiped.
Result<> PacketPath::moveTo(MarkPlace newPlace) {
    const MarkPlace oldPlace = *place;
    const std::uint32_t both = oldPlace.mask() | newPlace.mask();
    const auto copy = [&](bool keepsOld) {
        return entries->changeMarks(both, [=](std::uint32_t mark) -> std::optional<std::uint32_t> {
            const std::uint32_t byte = mark >> oldPlace.shift() & 0xffu;
            if (byte == 0) return std::nullopt;
            return byte << newPlace.shift() | (keepsOld ? byte << oldPlace.shift() : 0);
        });
    };
    const bool overlap = (oldPlace.mask() & newPlace.mask()) != 0;
    if (!overlap) {
        if (auto copied = copy(true); !copied) return copied;
    }
    PacketTableContent next = content;
    next.place = newPlace;
    countPassed();
    if (isInForce && !content.offeredProtocols.empty()) {
        if (auto installed = table->install(next); !installed) return installed;
        passedBefore = 0;
    }
    content = next;
    queue->carryVerdictsBy(content.carrier, newPlace);
    putInPlace(newPlace);
    startSteering();
    return copy(false);
}

// Called by the workers, under their lock.
void PacketPath::reportExcess(const PacketWorkers::Excess& excess) {
    overdue.add(excess.overdue);
    overShare.add(excess.overShare);
    hadExcess = true;
    const std::string words = excess.overdue != 0
                                  ? "packets wait too long and are passed"
                                  : "one account floods, and its packets are dropped";
    if (!heldUp.begin(words)) return;
    if (excess.overdue != 0)
        platformLog.error(
            "Verdicts are held up: %ld packets had waited too long for a verdict and were passed",
            excess.overdue);
    else
        platformLog.error(
            "Verdicts are held up: more packets of one account wait than it may have waiting, and "
            "%ld were dropped",
            excess.overShare);
}

void PacketPath::countPassed() {
    if (!isInForce) return;
    const auto now = table->passedUnseen();
    if (!now || *now < passedBefore) return;
    passed.add(*now - passedBefore);
    passedBefore = *now;
}

bool PacketPath::areVerdictsMoving() const {
    const auto* const started = startedWorkers.load();
    return !started || started->areVerdictsMoving();
}

}  // namespace platform::interception
