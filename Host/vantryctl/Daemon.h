// The tool's line to the running daemon: a message and its reply.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Extension/ipc/ActiveAppsResponse.h"
#include "Extension/ipc/ExtensionMessage.h"
#include "Extension/ipc/ExtensionResponse.h"
#include "Extension/ipc/ExtensionStatus.h"
#include "Host/settings/UnixExchange.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// Each sends one request and waits for its reply, for a bounded time.
Outcome<vantry::ExtensionStatus> askForStatus();
Outcome<vantry::ActiveAppsResponse> askForActiveApps();
Outcome<> askToClearActivityLog();

// A question that the daemon's platform answers; Platform/Linux/HostChannel/Questions.h lists them.
Outcome<platform::JSONObject> askPlatform(const platform::JSONObject& question,
                                          std::chrono::seconds longestWait = vantryhost::usualWait);

// How well the daemon's platform does its work: what it tells of itself, in its order.
struct HealthItem {
    std::string key;    // for programs
    std::string label;  // for people
    platform::JSONValue value;
    bool isProblem = false;
};
Outcome<std::vector<HealthItem>> askForHealth();

}  // namespace vantryctl
