// The generic answer of the extension: success, or an error with a message. In a document the name
// of the alternative is the one key, and its value is an object with what belongs to it:
// {"success":{}} or {"error":{"_0":"the message"}}. A plain value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "Platform/Common/JSON.h"

namespace vantry {

struct ExtensionResponse {
    struct CodingKeys {
        static constexpr std::string_view success = "success";
        static constexpr std::string_view error = "error";
    };
    struct SuccessCodingKeys {};
    struct ErrorCodingKeys {
        // Named as on the wire: the message has no label of its own.
        static constexpr std::string_view _0 = "_0";  // NOLINT(readability-identifier-naming)
    };

    struct Success {
        template <class Record, class Coder>
        static void codeFields(Record&, Coder&) {}
        friend bool operator==(const Success&, const Success&) = default;
    };
    struct Error {
        std::string message;

        template <class Record, class Coder>
        static void codeFields(Record& record, Coder& coder) {
            coder(ErrorCodingKeys::_0, record.message);
        }
        friend bool operator==(const Error&, const Error&) = default;
    };

    static ExtensionResponse success() { return {Success{}}; }
    static ExtensionResponse error(std::string message) { return {Error{std::move(message)}}; }

    // The JSON document; null if the message is not valid UTF-8.
    std::optional<std::string> encode() const;
    static std::variant<ExtensionResponse, platform::JSONFailure> decode(std::string_view document);

    friend bool operator==(const ExtensionResponse&, const ExtensionResponse&) = default;

    std::variant<Success, Error> alternative;
};

}  // namespace vantry
