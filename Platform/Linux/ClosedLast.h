// The descriptor that is closed last when the process is killed. The kernel closes the others before it, from the
// highest number down, so the lowest is kept free from the start for the socket that the packet rules go
// with: the connections that end with the process need the rules to hear of it. Once at the start, once for
// that socket.
#pragma once

namespace platform::closedLast {

// To be called before anything else opens descriptors.
void keepFree();

// The number, for its one user to put his descriptor in its place (dup3); negative if it isn't kept.
int takeNumber();

}  // namespace platform::closedLast
