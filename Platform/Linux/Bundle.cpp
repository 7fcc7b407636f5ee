#include <optional>
#include <string>
#include <utility>

#include "Platform/Foundation.h"
#include "Platform/Linux/Attribution/BundleIdentifiers.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/VirtualBundle.h"

namespace platform {

std::optional<NSBundle> NSBundle::bundleWithPath(std::string_view path) {
    if (auto identifier = virtualBundleIdentifier(path)) return NSBundle(std::move(identifier));
    auto identifier = bundleIdentifierAt(pathOfText(path));
    return identifier ? std::optional(NSBundle(std::move(identifier))) : std::nullopt;
}

}  // namespace platform
