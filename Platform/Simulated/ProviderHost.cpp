#include "Platform/Simulated/ProviderHost.h"

#include <algorithm>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/FlowBytes.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

// Outcomes.

bool Outcome::hasCome() const {
    const MutexGuard guard(state->mutex);
    return state->hasCome;
}

std::optional<NSError> Outcome::error() const {
    const MutexGuard guard(state->mutex);
    return state->error;
}

void Outcome::come(std::optional<NSError> error) const {
    const MutexGuard guard(state->mutex);
    state->hasCome = true;
    state->error = std::move(error);
}

bool Reply::hasCome() const {
    const MutexGuard guard(state->mutex);
    return state->hasCome;
}

std::optional<std::string> Reply::text() const {
    const MutexGuard guard(state->mutex);
    return state->text;
}

void Reply::come(std::optional<Data> data) const {
    const MutexGuard guard(state->mutex);
    state->hasCome = true;
    if (data) state->text = bytesOf(*data);
}

namespace {

Completion<std::optional<NSError>> completionFor(const Outcome& outcome, const char* nameOfCall) {
    return [outcome, mustRun = MustRun(nameOfCall)](std::optional<NSError> error) mutable {
        mustRun.runs();
        outcome.come(std::move(error));
    };
}

Completion<> completionWithoutErrorFor(const Outcome& outcome, const char* nameOfCall) {
    return [outcome, mustRun = MustRun(nameOfCall)]() mutable {
        mustRun.runs();
        outcome.come(std::nullopt);
    };
}

}  // namespace

// Settings.

template <class Settings>
void SettingsInForce<Settings>::script(std::vector<std::optional<NSError>> outcomes) {
    const MutexGuard guard(mutex);
    scripted.assign(outcomes.begin(), outcomes.end());
}

template <class Settings>
void SettingsInForce<Settings>::hold() {
    const MutexGuard guard(mutex);
    isHeld = true;
}

template <class Settings>
void SettingsInForce<Settings>::release() {
    std::size_t released = 0;
    {
        const MutexGuard guard(mutex);
        isHeld = false;
        released = std::exchange(waiting, 0);
    }
    for (std::size_t i = 0; i < released; ++i) schedule();
}

template <class Settings>
std::vector<SettingsCall<Settings>> SettingsInForce<Settings>::calls() const {
    const MutexGuard guard(mutex);
    return made;
}

template <class Settings>
std::optional<Settings> SettingsInForce<Settings>::inForce() const {
    const MutexGuard guard(mutex);
    return present;
}

template <class Settings>
void SettingsInForce<Settings>::withdraw() {
    const MutexGuard guard(mutex);
    present.reset();
}

template <class Settings>
void SettingsInForce<Settings>::call(Settings settings, ErrorCompletion completion,
                                     AppliedHook appliedHook) {
    {
        const MutexGuard guard(mutex);
        pending.push_back({made.size(), std::move(completion), appliedHook});
        made.push_back({std::move(settings)});
        if (isHeld) {
            ++waiting;
            return;
        }
    }
    schedule();
}

template <class Settings>
void SettingsInForce<Settings>::schedule() {
    scheduler.deliver(
        "settings", [this] { carryOutNext(); }, order);
}

template <class Settings>
void SettingsInForce<Settings>::carryOutNext() {
    Pending next;
    std::optional<NSError> error;
    std::optional<Settings> old;
    std::optional<Settings> now;
    {
        const MutexGuard guard(mutex);
        next = std::move(pending.front());
        pending.pop_front();
        if (!scripted.empty()) {
            error = std::move(scripted.front());
            scripted.pop_front();
        }
        auto& answered = made[next.index];
        answered.isAnswered = true;
        answered.error = error;
        if (!error) {
            old = std::exchange(present, answered.settings);
            now = present;
        }
    }
    if (now && next.appliedHook != nullptr) next.appliedHook(old, *now);
    next.completion(std::move(error));
}

template class SettingsInForce<NETransparentProxyNetworkSettings>;
template class SettingsInForce<NEFilterSettings>;

// Providers.

std::shared_ptr<NETransparentProxyProvider> ProviderHost::proxy() {
    const MutexGuard guard(mutex);
    if (!proxyProvider) proxyProvider = registeredProviders.makeProxyProvider();
    return proxyProvider;
}

std::shared_ptr<NEFilterDataProvider> ProviderHost::filter() {
    const MutexGuard guard(mutex);
    if (!filterProvider) filterProvider = registeredProviders.makeFilterProvider();
    return filterProvider;
}

void ProviderHost::letGoOfProxy() {
    proxySettings.withdraw();
    std::shared_ptr<NETransparentProxyProvider> dropped;
    const MutexGuard guard(mutex);
    dropped.swap(proxyProvider);
}

void ProviderHost::letGoOfFilter() {
    filterSettings.withdraw();
    std::shared_ptr<NEFilterDataProvider> dropped;
    const MutexGuard guard(mutex);
    dropped.swap(filterProvider);
}

