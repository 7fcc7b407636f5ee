// The daemon's own command line. It takes no settings: the only words are the two that every program
// knows, and whatever else is given is a mistake that must not start the daemon.
#pragma once

namespace platform {

// Reads the arguments of this process. Returns if there are none; otherwise prints the help or the
// version and exits with status 0, or says what is wrong and exits with status 2. Called once, before
// anything is started.
void answerArguments();

}  // namespace platform
