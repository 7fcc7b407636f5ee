// Flows of the simulated machine's applications. A `Flow` is the application's end of one: a test
// makes it, offers it to the providers, has the application send and read, and asks what became of
// it. Copies stand for the same flow. Any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/NEFilterFlow.h"
#include "Platform/NENetworkSettings.h"
#include "Platform/Simulated/ApplicationSocket.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform::simulated {

using ApplicationSocket = NEAppProxyTCPFlow::Implementation;

struct FlowDescription {
    enum class Kind { tcp, udp, other };

    Kind kind = Kind::tcp;
    RemoteEndpoint remoteEndpoint = {};
    std::string signingIdentifier = {};
    std::optional<Data> auditToken = {};
    // False: the filter sees a flow that is no socket's.
    bool isSocketFlow = true;
};

// How a flow was shown to the providers, and what they said.
struct Offer {
    bool claimed = false;
    std::optional<NEFilterNewFlowVerdict> verdict = {};

    bool dropped() const { return verdict && verdict->kind == NEFilterNewFlowVerdict::Kind::drop; }
    bool watched() const {
        return verdict && verdict->kind == NEFilterNewFlowVerdict::Kind::filterData;
    }
    bool allowed() const { return verdict && verdict->kind == NEFilterNewFlowVerdict::Kind::allow; }
};

class Flow {
public:
    explicit Flow(FlowDescription description);

    // What the application does. Each takes effect as an event, in the order of the calls: bytes
    // pass the filter first if the flow is watched, and reach the proxy if it was claimed.
    void sends(std::string bytes);
    void endsSending();
    void fails(NSError error);
    void stopsReading();
    void readsOn();
    // How the opening of a claimed flow goes; said before it is offered.
    void failsOpening(NSError error);
    void opensAfter(double seconds);
    void failsNextWrite(NSError error);

    // What became of it.
    Offer lastOffer() const;
    bool isClaimed() const { return lastOffer().claimed; }
    // Bytes that the application has been given.
    std::string received() const;
    // True once the filter dropped it, at its start or at a byte, or a new offer claimed or dropped
    // it: the application's socket has failed.
    bool isEnded() const;

    // What the proxy did with it.
    ApplicationSocket::Record record() const;
    bool isClosed() const;
    // Both directions closed, each exactly once and without an error (with this error).
    bool isClosedOnceCleanly() const;
    bool isClosedOnceWith(const NSError& error) const;
    std::shared_ptr<ApplicationSocket> socket() const;

    // The TCP flow object, for code that is given one without an offer; and what the filter sees.
    std::shared_ptr<NEAppProxyTCPFlow> object() const;
    const NEFilterFlow& filterFlow() const { return *state->filterFlow; }

private:
    friend class Flows;
    struct State {
        explicit State(FlowDescription flowDescription);
        const FlowDescription description;
        const Scheduler::Lane lane;
        std::shared_ptr<const NEFilterFlow> filterFlow;

        Mutex mutex;
        std::shared_ptr<ApplicationSocket> socket GUARDED_BY(mutex);
        std::vector<Offer> offers GUARDED_BY(mutex);
        bool isEnded GUARDED_BY(mutex) = false;
        bool isWatched GUARDED_BY(mutex) = false;
        std::uint64_t generation GUARDED_BY(mutex) = 0;
        std::uint64_t ruleChanges GUARDED_BY(mutex) = 0;  // when the filter was asked
        std::int64_t offset GUARDED_BY(mutex) = 0;
        std::size_t peekBytes GUARDED_BY(mutex) = 0;
        std::string unpassed GUARDED_BY(mutex);
    };
    void socketDoes(const char* label, std::function<void(ApplicationSocket&)> step);

    std::shared_ptr<State> state;
};

class Flows {
public:
    // Shows a new flow to the proxy and then to the filter, each if its settings say so, on the
    // caller's thread.
    Offer offer(const Flow& flow);
    // Shows it to one provider, whatever the settings.
    Offer offerToProxy(const Flow& flow);
    // Has the application send bytes now, on the caller's thread. Gives what the filter said, or
    // null if it was not asked. A declined flow that is due to be offered again, to both or to the
    // filter, is.
    std::optional<NEFilterDataVerdict> outbound(const Flow& flow, std::string bytes);

    // Flows that were declined and let pass will be offered once more.
    void startNewGeneration() { generation.fetch_add(1); }
    std::uint64_t currentGeneration() const { return generation.load(); }
    // Those about which a provider was asked between the two calls will be, too, and the others to the
    // filter.
    void setRulesChanging(bool) { ruleChanges.fetch_add(1); }

private:
    Offer show(Flow::State& state, bool toProxy, bool toFilter, std::uint64_t generationShown);
    static bool showToProxy(const std::shared_ptr<NEAppProxyFlow>& object);
    void reofferIfDue(Flow::State& state);
    void askFilterIfDue(Flow::State& state);
    std::optional<NEFilterDataVerdict> showBytes(Flow::State& state, std::string bytes);
    static void pass(Flow::State& state, const std::string& bytes) REQUIRES(state.mutex);
    static void end(Flow::State& state) REQUIRES(state.mutex);

    std::atomic<std::uint64_t> generation = 0;
    // How often a change of the rules has begun or ended: odd while one is under way.
    std::atomic<std::uint64_t> ruleChanges = 0;
};

}  // namespace platform::simulated