Outcome ProviderHost::startFilter() {
    Outcome outcome;
    filter()->startFilter(completionFor(outcome, "startFilter"));
    checkNoLockIsHeld("startFilter");
    return outcome;
}

Outcome ProviderHost::stopFilter(NEProviderStopReason reason) {
    Outcome outcome;
    filterSettings.withdraw();
    filter()->stopFilter(reason, completionWithoutErrorFor(outcome, "stopFilter"));
    checkNoLockIsHeld("stopFilter");
    return outcome;
}

Outcome ProviderHost::startProxy(const std::optional<JSONObject>& options) {
    Outcome outcome;
    proxy()->startProxy(options, completionFor(outcome, "startProxy"));
    checkNoLockIsHeld("startProxy");
    return outcome;
}

Outcome ProviderHost::stopProxy(NEProviderStopReason reason) {
    Outcome outcome;
    proxySettings.withdraw();
    proxy()->stopProxy(reason, completionWithoutErrorFor(outcome, "stopProxy"));
    checkNoLockIsHeld("stopProxy");
    return outcome;
}

Outcome ProviderHost::sleep() {
    Outcome outcome;
    proxy()->sleep(completionWithoutErrorFor(outcome, "sleep"));
    checkNoLockIsHeld("sleep");
    return outcome;
}

void ProviderHost::wake() {
    proxy()->wake();
    checkNoLockIsHeld("wake");
}

Reply ProviderHost::message(Data data) {
    Reply reply;
    proxy()->handleAppMessage(std::move(data), [reply, mustRun = MustRun("handleAppMessage")](
                                                   std::optional<Data> answer) mutable {
        mustRun.runs();
        reply.come(std::move(answer));
    });
    checkNoLockIsHeld("handleAppMessage");
    return reply;
}

void ProviderHost::messageWithoutReply(Data data) {
    proxy()->handleAppMessage(std::move(data), {});
    checkNoLockIsHeld("handleAppMessage");
}

void ProviderHost::startExtension() {
    scheduler.deliver("start filter", [this] {
        startFilter();
        scheduler.deliver("start proxy", [this] { startProxy(std::nullopt); });
    });
}

namespace {

bool covers(const NENetworkRule& rule, NENetworkRule::Protocol protocol,
            const RemoteEndpoint& remote) {
    using Protocol = NENetworkRule::Protocol;
    if (rule.direction == NENetworkRule::TrafficDirection::inbound) return false;
    if (rule.protocol != Protocol::any && rule.protocol != protocol) return false;
    if (!rule.remoteNetwork) return true;
    const auto* host = hostEndpoint(remote);
    return host != nullptr && host->hostname == rule.remoteNetwork->hostname;
}

}  // namespace

bool ProviderHost::isProxyOffered(NENetworkRule::Protocol protocol,
                                  const RemoteEndpoint& remote) const {
    const auto settings = proxySettings.inForce();
    if (!settings) return false;
    const auto& rules = settings->includedNetworkRules();
    return std::any_of(rules.begin(), rules.end(),
                       [&](const auto& rule) { return covers(rule, protocol, remote); });
}

bool ProviderHost::isFilterAsked() const {
    const auto settings = filterSettings.inForce();
    return settings && settings->defaultAction == NEFilterAction::filterData;
}

}  // namespace simulated

using simulated::checkPlatformCall;
using simulated::machine;

void NEProvider::startSystemExtensionMode() { machine().providers.startExtension(); }

namespace {

// A rule that leaves the list has every flow that was declined and let pass shown once more.
void settingsHaveChanged(const std::optional<NETransparentProxyNetworkSettings>& old,
                         const NETransparentProxyNetworkSettings& now) {
    if (!old) return;
    const auto& rules = now.includedNetworkRules();
    const auto& before = old->includedNetworkRules();
    const bool hasOneLeft = std::any_of(before.begin(), before.end(), [&](const auto& rule) {
        return std::find(rules.begin(), rules.end(), rule) == rules.end();
    });
    if (hasOneLeft) machine().flows.startNewGeneration();
}

}  // namespace

void NETransparentProxyProvider::setTunnelNetworkSettings(
    NETransparentProxyNetworkSettings settings, ErrorCompletion completion) {
    checkPlatformCall("NETransparentProxyProvider.setTunnelNetworkSettings");
    machine().providers.proxySettings.call(std::move(settings), std::move(completion),
                                           &settingsHaveChanged);
}

void NETransparentProxyProvider::setRulesChanging(bool areChanging) {
    checkPlatformCall("NETransparentProxyProvider.setRulesChanging");
    machine().flows.setRulesChanging(areChanging);
}

void NEFilterDataProvider::applySettings(NEFilterSettings settings, ErrorCompletion completion) {
    checkPlatformCall("NEFilterDataProvider.applySettings");
    machine().providers.filterSettings.call(std::move(settings), std::move(completion), nullptr);
}

}  // namespace platform
