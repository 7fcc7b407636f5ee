// From what the operating system says about a flow's owner to a bundle identifier. Stateless functions
// for both identity resolvers; any thread. Every failure is a plain "nothing" and is not logged: the
// callers decide what a missing answer means.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Common/Data.h"

namespace vantry::ProcessUtils {

// How many ancestors a walk up the process tree looks at.
inline constexpr int maximumAncestors = 5;

// One 32-bit word of an audit token in the machine's byte order. A token is eight words; nothing for
// a buffer of any other length than 32 bytes.
std::optional<std::uint32_t> wordOfAuditToken(const platform::Data& auditToken, std::size_t index);

// The process id in an audit token, word 5.
std::optional<std::int32_t> pidFromAuditToken(const platform::Data& auditToken);

// The parent's process id; 1 or less means that there is no usable parent.
std::int32_t getParentPid(std::int32_t pid);

// The path of the process's executable; nothing for a process that has gone, or for a path that does
// not fit 1024 bytes.
std::optional<std::string> getPathForPid(std::int32_t pid);

// The identifier of the bundle that holds the process's executable. Of nested bundles the outermost
// one answers, and an application goes before a service or an extension wherever they stand.
std::optional<std::string> getBundleIdForPid(std::int32_t pid);

// The bundle identifier of the nearest ancestor for which `isKnown` answers true. A parent without a
// bundle or with an unknown one counts as a step and does not end the walk; process 1 does.
template <std::predicate<const std::string&> IsKnown>
std::optional<std::string> nearestKnownAncestor(std::int32_t pid, IsKnown&& isKnown) {
    for (int step = 0; step < maximumAncestors; ++step) {
        pid = getParentPid(pid);
        if (pid <= 1) return std::nullopt;
        auto candidate = getBundleIdForPid(pid);
        if (candidate && isKnown(*candidate)) return candidate;
    }
    return std::nullopt;
}

}  // namespace vantry::ProcessUtils
