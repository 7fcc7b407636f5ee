// Reads the identifiers of real bundle directories, and finds the bundles that a program's path runs
// through. Paths here are bytes, as the file system has them. Any thread; an answer may be half a second
// old, and does not wait for a file system that hangs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The identifier in an XML property list; null if the text is none or names no usable identifier:
// one of up to 255 bytes of valid UTF-8 without control characters. Of several the last counts.
std::optional<std::string> identifierInPropertyList(std::string_view text);

// What the bundle directory at `path` calls itself, in its `Contents/Info.plist` or else in its
// `Info.plist`. Null if it doesn't say, if the list cannot be read or is larger than a mebibyte.
std::optional<std::string> bundleIdentifierAt(const std::string& path);

// The identifier of the innermost bundle around the program at `path`: what the program would be
// signed as. Null if it lies in no bundle that has an identifier.
std::optional<std::string> innermostBundleIdentifier(const std::string& path);

// True if a search of `path` from the left, first for ".app", then for ".xpc", then for ".appex",
// meets a bundle that has an identifier. It is how the extension searches.
bool showsBundle(const std::string& path);

}  // namespace platform
