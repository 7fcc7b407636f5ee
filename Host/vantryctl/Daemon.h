// The tool's line to the running daemon: a notification without data, or a message with its reply.
#pragma once

#include <string>

#include "Extension/ipc/ActiveAppsResponse.h"
#include "Extension/ipc/ExtensionMessage.h"
#include "Extension/ipc/ExtensionResponse.h"
#include "Extension/ipc/ExtensionStatus.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// Tells the daemon, and whoever else listens, that the rules file has changed. A failure if nobody can
// be listening or this user may not post.
Outcome<> postRulesChanged();

// Whether a daemon listens for messages, as far as this user can see. It is not disturbed.
bool isDaemonListening();

// Each sends one request and waits for its reply, for a bounded time.
Outcome<vantry::ExtensionStatus> askForStatus();
Outcome<vantry::ActiveAppsResponse> askForActiveApps();
Outcome<> askToClearActivityLog();

}  // namespace vantryctl
