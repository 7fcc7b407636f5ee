#include "Platform/Linux/HostChannel/Preferences.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "Platform/Dispatch.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/HostChannel/HostChannelLog.h"
#include "Platform/Linux/Recording/RecordedSystem.h"
#include "Platform/NEProvider.h"

namespace platform {

namespace {

const JSONValue* member(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &found->second;
}

template <class T>
std::optional<T> typedMember(const JSONObject& object, std::string_view key) {
    const JSONValue* value = member(object, key);
    const T* typed = value == nullptr ? nullptr : value->as<T>();
    if (typed == nullptr) return std::nullopt;
    return *typed;
}

// While everything is switched off the rules stay in the file, but do not hold: not after a start nor a
// waking either, when they are read from here.
void takeRulesFrom(JSONObject& configuration) {
    configuration["rules"] = JSONObject{};
    configuration["blockedApps"] = JSONArray{};
    configuration["defaultAction"] = "vpn";
    configuration["vpnFallback"] = "allow";
    configuration["directFallback"] = "allow";
}

std::shared_ptr<const NEVPNProtocol> protocolIn(const JSONValue* value, bool isOff = false) {
    const JSONObject* object = value == nullptr ? nullptr : value->as<JSONObject>();
    if (object == nullptr) return nullptr;
    auto configuration = typedMember<JSONObject>(*object, "providerConfiguration");
    if (configuration && isOff) takeRulesFrom(*configuration);
    return std::make_shared<NETunnelProviderProtocol>(
        typedMember<std::string>(*object, "providerBundleIdentifier"), std::move(configuration));
}

// Whether a VPN that is followed is up stands in the rules file, which the settings service writes before
// the daemon starts and which is read next. Where that has not come up, the VPN counts as down.
std::shared_ptr<const NEVPNProtocol> withVPNInDoubt(std::shared_ptr<const NEVPNProtocol> given) {
    const auto* protocol = dynamic_cast<const NETunnelProviderProtocol*>(given.get());
    if (protocol == nullptr || !protocol->providerConfiguration()) return given;
    auto configuration = *protocol->providerConfiguration();
    if (member(configuration, "vpnConnected") == nullptr) configuration["vpnConnected"] = false;
    return std::make_shared<NETunnelProviderProtocol>(protocol->providerBundleIdentifier(),
                                                      std::move(configuration));
}

std::vector<NETunnelProviderManager> managersIn(const JSONObject& document) {
    std::vector<NETunnelProviderManager> managers;
    for (const auto& entry :
         typedMember<JSONArray>(document, "tunnelManagers").value_or(JSONArray{}))
        managers.emplace_back(protocolIn(&entry));
    return managers;
}

LogLevel logLevelIn(const JSONObject& document) {
    const auto word = typedMember<std::string>(document, "logLevel").value_or("info");
    if (word == "debug") return LogLevel::debug;
    if (word == "error") return LogLevel::error;
    if (word != "info")
        hostChannelLog.error(
            "The preferences' logLevel is %{public}s, not debug, info or error: info it is", word);
    return LogLevel::info;
}

std::optional<uid_t> accountCalled(const std::string& name) {
    std::array<char, 4096> buffer;
    passwd record{};
    passwd* result = nullptr;
    getpwnam_r(name.c_str(), &record, buffer.data(), buffer.size(), &result);
    if (result != nullptr) return result->pw_uid;
    hostChannelLog.error(
        "The preferences' personalAccounts name %{public}s, which is no account of this machine",
        name);
    return std::nullopt;
}

std::set<uid_t> personalAccountsIn(const JSONObject& document) {
    std::set<uid_t> accounts;
    for (const auto& entry :
         typedMember<JSONArray>(document, "personalAccounts").value_or(JSONArray{})) {
        if (const auto* name = entry.as<std::string>()) {
            if (const auto account = accountCalled(*name)) accounts.insert(*account);
        } else if (const auto* number = entry.as<std::int64_t>(); number && *number >= 0) {
            accounts.insert(static_cast<uid_t>(*number));
        }
    }
    return accounts;
}

bool isRelayWantedIn(const JSONObject& document) {
    const auto word = typedMember<std::string>(document, "directCarriage").value_or("kernel");
    if (word != "kernel" && word != "relay")
        hostChannelLog.error(
            "The preferences' directCarriage is %{public}s, not kernel or relay: kernel it is",
            word);
    return word == "relay";
}

}  // namespace

std::optional<Preferences> Preferences::load() {
    if (access(places::preferencesFile, F_OK) != 0 && errno == ENOENT) return Preferences{};
    const auto content = NSFileManager::defaultManager().contentsAtPath(places::preferencesFile);
    const auto bytes = content ? content->bytes() : std::nullopt;
    if (!bytes) return std::nullopt;
    const auto document = parseJSON(*bytes);
    const auto* value = std::get_if<JSONValue>(&document);
    const JSONObject* object = value == nullptr ? nullptr : value->as<JSONObject>();
    if (object == nullptr) {
        const auto* failure = std::get_if<JSONFailure>(&document);
        hostChannelLog.error("The preferences cannot be understood: %{public}s",
                             failure == nullptr ? "not an object" : failure->description);
        return std::nullopt;
    }
    return Preferences{protocolIn(member(*object, "protocolConfiguration"),
                                  typedMember<bool>(*object, "off").value_or(false)),
                       managersIn(*object),
                       logLevelIn(*object),
                       personalAccountsIn(*object),
                       isRelayWantedIn(*object),
                       typedMember<bool>(*object, "directDatagrams").value_or(false)};
}

std::shared_ptr<const NEVPNProtocol> NETransparentProxyProvider::protocolConfiguration() const {
    const auto preferences = Preferences::load();
    auto configuration = preferences ? preferences->protocolConfiguration : nullptr;
    // At a waking, what is known of it stays.
    static std::atomic<bool> isStart = true;
    if (isStart.exchange(false)) configuration = withVPNInDoubt(std::move(configuration));
    recording::noteConfiguration(configuration.get());
    return configuration;
}

void NETunnelProviderManager::loadAllFromPreferences(LoadCompletion completion) {
    DispatchQueue::global(QualityOfService::utility)
        .async([completion = recording::followedLoad(std::move(completion))]() mutable {
            auto preferences = Preferences::load();
            if (preferences)
                completion(std::move(preferences->tunnelManagers), std::nullopt);
            else
                completion(std::nullopt,
                           NSError{"NEVPNErrorDomain", 5, "the preferences could not be read"});
        });
}

}  // namespace platform
