// The content filter. It names the application of every flow from the flow's audit token, asks the
// coordinator about it and answers with a verdict: a blocked application's flows are dropped, those of
// a watched application pass and come back with every outbound chunk, the rest pass for good. What it
// cannot attribute it lets pass. The platform owns the one object and calls it on several threads at
// once; no verdict waits for another.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Extension/FlowKillCoordinator.h"
#include "Extension/ProcessCache.h"
#include "Extension/ProcessUtils.h"
#include "Platform/Logging.h"
#include "Platform/NEProvider.h"

namespace vantry {

class FlowKillFilterProvider final : public platform::NEFilterDataProvider,
                                     public std::enable_shared_from_this<FlowKillFilterProvider> {
public:
    // Asks for every flow to be shown. Returns at once; `completionHandler` gets the outcome.
    void startFilter(ErrorCompletion completionHandler) override;
    void stopFilter(platform::NEProviderStopReason reason,
                    platform::Completion<> completionHandler) override;
    platform::NEFilterNewFlowVerdict handleNewFlow(const platform::NEFilterFlow& flow) override;
    // The bytes themselves are never looked at, only counted.
    platform::NEFilterDataVerdict handleOutboundData(const platform::NEFilterFlow& flow,
                                                     std::int64_t readBytesStartOffset,
                                                     const platform::Data& readBytes) override;

private:
    // Says what would become of a flow, and changes nothing.
    friend class FlowExplanation;

    static constexpr std::string_view dnsPort = "53";
    static constexpr std::string_view quicPort = "443";

    std::optional<std::string> resolveAppBundleId(const platform::NEFilterFlow& from);
    void cacheProcessResult(const platform::Data& auditToken, const std::string& bundleId);

    // The identifier of a process's own bundle, and of the nearest ancestor if that is known and its own
    // is not.
    struct Names {
        std::optional<std::string> own, parent;

        const std::optional<std::string>& found() const { return parent ? parent : own; }
    };
    template <std::predicate<const std::string&> IsKnown>
    static Names namesOf(std::int32_t pid, IsKnown&& isKnown) {
        auto own = ProcessUtils::getBundleIdForPid(pid);
        if (own && isKnown(*own)) return {std::move(own), std::nullopt};
        return {std::move(own), resolveViaProcessTree(pid, isKnown)};
    }
    template <std::predicate<const std::string&> IsKnown>
    static std::optional<std::string> resolveViaProcessTree(std::int32_t pid, IsKnown&& isKnown) {
        return ProcessUtils::nearestKnownAncestor(pid, isKnown);
    }

    platform::NEFilterNewFlowVerdict verdictForBlockedApp(const platform::NEFilterFlow& flow,
                                                          const std::string& bundleId) const;
    platform::NEFilterNewFlowVerdict verdictForVpnFallback(const platform::NEFilterFlow& flow,
                                                           const std::string& bundleId) const;

    const platform::Logger logger{"org.quillmere.Vantry.Extension", "FlowKillFilter"};
    ProcessCache processCache;
};

}  // namespace vantry
