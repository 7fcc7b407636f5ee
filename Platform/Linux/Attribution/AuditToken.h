// The 32 bytes by which the extension knows the process behind a flow: eight words in the machine's
// byte order, of which word 1 holds the effective user id as it is shown, word 5 the process id and
// word 7 a version; the rest are zero. The version differs after an exec, after a reuse of the
// process id and when the process becomes part of another application, so that equal tokens mean
// the same program, in the same process, under the same name.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace platform {

using AuditToken = std::array<std::byte, 32>;

struct AuditTokenFields {
    uid_t effectiveUserId = 0;
    pid_t pid = 0;                  // 0: only the account is known
    std::uint64_t startTime = 0;    // in clock ticks since boot
    std::string_view executable{};  // its path
    std::string_view signingIdentifier{};
    bool isApplication = false;  // shown as no system account's, whoever runs it
};

// Any thread.
AuditToken makeAuditToken(const AuditTokenFields& fields);

}  // namespace platform
