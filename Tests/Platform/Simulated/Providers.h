// The two providers of these tests: they do what a test tells them to do.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "Platform/NEProvider.h"

namespace platform::simulated {

class ScriptedProxy final : public NETransparentProxyProvider {
public:
    static std::shared_ptr<ScriptedProxy> present();

    void startProxy(std::optional<JSONObject>, ErrorCompletion completionHandler) override {
        setTunnelNetworkSettings(settings(), std::move(completionHandler));
    }
    void stopProxy(NEProviderStopReason, Completion<> completionHandler) override {
        completionHandler();
    }
    bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) override {
        return onNewFlow && onNewFlow(flow);
    }
    void handleAppMessage(Data messageData,
                          Completion<std::optional<Data>> completionHandler) override {
        if (completionHandler && answers) completionHandler(std::move(messageData));
    }
    void sleep(Completion<> completionHandler) override { completionHandler(); }
    void wake() override {}

    // Settings for all TCP flows.
    static NETransparentProxyNetworkSettings settings() {
        NETransparentProxyNetworkSettings made("127.0.0.1");
        NENetworkRule rule;
        rule.protocol = NENetworkRule::Protocol::TCP;
        rule.direction = NENetworkRule::TrafficDirection::outbound;
        made.setIncludedNetworkRules({rule});
        return made;
    }

    std::function<bool(const std::shared_ptr<NEAppProxyFlow>&)> onNewFlow;
    bool answers = true;
};

class ScriptedFilter final : public NEFilterDataProvider {
public:
    static std::shared_ptr<ScriptedFilter> present();

    void startFilter(ErrorCompletion completionHandler) override {
        applySettings({{}, NEFilterAction::filterData}, std::move(completionHandler));
    }
    void stopFilter(NEProviderStopReason, Completion<> completionHandler) override {
        completionHandler();
    }
    NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) override {
        return onNewFlow ? onNewFlow(flow) : NEFilterNewFlowVerdict::allowVerdict();
    }
    NEFilterDataVerdict handleOutboundData(const NEFilterFlow&, std::int64_t readBytesStartOffset,
                                           const Data& readBytes) override {
        return onData(readBytesStartOffset, readBytes);
    }

    std::function<NEFilterNewFlowVerdict(const NEFilterFlow&)> onNewFlow;
    std::function<NEFilterDataVerdict(std::int64_t, const Data&)> onData;
};

}  // namespace platform::simulated
