// Providers whose verdicts a test sets, and which note every call in order. A claimed flow is
// answered by the proxy itself: it sends back what the application sends. Any thread.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/NEProvider.h"

namespace platform::interception {

struct Call {
    enum class Kind { proxy, filter, data } kind;
    bool isTcp = false;
    std::string host;
    std::string port;
    std::string token;        // empty: none
    std::int64_t offset = 0;  // with data
    std::size_t length = 0;   // with data
};

class CallList {
public:
    enum class Keep { everything, nothing };
    explicit CallList(Keep toKeep = Keep::everything) : keep(toKeep) {}

    void add(Call call) {
        if (keep == Keep::nothing) return;
        const std::lock_guard guard(lock);
        calls.push_back(std::move(call));
    }
    std::vector<Call> all() const {
        const std::lock_guard guard(lock);
        return calls;
    }
    std::vector<Call> of(Call::Kind kind) const {
        std::vector<Call> result;
        for (const Call& call : all())
            if (call.kind == kind) result.push_back(call);
        return result;
    }
    std::size_t count(Call::Kind kind) const { return of(kind).size(); }

private:
    const Keep keep;
    mutable std::mutex lock;
    std::vector<Call> calls;
};

inline int nicenessOfThisThread() { return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); }

inline Call callOf(Call::Kind kind, bool isTcp, const RemoteEndpoint& remote,
                   const std::optional<Data>& token) {
    const NWHostEndpoint& host = *hostEndpoint(remote);
    return {kind, isTcp, host.hostname, host.port, token ? std::string(*token->bytes()) : ""};
}

// Sends back what comes, until the application ends.
inline void echo(const std::shared_ptr<NEAppProxyTCPFlow>& flow) {
    flow->readData([flow](std::optional<Data> data, const std::optional<NSError>& error) {
        if (error || !data || data->isEmpty()) {
            flow->closeReadWithError(std::nullopt);
            return flow->closeWriteWithError(std::nullopt);
        }
        flow->writeData(std::move(*data), [flow](const std::optional<NSError>& failed) {
            if (!failed) echo(flow);
        });
    });
}

class ScriptedProxy final : public NETransparentProxyProvider {
public:
    explicit ScriptedProxy(CallList& list) : calls(list) {}

    std::atomic<bool> isClaiming{false};
    // An opening that is still pending may fail when this has gone.
    const std::shared_ptr<std::atomic<int>> openingErrors = std::make_shared<std::atomic<int>>(0);

    void startProxy(std::optional<JSONObject>, ErrorCompletion) override {}
    void stopProxy(NEProviderStopReason, Completion<>) override {}
    void handleAppMessage(Data, Completion<std::optional<Data>>) override {}
    void sleep(Completion<>) override {}
    void wake() override {}

    bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) override {
        const auto tcp = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow);
        calls.add(callOf(Call::Kind::proxy, tcp != nullptr, flow->remoteEndpoint(),
                         flow->metaData().sourceAppAuditToken));
        if (!tcp || !isClaiming) return false;
        claim(tcp);
        return true;
    }
    // Ends the last claimed flow with an error.
    void resetLast() {
        const NSError reset{"posix", ECONNRESET, "reset"};
        const std::lock_guard guard(lock);
        const auto flow = last.lock();
        if (!flow) return;
        flow->closeReadWithError(reset);
        flow->closeWriteWithError(reset);
    }
    void claim(const std::shared_ptr<NEAppProxyTCPFlow>& flow) {
        {
            const std::lock_guard guard(lock);
            last = flow;
        }
        flow->openWithLocalEndpoint(
            nullptr, [errors = openingErrors, flow](const std::optional<NSError>& error) {
                error ? void(++*errors) : echo(flow);
            });
    }

private:
    CallList& calls;
    std::mutex lock;
    std::weak_ptr<NEAppProxyTCPFlow> last;
};

class ScriptedFilter final : public NEFilterDataProvider {
public:
    using NewFlow = NEFilterNewFlowVerdict::Kind;
    using OnData = NEFilterDataVerdict::Kind;

    explicit ScriptedFilter(CallList& list) : calls(list) {}

    std::atomic<NewFlow> onNewFlow{NewFlow::allow};
    std::atomic<OnData> onData{OnData::data};
    // Whether flows and bytes get their verdict only once `mayGoOn` is set.
    std::atomic<bool> isWaiting{false};
    std::promise<void> mayGoOn;
    // Of the thread on which the last flow was shown.
    std::atomic<int> niceness{0};

    void startFilter(ErrorCompletion) override {}
    void stopFilter(NEProviderStopReason, Completion<>) override {}

    NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override {
        calls.add(callOf(Call::Kind::filter, flow));
        niceness = nicenessOfThisThread();
        if (isWaiting) gate.wait();
        if (onNewFlow == NewFlow::allow) return NEFilterNewFlowVerdict::allowVerdict();
        if (onNewFlow == NewFlow::drop) return NEFilterNewFlowVerdict::dropVerdict();
        return NEFilterNewFlowVerdict::filterDataVerdict(false, 0, true, 1);
    }
    NEFilterDataVerdict handleOutboundData(const NEFilterFlow& flow, std::int64_t offset,
                                           const Data& bytes) override {
        Call call = callOf(Call::Kind::data, flow);
        call.offset = offset;
        call.length = bytes.length();
        calls.add(std::move(call));
        if (isWaiting) gate.wait();
        if (onData == OnData::allow) return NEFilterDataVerdict::allowVerdict();
        if (onData == OnData::drop) return NEFilterDataVerdict::dropVerdict();
        return NEFilterDataVerdict::dataVerdict(bytes.length(), 1);
    }

private:
    static Call callOf(Call::Kind kind, const NEFilterFlow& flow) {
        const auto& socketFlow = dynamic_cast<const NEFilterSocketFlow&>(flow);
        return interception::callOf(kind, socketFlow.socketType() == SOCK_STREAM,
                                    socketFlow.remoteEndpoint(), flow.sourceAppAuditToken());
    }

    CallList& calls;
    const std::shared_future<void> gate = mayGoOn.get_future().share();
};

}  // namespace platform::interception
