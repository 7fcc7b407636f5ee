// The answer to a request for the applications that were active of late. A plain value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Platform/Common/JSON.h"

namespace vantry {

struct ActiveAppsResponse {
    std::vector<std::string> bundleIds;  // each at most once, in no order

    // The JSON document; null if a text in it is not valid UTF-8.
    std::optional<std::string> encode() const;
    static std::variant<ActiveAppsResponse, platform::JSONFailure> decode(
        std::string_view document);

    template <class Record, class Coder>
    static void codeFields(Record& record, Coder& coder) {
        coder("bundleIds", record.bundleIds);
    }

    friend bool operator==(const ActiveAppsResponse&, const ActiveAppsResponse&) = default;
};

}  // namespace vantry
