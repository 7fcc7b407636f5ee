#include "Platform/Linux/Recording/RecordedProviders.h"

#include <string>
#include <utility>

#include "Platform/Linux/Recording/RecordedEnds.h"
#include "Platform/Linux/Recording/RecordedSystem.h"
#include "Platform/Linux/Recording/Recorder.h"

namespace platform::recording {

namespace {

void addToken(recorded::Fields& fields, const std::optional<Data>& token) {
    if (token)
        fields.bytes(token->bytes().value_or(""));
    else
        fields.none();
}

void addRemote(recorded::Fields& fields, const RemoteEndpoint& remote) {
    if (const auto* host = hostEndpoint(remote))
        fields.host(host->hostname).word(host->port);
    else
        fields.none().none();
}

// Who made the flow, which the core may know from before, is told once.
void introduce(Call& call, const std::optional<Data>& token) {
    if (token && Recorder::shared().isNews(*token)) describeOwner(call, *token);
}

class RecordedProxy final : public NETransparentProxyProvider {
public:
    explicit RecordedProxy(std::shared_ptr<NETransparentProxyProvider> behind)
        : proxy(std::move(behind)) {}

    void startProxy(std::optional<JSONObject> options, ErrorCompletion completion) override {
        const Call call(Call::Kind::ofState, "startProxy");
        proxy->startProxy(std::move(options), std::move(completion));
    }
    void stopProxy(NEProviderStopReason reason, Completion<> completion) override {
        Call call(Call::Kind::ofState, "stopProxy");
        call.with().number(static_cast<long>(reason));
        proxy->stopProxy(reason, std::move(completion));
    }
    bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) override;
    void handleAppMessage(Data message, Completion<std::optional<Data>> completion) override;
    void sleep(Completion<> completion) override {
        const Call call(Call::Kind::ofState, "sleep");
        proxy->sleep(std::move(completion));
    }
    void wake() override {
        const Call call(Call::Kind::ofState, "wake");
        proxy->wake();
    }

private:
    const std::shared_ptr<NETransparentProxyProvider> proxy;
};

bool RecordedProxy::handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) {
    Call call(Call::Kind::ofFlow, "proxyFlow");
    if (!call) return proxy->handleNewFlow(flow);
    const auto& metaData = flow->metaData();
    auto connection = std::dynamic_pointer_cast<NEAppProxyTCPFlow>(flow);
    call.with().name(metaData.sourceAppSigningIdentifier);
    addToken(call.with(), metaData.sourceAppAuditToken);
    call.with().word(connection ? "tcp" : "udp");
    addRemote(call.with(), flow->remoteEndpoint());
    introduce(call, metaData.sourceAppAuditToken);
    const bool isClaimed =
        connection ? proxy->handleNewFlow(followed(std::move(connection), call.number()))
                   : proxy->handleNewFlow(flow);
    call.answered().word(isClaimed ? "claimed" : "declined");
    return isClaimed;
}

// It comes before the message's call returns.
void noteReply(const std::optional<Data>& reply) {
    auto* call = Call::current();
    if (!call) return;
    if (reply)
        call->answered().document(reply->bytes().value_or(""));
    else
        call->answered().none();
}

// Only a request for other rules has to do with the state; the others come all the time. What has been active
// goes back to before the recording, and is not noted.
void RecordedProxy::handleAppMessage(Data message, Completion<std::optional<Data>> completion) {
    const auto text = message.bytes().value_or("");
    const bool isOfState = text.find("reload") != std::string_view::npos;
    Call call(isOfState ? Call::Kind::ofState : Call::Kind::ofFlow, "message");
    if (call) call.with().document(text);
    if (call && completion && text.find("getActiveApps") == std::string_view::npos)
        completion = [completion = std::move(completion)](std::optional<Data> reply) mutable {
            noteReply(reply);
            completion(std::move(reply));
        };
    proxy->handleAppMessage(std::move(message), std::move(completion));
}

class RecordedFilter final : public NEFilterDataProvider {
public:
    explicit RecordedFilter(std::shared_ptr<NEFilterDataProvider> behind)
        : filter(std::move(behind)) {}

    void startFilter(ErrorCompletion completion) override {
        const Call call(Call::Kind::ofState, "startFilter");
        filter->startFilter(std::move(completion));
    }
    void stopFilter(NEProviderStopReason reason, Completion<> completion) override {
        Call call(Call::Kind::ofState, "stopFilter");
        call.with().number(static_cast<long>(reason));
        filter->stopFilter(reason, std::move(completion));
    }
    NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override;
    NEFilterDataVerdict handleOutboundData(const NEFilterFlow& flow, std::int64_t offset,
                                           const Data& bytes) override;

private:
    const std::shared_ptr<NEFilterDataProvider> filter;
};

void describeShown(Call& call, const NEFilterFlow& flow) {
    addToken(call.with(), flow.sourceAppAuditToken());
    const auto* socket = dynamic_cast<const NEFilterSocketFlow*>(&flow);
    call.with().number(socket ? socket->socketType() : 0);
    addRemote(call.with(), socket ? socket->remoteEndpoint() : RemoteEndpoint());
}

NEFilterNewFlowVerdict RecordedFilter::handleNewFlow(const NEFilterFlow& flow) {
    Call call(Call::Kind::ofFlow, "filterFlow");
    if (call) {
        describeShown(call, flow);
        introduce(call, flow.sourceAppAuditToken());
    }
    const auto verdict = filter->handleNewFlow(flow);
    if (call) recorded::addVerdict(call.answered(), verdict);
    return verdict;
}

NEFilterDataVerdict RecordedFilter::handleOutboundData(const NEFilterFlow& flow,
                                                       std::int64_t offset, const Data& bytes) {
    Call call(Call::Kind::ofFlow, "data");
    if (call) {
        describeShown(call, flow);
        call.with().number(offset).number(bytes.length());
        introduce(call, flow.sourceAppAuditToken());
    }
    const auto verdict = filter->handleOutboundData(flow, offset, bytes);
    if (call) recorded::addVerdict(call.answered(), verdict);
    return verdict;
}

}  // namespace

std::shared_ptr<NETransparentProxyProvider> followed(
    std::shared_ptr<NETransparentProxyProvider> proxy) {
    return std::make_shared<RecordedProxy>(std::move(proxy));
}

std::shared_ptr<NEFilterDataProvider> followed(std::shared_ptr<NEFilterDataProvider> filter) {
    return std::make_shared<RecordedFilter>(std::move(filter));
}

Explain followed(Explain explain) {
    return [explain = std::move(explain)](const FlowQuestion& question) {
        Call call(Call::Kind::ofFlow, "explain");
        if (!call) return explain(question);
        const auto& metaData = question.metaData;
        call.with().name(metaData.sourceAppSigningIdentifier);
        addToken(call.with(), metaData.sourceAppAuditToken);
        call.with().word(question.isDatagram ? "udp" : "tcp");
        addRemote(call.with(), question.remote);
        introduce(call, metaData.sourceAppAuditToken);
        auto explanation = explain(question);
        recorded::addExplanation(call.answered(), explanation);
        return explanation;
    };
}

}  // namespace platform::recording
