// The tool's line to the running daemon: a message and its reply.
#pragma once

#include <string>

#include "Extension/ipc/ActiveAppsResponse.h"
#include "Extension/ipc/ExtensionMessage.h"
#include "Extension/ipc/ExtensionResponse.h"
#include "Extension/ipc/ExtensionStatus.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// Each sends one request and waits for its reply, for a bounded time.
Outcome<vantry::ExtensionStatus> askForStatus();
Outcome<vantry::ActiveAppsResponse> askForActiveApps();
Outcome<> askToClearActivityLog();

}  // namespace vantryctl
