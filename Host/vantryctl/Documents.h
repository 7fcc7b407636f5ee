// Reads the JSON files that the tool shares with the daemon, with the same distrust as the daemon,
// and says for a person what is wrong with one that cannot be used.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Host/vantryctl/Outcome.h"
#include "Platform/Common/JSON.h"

namespace vantryctl {

// The bytes of the file; no value if there is no such file.
Outcome<std::optional<std::string>> readFile(const std::string& path);

// The object in the file; no value if there is no such file.
Outcome<std::optional<platform::JSONObject>> readObject(const std::string& path);

// Replaces the file in one step.
Outcome<> replaceFile(const std::string& path, const std::string& bytes);

// The text under a key; `otherwise` if there is none.
std::string textUnder(const platform::JSONObject& object, std::string_view key,
                      const char* otherwise = "");

// The object as a document.
std::string documentOf(const platform::JSONObject& object);

}  // namespace vantryctl
