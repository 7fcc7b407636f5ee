#include "Extension/ipc/ExtensionStatus.h"

#include "Platform/Common/JSONCoding.h"

namespace vantry {

std::optional<std::string> ExtensionStatus::encode() const {
    return platform::encodeDocument(*this);
}

std::variant<ExtensionStatus, platform::JSONFailure> ExtensionStatus::decode(
    std::string_view document) {
    return platform::decodeDocument<ExtensionStatus>(document);
}

}  // namespace vantry
