// The host application's requests: one document in, at most one document out, before the call returns.

#include <algorithm>
#include <variant>

#include "Extension/TransparentProxyProvider.h"
#include "Extension/ipc/ActiveAppsResponse.h"
#include "Extension/ipc/ExtensionStatus.h"
#include "Platform/Common/Text.h"

namespace vantry {

using platform::Data;
using platform::NSLockGuard;

namespace {

constexpr std::size_t rawPrefixLength = 200;
constexpr std::size_t recentEntries = 100;
constexpr std::string_view defaultActionOfReload = "vpn";

// The document as a reply; null if it could not be encoded.
template <class Record>
std::optional<Data> encoded(const Record& record) {
    auto document = record.encode();
    if (!document) return std::nullopt;
    return Data(std::move(*document));
}

}  // namespace

void TransparentProxyProvider::handleAppMessage(
    Data messageData, platform::Completion<std::optional<Data>> completionHandler) {
    const auto bytes = messageData.bytes().value_or(std::string_view{});
    logger.info("Received app message: %{public}ld bytes", messageData.length());
    auto decoded = ExtensionMessage::decode(bytes);
    if (const auto* failure = std::get_if<platform::JSONFailure>(&decoded)) {
        logger.error("Failed to decode IPC message: %{public}s", failure->description);
        const auto prefix = bytes.substr(0, rawPrefixLength);
        if (platform::isValidUTF8(prefix)) logger.error("Raw message prefix: %{public}s", prefix);
        if (completionHandler)
            completionHandler(encodeResponse(ExtensionResponse::error(failure->description)));
        return;
    }
    auto& message = std::get<ExtensionMessage>(decoded);
    logger.info("Decoded message type: %{public}s",
                messageTypeWords[static_cast<std::size_t>(message.type)]);
    std::optional<Data> reply;
    switch (message.type) {
        case MessageType::getStatus:
            reply = statusReply();
            break;
        case MessageType::reload:
            reply = reload(std::move(message));
            break;
        case MessageType::getActiveApps:
            reply = activeAppsReply();
            break;
        case MessageType::clearActivityLog:
            reply = clearActivityLog();
            break;
    }
    if (completionHandler) completionHandler(std::move(reply));
}

std::optional<Data> TransparentProxyProvider::statusReply() const {
    const auto rules = ruleState.snapshot();
    return encoded(ExtensionStatus{
        .isActive = true, .ruleCount = static_cast<std::int64_t>(rules->routingRules->size())});
}

// Replaces the rules in memory, and nothing else: no session ends, the coordinator is not told.
std::optional<Data> TransparentProxyProvider::reload(ExtensionMessage message) {
    const NSLockGuard oneChangeAtATime(ruleChangesLock);
    RuleState rules = *ruleState.snapshot();
    const auto oldCount = rules.routingRules->size();
    if (!message.rules) {
        logger.error("Reload message had no rules, keeping existing %{public}ld rules", oldCount);
    } else {
        rules.routingRules = std::make_shared<const RuleTable>(std::move(*message.rules));
        rules.defaultDecision = message.defaultAction.value_or(std::string(defaultActionOfReload));
        const auto reloaded = ruleState.replace(std::move(rules));
        logger.info("Reloaded rules via IPC: %{public}ld -> %{public}ld, default: %{public}s",
                    oldCount, reloaded->routingRules->size(), reloaded->defaultDecision);
    }
    return encodeResponse(ExtensionResponse::success());
}

std::optional<Data> TransparentProxyProvider::activeAppsReply() const {
    BundleIdSet active;
    {
        const NSLockGuard hold(activityLogLock);
        const auto count = std::min(recentEntries, activityLog.size());
        for (auto entry = activityLog.end() - static_cast<std::ptrdiff_t>(count);
             entry != activityLog.end(); ++entry)
            active.insert(entry->bundleId);
    }
    return encoded(ActiveAppsResponse{.bundleIds = {active.begin(), active.end()}});
}

std::optional<Data> TransparentProxyProvider::encodeResponse(const ExtensionResponse& response) {
    return encoded(response);
}

}  // namespace vantry
