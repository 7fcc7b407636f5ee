// Reads the JSON files that the host application shares with the daemon, with the same distrust as the
// daemon, and says for a person what is wrong with one that cannot be used.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Host/settings/Outcome.h"
#include "Platform/Common/JSON.h"

namespace vantryhost {

// The bytes of the file; no value if there is no such file.
Outcome<std::optional<std::string>> readFile(const std::string& path);

// The object in a file of the settings' own; no value if there is no such file.
Outcome<std::optional<platform::JSONObject>> readObject(const std::string& path);

// Replaces the file in one step.
Outcome<> replaceFile(const std::string& path, const std::string& bytes);

// The object that `bytes` hold, which came from what is named so.
Outcome<platform::JSONObject> objectFrom(const std::string& name, std::string_view bytes);
// The same of the content of one of the settings' own files, which may be moved away where it is broken.
Outcome<platform::JSONObject> objectInOwnFile(const std::string& path, std::string_view bytes);

// The text under a key; `otherwise` if there is none.
std::string textUnder(const platform::JSONObject& object, std::string_view key,
                      const char* otherwise = "");

// The value under a key; null, 0 or false if there is none of that type.
const platform::JSONObject* objectUnder(const platform::JSONObject& object, std::string_view key);
const platform::JSONArray* listUnder(const platform::JSONObject& object, std::string_view key);
std::int64_t numberUnder(const platform::JSONObject& object, std::string_view key);
bool flagUnder(const platform::JSONObject& object, std::string_view key);

// The object as a document: in one line for programs, indented for people.
std::string documentOf(const platform::JSONObject& object);
std::string prettyDocumentOf(const platform::JSONObject& object);

}  // namespace vantryhost
