#pragma once

#include <string>

#include "Lab/sockets/Descriptor.h"

namespace lab {

// Hands an open socket from one process to another, through a Unix socket at a path that both know.
// Each call is one side of it and waits for the other, from the calling thread.

// Gives the socket to the peer that waits at `path`, and keeps none; false, with errno set, when there
// is no one.
bool passSocket(const std::string& path, Descriptor socket);

// Waits at `path`, where nothing may be yet, until somebody passes a socket and has let go of it
// himself. None, with errno set, on failure.
Descriptor takeSocket(const std::string& path);

}  // namespace lab
