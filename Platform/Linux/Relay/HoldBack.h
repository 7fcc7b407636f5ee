// Stops the content of a TCP connection where the system handles it, while the connection itself goes on:
// what the system still holds to be sent stays with it, and what the peer sends is not taken in. Pure
// acknowledgements, ends and resets pass. For good; the socket is to be reset afterwards, as all that has
// not left is not to leave. The loop's thread.
#pragma once

namespace platform {

void holdBackContent(int socket);

}  // namespace platform
