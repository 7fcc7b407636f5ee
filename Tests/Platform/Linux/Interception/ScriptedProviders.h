// Providers whose verdicts a test sets, and which note every call in order. A claimed flow is
// answered by the proxy itself: it sends back what the application sends. Any thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
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
    const void* flow = nullptr;
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

inline std::string textOf(const std::optional<Data>& token) {
    return token ? std::string(*token->bytes()) : std::string();
}

// Opens a claimed flow and sends back what comes, until the application ends.
class EchoingSession : public std::enable_shared_from_this<EchoingSession> {
public:
    EchoingSession(std::shared_ptr<NEAppProxyTCPFlow> claimed, std::atomic<int>& openingErrors)
        : flow(std::move(claimed)), errors(openingErrors) {}

    void start() {
        flow->openWithLocalEndpoint(
            nullptr, [self = shared_from_this()](const std::optional<NSError>& error) {
                if (error)
                    ++self->errors;
                else
                    self->readOn();
            });
    }

private:
    void readOn() {
        flow->readData([self = shared_from_this()](std::optional<Data> data,
                                                   const std::optional<NSError>& error) {
            if (error || !data || data->isEmpty()) return self->end();
            self->flow->writeData(std::move(*data), [self](const std::optional<NSError>& failed) {
                if (!failed) self->readOn();
            });
        });
    }
    void end() {
        flow->closeReadWithError(std::nullopt);
        flow->closeWriteWithError(std::nullopt);
    }

    const std::shared_ptr<NEAppProxyTCPFlow> flow;
    std::atomic<int>& errors;
};

class ScriptedProxy final : public NETransparentProxyProvider {
public:
    explicit ScriptedProxy(CallList& list) : calls(list) {}

    std::atomic<bool> isClaiming{false};
    std::atomic<int> openingErrors{0};

    void startProxy(std::optional<JSONObject>, ErrorCompletion) override {}
    void stopProxy(NEProviderStopReason, Completion<>) override {}
    void handleAppMessage(Data, Completion<std::optional<Data>>) override {}
    void sleep(Completion<>) override {}
    void wake() override {}

    bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) override {
        const auto tcp = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow);
        const NWHostEndpoint& remote = *hostEndpoint(flow->remoteEndpoint());
        calls.add({Call::Kind::proxy, tcp != nullptr, remote.hostname, remote.port,
                   textOf(flow->metaData().sourceAppAuditToken), 0, 0, flow.get()});
        if (!tcp || !isClaiming) return false;
        claim(tcp);
        return true;
    }
    void claim(const std::shared_ptr<NEAppProxyTCPFlow>& flow) {
        std::make_shared<EchoingSession>(flow, openingErrors)->start();
    }

private:
    CallList& calls;
};

class ScriptedFilter final : public NEFilterDataProvider {
public:
    explicit ScriptedFilter(CallList& list) : calls(list) {}

    static NEFilterNewFlowVerdict watching() {
        return NEFilterNewFlowVerdict::filterDataVerdict(false, 0, true, 1);
    }
    void setVerdict(NEFilterNewFlowVerdict replacement) {
        const std::lock_guard guard(lock);
        verdict = replacement;
    }
    std::atomic<NEFilterDataVerdict::Kind> onData{NEFilterDataVerdict::Kind::data};

    void startFilter(ErrorCompletion) override {}
    void stopFilter(NEProviderStopReason, Completion<>) override {}

    NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override {
        note(flow, Call::Kind::filter, 0, 0);
        const std::lock_guard guard(lock);
        return verdict;
    }
    NEFilterDataVerdict handleOutboundData(const NEFilterFlow& flow, std::int64_t offset,
                                           const Data& bytes) override {
        note(flow, Call::Kind::data, offset, bytes.length());
        switch (onData.load()) {
            case NEFilterDataVerdict::Kind::allow:
                return NEFilterDataVerdict::allowVerdict();
            case NEFilterDataVerdict::Kind::drop:
                return NEFilterDataVerdict::dropVerdict();
            case NEFilterDataVerdict::Kind::data:
                break;
        }
        return NEFilterDataVerdict::dataVerdict(bytes.length(), 1);
    }

private:
    void note(const NEFilterFlow& flow, Call::Kind kind, std::int64_t offset, std::size_t length) {
        const auto& socketFlow = dynamic_cast<const NEFilterSocketFlow&>(flow);
        const NWHostEndpoint& remote = *hostEndpoint(socketFlow.remoteEndpoint());
        calls.add({kind, socketFlow.socketType() == 1, remote.hostname, remote.port,
                   textOf(flow.sourceAppAuditToken()), offset, length, &flow});
    }

    CallList& calls;
    std::mutex lock;
    NEFilterNewFlowVerdict verdict = NEFilterNewFlowVerdict::allowVerdict();
};

}  // namespace platform::interception
