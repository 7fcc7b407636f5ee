// The answer to a status request. A plain value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Platform/Common/JSON.h"

namespace vantry {

struct ExtensionStatus {
    bool isActive = false;       // whether the proxy is active
    std::int64_t ruleCount = 0;  // entries of the rule table

    std::optional<std::string> encode() const;
    static std::variant<ExtensionStatus, platform::JSONFailure> decode(std::string_view document);

    template <class Record, class Coder>
    static void codeFields(Record& record, Coder& coder) {
        coder("isActive", record.isActive);
        coder("ruleCount", record.ruleCount);
    }

    friend bool operator==(const ExtensionStatus&, const ExtensionStatus&) = default;
};

}  // namespace vantry
