// Stands between the machine's outbound flows and the two providers. It is made before the
// providers start, puts nothing in force until their settings ask for flows, and takes everything
// away when it goes. Settings are carried out one after the other on a thread of its own, which
// also puts rules and routes back when somebody removes them. Any thread may call.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/Interception/ConnectionEntries.h"
#include "Platform/Linux/Interception/DirectRoutes.h"
#include "Platform/Linux/Interception/FlowDecisions.h"
#include "Platform/Linux/Interception/PacketQueue.h"
#include "Platform/Linux/Interception/PacketTable.h"
#include "Platform/Linux/Interception/PacketWorkers.h"
#include "Platform/Linux/Interception/TunnelGuard.h"

namespace platform::interception {

class Interception {
public:
    using ErrorCompletion = Completion<std::optional<NSError>>;

    struct Choices {
        TableOwnership ownership = TableOwnership::exclusive;
        PacketWorkers::Limits limits;
    };

    explicit Interception(Providers providers) : Interception(std::move(providers), Choices()) {}
    Interception(Providers providers, Choices choices);
    // Lets all held packets go. Settings that still wait complete with an error.
    ~Interception();
    Interception(const Interception&) = delete;
    Interception& operator=(const Interception&) = delete;

    // Which flows are offered to the proxy from now on; none ends its part. When a rule leaves the
    // list, declined flows are offered once more. The completion runs on a thread of ours.
    void setProxyRules(std::vector<NENetworkRule> rules, ErrorCompletion completion);
    // What the filter is asked about; nothing ends its part.
    void setFilterAction(std::optional<NEFilterAction> action, ErrorCompletion completion);

    // What is asked about between the two calls is asked again later.
    void setRulesChanging(bool areChanging) { decisions.setRulesChanging(areChanging); }

    // Waits until the applications of all claimed flows have been told of their end, or for so long:
    // without our rules nothing more would reach them.
    void awaitEndsOfClaimed(std::chrono::milliseconds longest) {
        decisions.awaitEndsOfClaimed(longest);
    }

private:
    using Change = std::function<void(Offers&)>;
    struct Setting {
        Change change;
        ErrorCompletion completion;
    };

    void apply(Change change, ErrorCompletion completion);
    void serveSettings();
    bool waitForWork();
    std::vector<Setting> takeSettings();
    Result<> carryOut(const Change& change);
    Result<> begin();
    Result<> openKernelParts();
    Result<> chooseCarrier();
    Result<> putInForce(const Offers& before, const Offers& wanted);
    Result<> flushDeclined(Offers& wanted);
    void watchRules();

    const MarkPlace place;
    const DirectRoutes directRoutes;
    const TunnelGuard tunnelGuard;
    FlowDecisions decisions;
    std::unique_ptr<PacketTable> table;
    std::unique_ptr<PacketQueue> queue;
    std::unique_ptr<PacketWorkers> workers;
    std::unique_ptr<ConnectionEntries> entries;
    std::optional<netlink::Socket> ruleEvents;
    const Choices chosen;
    PacketTableContent content;
    bool isInstalled = false;
    health::State verdictPlace{health::Place::verdicts, "verdictPlace", "Verdicts are given",
                               "not yet"};

    Mutex lock;
    std::vector<Setting> waiting GUARDED_BY(lock);
    bool isStopping GUARDED_BY(lock) = false;
    FileDescriptor wakeUp;
    // For the thread alone.
    std::chrono::steady_clock::time_point nextHousekeeping;
    std::thread settingsThread;
};

}  // namespace platform::interception
