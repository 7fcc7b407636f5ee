#include "Extension/ipc/ExtensionResponse.h"

#include "Platform/Common/JSONCoding.h"

namespace vantry {
namespace {

using platform::JSONDecoding;
using platform::JSONMismatch;
using platform::JSONObject;
using platform::JSONValue;

template <class Alternative>
JSONDecoding decodeAlternative(std::string_view key, JSONValue& value,
                               ExtensionResponse& response) {
    auto& alternative = response.alternative.emplace<Alternative>();
    auto result = decodeValue(value, alternative);
    if (result) result = std::move(*result).insideMember(key);
    return result;
}

}  // namespace

static JSONDecoding decodeValue(JSONValue& value, ExtensionResponse& response) {
    using Keys = ExtensionResponse::CodingKeys;
    auto* object = std::get_if<JSONObject>(&value.value);
    if (!object) return platform::unexpectedValue("an object", value);
    const auto success = object->find(Keys::success);
    const auto error = object->find(Keys::error);
    if ((success == object->end()) == (error == object->end()))
        return JSONMismatch{{}, "Invalid number of keys found, expected one."};
    if (error != object->end())
        return decodeAlternative<ExtensionResponse::Error>(Keys::error, error->second, response);
    return decodeAlternative<ExtensionResponse::Success>(Keys::success, success->second, response);
}

static void encodeValue(platform::JSONWriter& writer, const ExtensionResponse& response) {
    using Keys = ExtensionResponse::CodingKeys;
    const auto* error = std::get_if<ExtensionResponse::Error>(&response.alternative);
    platform::JSONFieldWriter coder(writer);
    writer.beginObject();
    if (error)
        coder(Keys::error, *error);
    else
        coder(Keys::success, ExtensionResponse::Success{});
    writer.endObject();
}

std::optional<std::string> ExtensionResponse::encode() const {
    return platform::encodeDocument(*this);
}

std::variant<ExtensionResponse, platform::JSONFailure> ExtensionResponse::decode(
    std::string_view document) {
    return platform::decodeDocument<ExtensionResponse>(document);
}

}  // namespace vantry
