// The provider classes that the extension derives from, and the start of the extension. The
// platform owns one object of each kind, builds it through the registration table and calls it; it
// may call on several threads at once. Contracts, for both platforms:
//
// - `startFilter` comes before `startProxy`. The filter's side is opened by `applySettings` and is
//   independent of the proxy: it goes on when the proxy's start failed and after `stopProxy`.
// - Every flow is offered once, to the proxy first and then to the filter, claimed ones too, while
//   the flow waits. Calls for different flows overlap; those for one flow come in order.
// - A completion that the platform hands in may be called on any thread, once.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Common/JSON.h"
#include "Platform/Foundation.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/NEFilterFlow.h"
#include "Platform/NENetworkSettings.h"
#include "Platform/NETunnelProvider.h"

namespace platform {

// Why the platform stops a provider; the numbers are the platform's.
enum class NEProviderStopReason : long {
    none = 0,
    userInitiated = 1,
    providerFailed = 2,
    noNetworkAvailable = 3,
    superceded = 9,
};

class NEProvider {
public:
    virtual ~NEProvider() = default;
    NEProvider(const NEProvider&) = delete;
    NEProvider& operator=(const NEProvider&) = delete;

    // Starts the platform's side of the extension: from here on it builds the registered providers
    // and calls them. Returns at once. Called once, by `main`.
    static void startSystemExtensionMode();

protected:
    NEProvider() = default;
};

class NETransparentProxyProvider : public NEProvider {
public:
    using ErrorCompletion = Completion<std::optional<NSError>>;

    // The platform's calls, on threads of its choice.
    virtual void startProxy(std::optional<JSONObject> options,
                            ErrorCompletion completionHandler) = 0;
    virtual void stopProxy(NEProviderStopReason reason, Completion<> completionHandler) = 0;
    // True claims the flow, which the provider then opens or closes; false leaves it to the system.
    virtual bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>& flow) = 0;
    // A request of the host application. The completion, if there is one (it may be empty), takes
    // the reply, or nothing for none.
    virtual void handleAppMessage(Data messageData,
                                  Completion<std::optional<Data>> completionHandler) = 0;
    virtual void sleep(Completion<> completionHandler) = 0;
    virtual void wake() = 0;

    // The configuration that the host application stored for this provider; may be null or of any
    // class. Each call gives the one of that moment. Any thread.
    std::shared_ptr<const NEVPNProtocol> protocolConfiguration() const;

    // Puts settings in force; the completion runs later, once, on a thread of the platform's
    // choice, with an error if they could not be applied (those before then stay). Calls are
    // carried out in their order. When a rule leaves the list in force, each flow that was declined
    // and let pass is offered once more, as a new flow, at its next outbound packet. Any thread.
    void setTunnelNetworkSettings(NETransparentProxyNetworkSettings settings,
                                  ErrorCompletion completion);

    // Says that the rules on which both providers' answers rest begin to change, or that the change is
    // over. Of a flow about which they were asked meanwhile, one may have answered by the old rules and
    // the other by the new ones: if it was declined and let pass, it is offered again, as a new flow,
    // at its next outbound packet, until they are asked outside of a change. When the change is over, the
    // filter is asked again, as about a new flow, about each other flow that was declined and let pass, at
    // its next outbound packet. One change at a time. Any thread.
    void setRulesChanging(bool areChanging);
};

class NEFilterDataProvider : public NEProvider {
public:
    using ErrorCompletion = Completion<std::optional<NSError>>;

    // The platform's calls, on threads of its choice.
    virtual void startFilter(ErrorCompletion completionHandler) = 0;
    virtual void stopFilter(NEProviderStopReason reason, Completion<> completionHandler) = 0;
    virtual NEFilterNewFlowVerdict handleNewFlow(const NEFilterFlow& flow) = 0;
    // Outbound bytes of a flow under watch: their position in its stream and their number.
    virtual NEFilterDataVerdict handleOutboundData(const NEFilterFlow& flow,
                                                   std::int64_t readBytesStartOffset,
                                                   const Data& readBytes) = 0;

    // Puts settings in force; the completion runs later, once, on a thread of the platform's
    // choice.
    void applySettings(NEFilterSettings settings, ErrorCompletion completion);
};

// A flow that somebody asks about, without there being one.
struct FlowQuestion {
    NEFlowMetaData metaData;  // without a token: a program of this identifier that runs on its own
    NWHostEndpoint remote;
    bool isDatagram = false;
};

// The provider classes of the extension. The extension defines `registeredProviders`; the platform
// builds one object of each from it.
struct ProviderClasses {
    std::shared_ptr<NETransparentProxyProvider> (*makeProxyProvider)();
    std::shared_ptr<NEFilterDataProvider> (*makeFilterProvider)();
    // What both would decide about such a flow now, and why, in words and names. Changes nothing. Any
    // thread.
    JSONObject (*explain)(const NETransparentProxyProvider& proxy,
                          const NEFilterDataProvider& filter, const FlowQuestion& question);
};
extern const ProviderClasses registeredProviders;

}  // namespace platform
