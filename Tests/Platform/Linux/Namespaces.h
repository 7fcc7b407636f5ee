// Gives a test a piece of the machine of its own: mounts, and a network in which it may do what it
// likes. To be called first thing, before any other thread exists that has to live in there too.
#pragma once

#include <string>

namespace platform {

enum class Namespace { mount, network };

// Moves the calling thread, and those that it makes later, into fresh namespaces: one for mounts,
// and with `network` also one for the network, whose loopback is up. Without root a user namespace
// comes first, in which the test is root. False if the machine does not allow it.
bool enterNamespaces(Namespace wanted);

// Runs a shell command and fails the test, with its output, when it fails.
void runCommand(const std::string& command);

}  // namespace platform
