#include "Extension/ipc/ExtensionMessage.h"

#include "Platform/Common/JSONCoding.h"

namespace vantry {

std::optional<std::string> ExtensionMessage::encode() const {
    return platform::encodeDocument(*this);
}

std::variant<ExtensionMessage, platform::JSONFailure> ExtensionMessage::decode(
    std::string_view document) {
    return platform::decodeDocument<ExtensionMessage>(document);
}

}  // namespace vantry
