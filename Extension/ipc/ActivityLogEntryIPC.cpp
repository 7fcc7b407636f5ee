#include "Extension/ipc/ActivityLogEntryIPC.h"

#include "Platform/Common/JSONCoding.h"

namespace vantry {

std::optional<std::string> ActivityLogEntryIPC::encode() const {
    return platform::encodeDocument(*this);
}

std::variant<ActivityLogEntryIPC, platform::JSONFailure> ActivityLogEntryIPC::decode(
    std::string_view document) {
    return platform::decodeDocument<ActivityLogEntryIPC>(document);
}

}  // namespace vantry
