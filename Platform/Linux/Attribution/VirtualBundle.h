// Programs that live in no bundle are shown to the extension as if they did: inside a virtual bundle
// whose path holds nothing but the identifier. Such a path begins with an empty directory name, which
// no path of a real file has. Searched for its first ".app/" it yields exactly the bundle, whatever
// the identifier is. Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The longest path that proc_pidpath can show, without its NUL.
inline constexpr std::size_t longestShownPath = 1023;

// `identifier` itself, or a shorter one with a hash of it behind, if its virtual bundle would not
// fit in a path that can be shown.
std::string identifierThatFits(std::string_view identifier);

// The path of a program inside the virtual bundle of `identifier`, which fits.
std::string virtualProgramPath(std::string_view identifier);

// The identifier of the virtual bundle at `bundlePath`; null if that is the path of none.
std::optional<std::string> virtualBundleIdentifier(std::string_view bundlePath);

}  // namespace platform
