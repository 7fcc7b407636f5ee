// Who may act as the host application: root, the user that this process runs as, and the members of
// the group "vantry". A machine without that group has only the first two. Any thread; the account
// database is asked afresh each time, so that a change of the group needs no restart.
#pragma once

#include <sys/types.h>

#include <optional>

namespace platform {

inline constexpr const char* trustedGroupName = "vantry";

// The id of the group; null if the machine has no such group.
std::optional<gid_t> trustedGroup();

// Whether an account is one of them: for files by their owner.
bool isTrustedAccount(uid_t account);

// Whether the process at the other end of a connected Unix socket runs for one of them. It counts as
// a member also when only the process itself, not its account, has the group.
bool isTrustedPeer(int connectedSocket);

}  // namespace platform
