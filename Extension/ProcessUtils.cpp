#include "Extension/ProcessUtils.h"

#include <array>
#include <cstring>
#include <string_view>

#include "Platform/Foundation.h"
#include "Platform/LibProc.h"

namespace vantry::ProcessUtils {
namespace {

constexpr std::size_t auditTokenSize = 32;
constexpr std::size_t pidWord = 5;
constexpr std::size_t pathBufferSize = 1024;
constexpr std::array<std::string_view, 3> bundleSuffixes{".app", ".xpc", ".appex"};

// The path up to and including the first `suffix` that ends a directory name, or else the first one
// anywhere; empty if there is none.
std::string_view bundlePath(std::string_view path, std::string_view suffix) {
    auto found = path.find(std::string(suffix) + "/");
    if (found == std::string_view::npos) found = path.find(suffix);
    return found == std::string_view::npos ? std::string_view{}
                                           : path.substr(0, found + suffix.size());
}

}  // namespace

std::optional<std::uint32_t> wordOfAuditToken(const platform::Data& auditToken, std::size_t index) {
    const auto bytes = auditToken.bytes();
    if (!bytes || bytes->size() != auditTokenSize) return std::nullopt;
    std::uint32_t word = 0;
    std::memcpy(&word, bytes->data() + index * sizeof word, sizeof word);
    return word;
}

std::optional<std::int32_t> pidFromAuditToken(const platform::Data& auditToken) {
    const auto word = wordOfAuditToken(auditToken, pidWord);
    if (!word) return std::nullopt;
    return static_cast<std::int32_t>(*word);
}

std::int32_t getParentPid(std::int32_t pid) {
    platform::proc_bsdinfo info;
    if (platform::proc_pidinfo(pid, platform::PROC_PIDTBSDINFO, 0, info) <= 0) return 0;
    return static_cast<std::int32_t>(info.pbi_ppid);
}

std::optional<std::string> getPathForPid(std::int32_t pid) {
    std::array<char, pathBufferSize> buffer{};
    if (platform::proc_pidpath(pid, buffer.data(), static_cast<std::uint32_t>(buffer.size())) < 1)
        return std::nullopt;
    return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
}

std::optional<std::string> getBundleIdForPid(std::int32_t pid) {
    const auto path = getPathForPid(pid);
    if (!path) return std::nullopt;
    for (const auto suffix : bundleSuffixes) {
        const auto directory = bundlePath(*path, suffix);
        if (directory.empty()) continue;
        const auto bundle = platform::NSBundle::bundleWithPath(directory);
        if (bundle && bundle->bundleIdentifier()) return bundle->bundleIdentifier();
    }
    return std::nullopt;
}

}  // namespace vantry::ProcessUtils
