#include "Extension/ipc/ActivityLogResponseIPC.h"

#include "Platform/Common/JSONCoding.h"

namespace vantry {

static constexpr std::size_t usualEntrySize = 350;  // in bytes

std::optional<std::string> ActivityLogResponseIPC::encode() const {
    return platform::encodeDocument(*this, entries.size() * usualEntrySize);
}

std::variant<ActivityLogResponseIPC, platform::JSONFailure> ActivityLogResponseIPC::decode(
    std::string_view document) {
    return platform::decodeDocument<ActivityLogResponseIPC>(document);
}

}  // namespace vantry
