// What both sockets of a relay are set to, so that the relayed connection behaves as the application's
// own would. Sockets that a listener accepts inherit all of it.
#pragma once

#include "Platform/Linux/FileDescriptor.h"

namespace platform {

// A peer that is gone without a word (suspended, moved to another network, forgotten by a NAT) is
// noticed after four minutes of silence: two before it is asked, which keeps the entries of most
// routers alive (they drop idle connections after five minutes or more), and eight questions. A time
// limit for bytes under way (TCP_USER_TIMEOUT) is not set: it would also cut off a living peer that
// merely does not read for that long. The kernel gives up such bytes by itself after a quarter of
// an hour.
void setRelayOptions(const FileDescriptor& socket);

}  // namespace platform
