#include "Extension/ipc/ActiveAppsResponse.h"

#include "Platform/Common/JSONCoding.h"

namespace vantry {

std::optional<std::string> ActiveAppsResponse::encode() const {
    return platform::encodeDocument(*this);
}

std::variant<ActiveAppsResponse, platform::JSONFailure> ActiveAppsResponse::decode(
    std::string_view document) {
    return platform::decodeDocument<ActiveAppsResponse>(document);
}

}  // namespace vantry
