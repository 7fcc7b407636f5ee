// Stands between the machine's outbound flows and the two providers. It is made before the
// providers start, puts nothing in force until their settings ask for flows, and takes everything
// away when it goes. Settings are carried out one after the other on a thread of its own, which
// also puts rules and routes back when somebody removes them. Any thread may call.
//
// A setting that cannot be carried out is kept, with those after it, and tried again; what has been put
// in force meanwhile stays. Only before the first one is in force some errors are for good: they are what
// `failure` gives, and the setting completes with them.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Daemon/PacketPath.h"
#include "Platform/Linux/Decisions/FlowDecisions.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/Result.h"

namespace platform::interception {

class Interception {
public:
    using ErrorCompletion = Completion<std::optional<NSError>>;

    struct Choices {
        TableOwnership ownership = TableOwnership::exclusive;
        PacketWorkers::Limits limits{};
        Carriage carriage = Carriage::relay;
    };

    explicit Interception(Providers providers) : Interception(std::move(providers), Choices()) {}
    Interception(Providers providers, Choices choices);
    // Passes all held packets. Settings that still wait complete with an error.
    ~Interception();
    Interception(const Interception&) = delete;
    Interception& operator=(const Interception&) = delete;

    // Which flows are offered to the proxy from now on; none ends its part. When a rule leaves the
    // list, declined flows are offered once more. The completion runs on a thread of ours.
    void setProxyRules(std::vector<NENetworkRule> rules, ErrorCompletion completion);
    // What the filter is asked about; none ends its part.
    void setFilterAction(std::optional<NEFilterAction> action, ErrorCompletion completion);

    // Whether the datagrams of direct applications go their way too, where the kernel carries connections.
    void setDirectDatagrams(bool areDirect);
    bool areDatagramsDirect() const { return decisions.areDatagramsDirect(); }

    // Nothing is offered from now on: settings that wait, and any that come, complete with an error.
    void endOffers(ErrorCompletion completion);

    // True once all that was asked for is in force, and something was.
    bool isInForce() const;
    // Why that will never be.
    std::optional<Error> failure() const;
    // False if verdicts are held up.
    bool areVerdictsMoving() const { return path.areVerdictsMoving(); }

    // What is asked about between the two calls is asked again later. After the second one the filter is asked
    // about each declined flow once more.
    void setRulesChanging(bool areChanging);

    // Whose socket it is. For questions, not on a packet's way.
    std::optional<FlowOwner> ownerOf(const FlowTuple& flow) { return decisions.ownerOf(flow); }

    // Waits until the applications of all claimed flows have been told of their end, or for so long:
    // without our rules nothing more would reach them.
    void awaitEndsOfClaimed(std::chrono::milliseconds longest) {
        decisions.awaitEndsOfClaimed(longest);
    }

private:
    using Clock = std::chrono::steady_clock;
    using Change = std::function<void(Offers&)>;
    struct Setting {
        Change change;  // none: it is refused
        ErrorCompletion completion;
    };

    void apply(Change change, ErrorCompletion completion);
    void serveSettings();
    bool waitForWork();
    bool isTryDue() const;
    void carryOutSettings();
    std::optional<Change> firstChange();
    void finishFirst(const Result<>& outcome);
    Result<> carryOut(const Change& change);
    Result<> offerAgain(Offers offers);
    bool canBeRetried(const Error& error) const;
    void postpone(const Error& error);
    void sayItIsOver();

    FlowDecisions decisions;
    PacketPath path;

    mutable Mutex lock;
    std::deque<Setting> waiting GUARDED_BY(lock);
    std::optional<Error> fatal GUARDED_BY(lock);
    bool isAllInForce GUARDED_BY(lock) = false;
    bool isEnding GUARDED_BY(lock) = false;
    bool isStopping GUARDED_BY(lock) = false;
    FileDescriptor wakeUp;
    // Rules have changed: what is steered of datagrams is to be offered again.
    std::atomic<bool> areDatagramsDue = false;
    // A setting waits that has the filter asked again.
    std::atomic<bool> isFilterDue = false;

    // For the thread alone.
    bool needsFlush = false;
    bool needsFilter = false;
    bool wereDatagramsDirect = false;  // when the flush became needed, or later
    unsigned triesInVain = 0;
    Clock::time_point nextTry;
    Clock::time_point nextHousekeeping;
    Clock::time_point nextReturnOfMemory;
    health::Problem notInForce{health::Place::packets, "notInForce", "Settings are not in force"};
    std::thread settingsThread;
};

}  // namespace platform::interception
