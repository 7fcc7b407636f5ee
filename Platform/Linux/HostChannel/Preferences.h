// The platform preferences: the one file that holds what the host application has configured. It is
// read afresh for every question, so that each answer is the one of its moment. Any thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Platform/Logging.h"
#include "Platform/NETunnelProvider.h"

namespace platform {

struct Preferences {
    std::shared_ptr<const NEVPNProtocol> protocolConfiguration;
    std::vector<NETunnelProviderManager> tunnelManagers;
    LogLevel logLevel = LogLevel::info;
    // Accounts of services that are treated as people's, by name or number in "personalAccounts".
    std::set<uid_t> personalAccounts;
    // True if "directCarriage" is "relay": then the daemon relays direct connections also where the
    // kernel could carry them.
    bool isRelayWanted = false;
    // "directDatagrams": those of direct applications go directly too.
    bool areDatagramsDirect = false;

    // What the file holds now. A file that is not there holds nothing; each key is optional, and one
    // of another type counts as absent. Null if the file is there but cannot be read or is no JSON
    // object, with one line that says so.
    static std::optional<Preferences> load();
};

}  // namespace platform
