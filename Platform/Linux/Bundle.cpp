#include <optional>
#include <string>
#include <utility>

#include "Platform/Foundation.h"
#include "Platform/Linux/Attribution/BundleIdentifiers.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/VirtualBundle.h"
#include "Platform/Linux/Recording/RecordedSystem.h"

namespace platform {

std::optional<NSBundle> NSBundle::bundleWithPath(std::string_view path) {
    auto identifier = virtualBundleIdentifier(path);
    std::optional<NSBundle> bundle;
    if (identifier)
        bundle = NSBundle(std::move(identifier));
    else if (auto real = bundleIdentifierAt(pathOfText(path)))
        bundle = NSBundle(std::move(real));
    recording::noteBundle(path, bundle);
    return bundle;
}

}  // namespace platform
