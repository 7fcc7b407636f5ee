#include "Platform/Linux/Attribution/VirtualBundle.h"

#include <array>
#include <charconv>

#include "Platform/Common/Text.h"
#include "Platform/Linux/Attribution/StableHash.h"

namespace platform {

namespace {

constexpr std::string_view virtualFolder = "//applications/";
constexpr std::string_view virtualSuffix = ".app";
constexpr std::string_view virtualProgram = "/program";
constexpr std::string_view slashEscape = "%2F";
constexpr std::string_view percentEscape = "%25";

// A directory name for any text: only the slash and the escape's own sign have to go.
std::string directoryName(std::string_view identifier) {
    std::string name;
    for (const char byte : identifier) {
        if (byte == '/') {
            name += slashEscape;
        } else if (byte == '%') {
            name += percentEscape;
        } else {
            name += byte;
        }
    }
    return name;
}

std::string identifierOfDirectoryName(std::string_view name) {
    std::string identifier;
    while (!name.empty()) {
        const bool isSlash = name.starts_with(slashEscape);
        const bool isEscape = isSlash || name.starts_with(percentEscape);
        identifier += isSlash ? '/' : name[0];
        name.remove_prefix(isEscape ? percentEscape.size() : 1);
    }
    return identifier;
}

std::string hexadecimal(std::uint64_t number) {
    std::array<char, 16> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), number, 16).ptr;
    return {digits.begin(), end};
}

}  // namespace

std::string identifierThatFits(std::string_view identifier) {
    const auto length = virtualProgramPath(identifier).size();
    if (length <= longestShownPath) return std::string(identifier);
    auto kept = identifier.substr(0, 200);
    while (!isValidUTF8(kept)) kept.remove_suffix(1);
    StableHash hash;
    hash.add(identifier);
    return std::string(kept) + "~" + hexadecimal(hash.value());
}

std::string virtualProgramPath(std::string_view identifier) {
    std::string path(virtualFolder);
    path += directoryName(identifier);
    path += virtualSuffix;
    path += virtualProgram;
    return path;
}

std::optional<std::string> virtualBundleIdentifier(std::string_view bundlePath) {
    if (!bundlePath.starts_with(virtualFolder) || !bundlePath.ends_with(virtualSuffix))
        return std::nullopt;
    bundlePath.remove_prefix(virtualFolder.size());
    bundlePath.remove_suffix(virtualSuffix.size());
    if (bundlePath.empty() || bundlePath.find('/') != std::string_view::npos) return std::nullopt;
    return identifierOfDirectoryName(bundlePath);
}

}  // namespace platform
