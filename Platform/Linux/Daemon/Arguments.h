// The daemon's own command line. It takes no settings: the only words are the two that every program
// knows and one that takes away what a killed daemon has left. Anything else is a mistake that must not
// start the daemon.
#pragma once

namespace platform {

// Reads the arguments of this process. Returns if there are none; otherwise does what they say and
// exits: with status 0, with 1 if that failed, or with 2 after a word about an unknown one. Called once,
// before anything is started.
void answerArguments();

}  // namespace platform
