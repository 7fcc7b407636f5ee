#include <sys/stat.h>

#include <optional>
#include <string>

#include "Platform/Foundation.h"
#include "Platform/Linux/Attribution/BundleIdentifiers.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/VirtualBundle.h"

namespace platform {

namespace {

bool isDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::optional<NSBundle> NSBundle::bundleWithPath(std::string_view path) {
    if (auto identifier = virtualBundleIdentifier(path)) return NSBundle(std::move(identifier));
    const auto directory = pathOfText(path);
    if (!isDirectory(directory)) return std::nullopt;
    return NSBundle(bundleIdentifierAt(directory));
}

}  // namespace platform
