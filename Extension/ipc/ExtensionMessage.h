// A request of the host application to the extension: one document a message. A plain value.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Platform/Common/JSON.h"
#include "Platform/Common/StringHash.h"

namespace vantry {

enum class MessageType { getStatus, reload, getActiveApps, clearActivityLog };

// The word of each type in a document.
inline constexpr std::array<std::string_view, 4> messageTypeWords{
    "getStatus", "reload", "getActiveApps", "clearActivityLog"};
constexpr const auto& jsonWords(MessageType) { return messageTypeWords; }

struct ExtensionMessage {
    MessageType type = MessageType::getStatus;
    // Bundle identifier to decision word, for a reload. An empty table is not the same as none.
    std::optional<platform::StringMap<std::string>> rules;
    // The decision word of applications without a rule, for a reload.
    std::optional<std::string> defaultAction;

    // The JSON document; null if a text in it is not valid UTF-8.
    std::optional<std::string> encode() const;
    // All fields are checked, whatever the type.
    static std::variant<ExtensionMessage, platform::JSONFailure> decode(std::string_view document);

    template <class Record, class Coder>
    static void codeFields(Record& record, Coder& coder) {
        coder("type", record.type);
        coder("rules", record.rules);
        coder("defaultAction", record.defaultAction);
    }

    friend bool operator==(const ExtensionMessage&, const ExtensionMessage&) = default;
};

}  // namespace vantry
