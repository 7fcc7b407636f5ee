#include "Extension/ipc/ActivityLogResponseIPC.h"

#include "Platform/Common/JSONCoding.h"

namespace vantry {

std::optional<std::string> ActivityLogResponseIPC::encode() const {
    return platform::encodeDocument(*this);
}

std::variant<ActivityLogResponseIPC, platform::JSONFailure> ActivityLogResponseIPC::decode(
    std::string_view document) {
    return platform::decodeDocument<ActivityLogResponseIPC>(document);
}

}  // namespace vantry
