// What the machine's preferences hold: the configuration of the proxy provider, and the tunnels of
// VPN clients. Any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/NETunnelProvider.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform::simulated {

class Preferences {
public:
    explicit Preferences(Scheduler& source) : scheduler(source) {}

    // The provider's configuration: none at the start; any class; or the usual one, holding a JSON
    // object given as its text.
    void setProtocolConfiguration(std::shared_ptr<const NEVPNProtocol> configuration);
    void setProviderConfiguration(std::optional<JSONObject> configuration);
    void setProviderConfiguration(std::string_view json);
    std::shared_ptr<const NEVPNProtocol> protocolConfiguration() const;

    // The tunnel managers: none at the start. By the bundle identifiers of their providers, or any.
    void setTunnelProviders(const std::vector<std::string>& bundleIdentifiers);
    void setTunnelManagers(std::vector<NETunnelProviderManager> list);
    // The next `times` loads give no list but this error.
    void failTunnelManagers(NSError error, int times = 1);
    std::size_t tunnelManagerLoads() const;

    // The core's side.
    void load(NETunnelProviderManager::LoadCompletion completion);

private:
    struct Fault {
        NSError error;
        int times;
    };
    void answer(NETunnelProviderManager::LoadCompletion& completion);

    Scheduler& scheduler;
    mutable Mutex mutex;
    std::shared_ptr<const NEVPNProtocol> configuration GUARDED_BY(mutex);
    std::vector<NETunnelProviderManager> managers GUARDED_BY(mutex);
    std::optional<Fault> fault GUARDED_BY(mutex);
    std::size_t loads GUARDED_BY(mutex) = 0;
};

}  // namespace platform::simulated
