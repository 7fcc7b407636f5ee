// The document of the activity log file: the whole log, in the order in which its entries joined
// it, oldest first. The extension writes it, the host application reads it. A plain value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Extension/ipc/ActivityLogEntryIPC.h"
#include "Platform/Common/JSON.h"

namespace vantry {

struct ActivityLogResponseIPC {
    std::vector<ActivityLogEntryIPC> entries;

    // The JSON document; null if an entry cannot be encoded.
    std::optional<std::string> encode() const;
    static std::variant<ActivityLogResponseIPC, platform::JSONFailure> decode(
        std::string_view document);

    template <class Record, class Coder>
    static void codeFields(Record& record, Coder& coder) {
        coder("entries", record.entries);
    }

    friend bool operator==(const ActivityLogResponseIPC&, const ActivityLogResponseIPC&) = default;
};

}  // namespace vantry
