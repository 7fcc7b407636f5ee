// How the host application tells the daemon that the rules file has changed: a notification without
// data. Any thread.
#pragma once

#include "Host/settings/Outcome.h"

namespace vantryhost {

// The failures of whoever talks to the daemon.
Failure daemonNotRunning();
Failure daemonNotPermitted();

// Tells the daemon, and whoever else listens, that the rules file has changed. A failure if no one can
// be listening or this user may not post.
Outcome<> postRulesChanged();

// Whether a daemon listens for messages, as far as this user can see. It is not disturbed.
bool isDaemonListening();

}  // namespace vantryhost
