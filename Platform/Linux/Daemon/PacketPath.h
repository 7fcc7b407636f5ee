// All that the interception has in the kernel, from the place of its byte in the marks to the rules that hold
// packets and the threads that give verdicts. Nothing is in force before flows are offered for the first time, and
// nothing is left at the end. One thread at a time, but for what is marked.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>

#include "Platform/Linux/Decisions/FlowDecisions.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/Packets/PacketQueue.h"
#include "Platform/Linux/Packets/PacketWorkers.h"
#include "Platform/Linux/Result.h"
#include "Platform/Linux/Rules/ConnectionEntries.h"
#include "Platform/Linux/Rules/DirectRoutes.h"
#include "Platform/Linux/Rules/MarkPlaces.h"
#include "Platform/Linux/Rules/PacketTable.h"
#include "Platform/Linux/Rules/RuleEvents.h"
#include "Platform/Linux/Rules/TunnelGuard.h"
#include "Platform/Linux/Steering/Steering.h"

namespace platform::interception {

// How direct connections are carried.
enum class Carriage {
    kernel,  // by the kernel where it can, else by the relay
    relay,
};

class PacketPath {
public:
    PacketPath(FlowDecisions& toAsk, Carriage wantedCarriage, TableOwnership tableOwnership,
               PacketWorkers::Limits workLimits);
    // Passes all held packets.
    ~PacketPath();
    PacketPath(const PacketPath&) = delete;
    PacketPath& operator=(const PacketPath&) = delete;

    // Offers the new flows of these protocols, none of them perhaps. What was in force stays so if that
    // fails; it can be tried again.
    Result<> offer(const std::set<std::uint8_t>& protocols, unsigned generation);
    // Offers the declined flows of all generations before this one again, those that were declined since the
    // generation `flush` to the filter alone.
    Result<> offerAgain(unsigned generation, unsigned flush);

    bool isInstalled() const { return isInForce; }

    // These become readable when somebody changes packet rules, or routes, and want the other two then.
    int ruleEvents() const { return events ? events->descriptor() : -1; }
    int routeEvents() const { return directRoutes ? directRoutes->eventDescriptor() : -1; }
    void rulesHaveChanged();
    void routesHaveChanged() const { directRoutes->putBackWhatIsMissing(); }

    // To be called every few seconds.
    void keepHouse();

    // False if verdicts are held up. Any thread.
    bool areVerdictsMoving() const;

private:
    Result<> begin();
    Result<> choosePlace();
    MarkBits readMarkBits();
    Result<> openParts();
    Result<> chooseCarrier();
    Result<> wipeMarks();
    Result<> installAs(unsigned generation);
    void startSteering();
    void endSteering();
    void startWorkers();
    void putInPlace(MarkPlace newPlace);
    void followMarksOfOthers();
    Result<> moveTo(MarkPlace newPlace);
    void putBack();
    void reportExcess(const PacketWorkers::Excess& excess);
    void countPassed();

    FlowDecisions& decisions;
    const Carriage wanted;
    const TableOwnership ownership;
    const PacketWorkers::Limits limits;
    std::optional<MarkPlace> place;
    std::optional<DirectRoutes> directRoutes;
    std::optional<TunnelGuard> tunnelGuard;
    std::optional<RuleEvents> events;
    std::unique_ptr<ConnectionEntries> entries;
    std::shared_ptr<steering::Steering> steering;
    std::unique_ptr<PacketTable> table;
    std::unique_ptr<PacketQueue> queue;
    std::unique_ptr<PacketWorkers> workers;
    std::atomic<const PacketWorkers*> startedWorkers = nullptr;
    PacketTableContent content;
    bool isInForce = false;
    bool haveOthersChanged = false;
    std::uint64_t passedBefore = 0;  // what the table's counter said last

    health::State carrier{health::Place::verdicts, "verdictPlace", "Verdicts are given", "not yet"};
    health::State carriage{health::Place::steering, "directCarriage",
                           "Direct connections are carried", "not yet"};
    health::Problem clash{health::Place::verdicts, "markClash",
                          "Others use the same bits of marks"};
    health::Problem overwriting{health::Place::verdicts, "overwrittenMarks",
                                "Others overwrite connections' marks"};
    health::Problem untracked{health::Place::verdicts, "untracked",
                              "Others leave flows untracked, which no rule reaches"};
    health::Problem legacy{health::Place::verdicts, "legacyRules",
                           "Tables of iptables-legacy, which cannot be read"};
    health::Problem unreadRules{health::Place::verdicts, "rulesOfOthers",
                                "Others' packet rules cannot be read"};
    health::Problem heldUp{health::Place::packets, "heldUp", "Verdicts are held up"};
    health::Counter passed{health::Place::packets, "passedUnseen",
                           "Packets passed without a verdict"};
    health::Counter overdue{health::Place::packets, "overdue", "Packets that waited too long"};
    health::Counter overShare{health::Place::packets, "overShare",
                              "Packets dropped in floods from one account"};
    std::atomic<bool> hadExcess = false;
};

}  // namespace platform::interception
