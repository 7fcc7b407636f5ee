#include "Platform/Simulated/Preferences.h"

#include <utility>

#include "Platform/NEProvider.h"
#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

void Preferences::setProtocolConfiguration(std::shared_ptr<const NEVPNProtocol> newConfiguration) {
    const MutexGuard guard(mutex);
    configuration = std::move(newConfiguration);
}

void Preferences::setProviderConfiguration(std::optional<JSONObject> object) {
    setProtocolConfiguration(std::make_shared<const NETunnelProviderProtocol>(
        "org.quillmere.Vantry.Extension", std::move(object)));
}

void Preferences::setProviderConfiguration(std::string_view json) {
    const auto parsed = parseJSON(json);
    const auto* value = std::get_if<JSONValue>(&parsed);
    const auto* object = value == nullptr ? nullptr : value->as<JSONObject>();
    if (object == nullptr)
        return breach("the test gives a configuration that is no JSON object: " +
                      std::string(json));
    setProviderConfiguration(std::optional(*object));
}

std::shared_ptr<const NEVPNProtocol> Preferences::protocolConfiguration() const {
    const MutexGuard guard(mutex);
    return configuration;
}

void Preferences::setTunnelProviders(const std::vector<std::string>& bundleIdentifiers) {
    std::vector<NETunnelProviderManager> list;
    list.reserve(bundleIdentifiers.size());
    for (const auto& identifier : bundleIdentifiers)
        list.emplace_back(
            std::make_shared<const NETunnelProviderProtocol>(identifier, std::nullopt));
    setTunnelManagers(std::move(list));
}

void Preferences::setTunnelManagers(std::vector<NETunnelProviderManager> list) {
    const MutexGuard guard(mutex);
    managers = std::move(list);
}

void Preferences::failTunnelManagers(NSError error, int times) {
    const MutexGuard guard(mutex);
    fault = Fault{std::move(error), times};
}

std::size_t Preferences::tunnelManagerLoads() const {
    const MutexGuard guard(mutex);
    return loads;
}

void Preferences::load(NETunnelProviderManager::LoadCompletion completion) {
    {
        const MutexGuard guard(mutex);
        ++loads;
    }
    scheduler.deliver("tunnel managers",
                      [this, held = std::move(completion)]() mutable { answer(held); });
}

void Preferences::answer(NETunnelProviderManager::LoadCompletion& completion) {
    std::optional<std::vector<NETunnelProviderManager>> list;
    std::optional<NSError> error;
    {
        const MutexGuard guard(mutex);
        if (fault) {
            error = fault->error;
            if (--fault->times <= 0) fault.reset();
        } else {
            list = managers;
        }
    }
    completion(std::move(list), std::move(error));
}

}  // namespace simulated

void NETunnelProviderManager::loadAllFromPreferences(LoadCompletion completion) {
    simulated::checkPlatformCall("NETunnelProviderManager.loadAllFromPreferences");
    simulated::machine().preferences.load(std::move(completion));
}

std::shared_ptr<const NEVPNProtocol> NETransparentProxyProvider::protocolConfiguration() const {
    simulated::checkPlatformCall("NETransparentProxyProvider.protocolConfiguration");
    return simulated::machine().preferences.protocolConfiguration();
}

}  // namespace platform
