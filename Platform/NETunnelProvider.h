// The VPN configurations of the machine, as its preferences hold them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Common/Completion.h"
#include "Platform/Foundation.h"

namespace platform {

// How a tunnel or a proxy is configured; derived types say more.
class NEVPNProtocol {
public:
    NEVPNProtocol() = default;
    virtual ~NEVPNProtocol() = default;
    NEVPNProtocol(const NEVPNProtocol&) = delete;
    NEVPNProtocol& operator=(const NEVPNProtocol&) = delete;
};

// The configuration of something that an extension provides.
class NETunnelProviderProtocol final : public NEVPNProtocol {
public:
    NETunnelProviderProtocol(std::optional<std::string> providerBundleIdentifier,
                             std::optional<JSONObject> providerConfiguration)
        : providerBundleIdentifier_(std::move(providerBundleIdentifier)),
          providerConfiguration_(std::move(providerConfiguration)) {}

    const std::optional<std::string>& providerBundleIdentifier() const {
        return providerBundleIdentifier_;
    }
    // What the host application stored for the provider: texts to values of any kind.
    const std::optional<JSONObject>& providerConfiguration() const {
        return providerConfiguration_;
    }

private:
    const std::optional<std::string> providerBundleIdentifier_;
    const std::optional<JSONObject> providerConfiguration_;
};

class NETunnelProviderManager {
public:
    explicit NETunnelProviderManager(std::shared_ptr<const NEVPNProtocol> protocolConfiguration)
        : protocolConfiguration_(std::move(protocolConfiguration)) {}

    // May be null or of any class.
    const std::shared_ptr<const NEVPNProtocol>& protocolConfiguration() const {
        return protocolConfiguration_;
    }

    using LoadCompletion =
        Completion<std::optional<std::vector<NETunnelProviderManager>>, std::optional<NSError>>;
    // Reads all configurations; the completion runs later, once, on a thread of the platform's
    // choice, with the list or without one. Any thread.
    static void loadAllFromPreferences(LoadCompletion completion);

private:
    std::shared_ptr<const NEVPNProtocol> protocolConfiguration_;
};

}  // namespace platform
