// Takes names and addresses out of a recording: the same one always gets the same substitute, and what lies
// below another one still does. Words that the core itself knows stay. One thread.
#pragma once

#include <string>
#include <string_view>

#include "Platform/Common/JSON.h"
#include "Platform/Common/RecordedFields.h"
#include "Platform/Common/StringHash.h"

namespace platform::recording {

class Pseudonyms {
public:
    // Whole lines, with or without a recording's head.
    std::string replaced(std::string_view lines);

private:
    const std::string& substitute(recorded::FieldKind kind, std::string_view text);
    const std::string& name(std::string_view text);
    std::string byParts(std::string_view text);
    const std::string& host(std::string_view text);
    const std::string& document(std::string_view text);
    JSONValue value(const JSONValue& of);
    const std::string& part(std::string_view text);

    StringMap<std::string> parts, hosts;
    StringMap<std::string> names, documents;  // the latest ones: they come again and again
};

}  // namespace platform::recording
