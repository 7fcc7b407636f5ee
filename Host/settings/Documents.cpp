#include "Host/settings/Documents.h"

#include <fcntl.h>

#include <cerrno>

#include "Platform/Foundation.h"
#include "Platform/Linux/Files/TrustedFile.h"

namespace vantryhost {

using platform::JSONFailure;
using platform::JSONObject;
using platform::JSONValue;
using platform::NSFileManager;

namespace {

constexpr const char* asRoot = "Do it with sudo, or as a member of the group vantry.";

Failure unreadable(const std::string& path, const platform::Error& refusal) {
    if (refusal.code() == EACCES)
        return {ExitCode::notPermitted, path + " may not be read.", asRoot};
    return {ExitCode::failed, path + " cannot be read: " + refusal.text() + ".",
            "Look at it with ls -l, and move it away if no one needs it."};
}

Failure malformed(const std::string& name, const std::string& why) {
    return {ExitCode::failed, name + " is not what it should be: " + why + ".", ""};
}

}  // namespace

Outcome<std::optional<std::string>> readFile(const std::string& path) {
    const auto opened = platform::openTrustedFile(path, O_RDONLY);
    if (!opened && opened.error().code() == ENOENT) return std::nullopt;
    if (!opened) return unreadable(path, opened.error());
    const auto content = NSFileManager::defaultManager().contentsAtPath(path);
    if (!content) return unreadable(path, {EIO, "", "it changed while it was read"});
    return std::string(content->bytes().value_or(""));
}

Outcome<std::optional<JSONObject>> readObject(const std::string& path) {
    auto content = readFile(path);
    if (auto* failure = std::get_if<Failure>(&content)) return std::move(*failure);
    const auto& bytes = std::get<std::optional<std::string>>(content);
    if (!bytes) return std::nullopt;
    auto object = objectInOwnFile(path, *bytes);
    if (auto* failure = std::get_if<Failure>(&object)) return std::move(*failure);
    return std::get<JSONObject>(std::move(object));
}

Outcome<JSONObject> objectFrom(const std::string& name, std::string_view bytes) {
    auto document = platform::parseJSON(bytes);
    if (const auto* failure = std::get_if<JSONFailure>(&document))
        return malformed(name, failure->description);
    auto* object = std::get_if<JSONObject>(&std::get<JSONValue>(document).value);
    if (object == nullptr) return malformed(name, "it holds no object");
    return std::move(*object);
}

Outcome<JSONObject> objectInOwnFile(const std::string& path, std::string_view bytes) {
    auto object = objectFrom(path, bytes);
    if (auto* failure = std::get_if<Failure>(&object)) {
        failure->what += " It was left as it is.";
        failure->advice = "Correct it, or move it away: mv " + path + " " + path + ".broken";
    }
    return object;
}

Outcome<> replaceFile(const std::string& path, const std::string& bytes) {
    const auto failure = NSFileManager::defaultManager().writeAtomically(bytes, path);
    if (!failure) return Nothing{};
    const bool isForbidden = failure->code == EACCES || failure->code == EPERM;
    return Failure{isForbidden ? ExitCode::notPermitted : ExitCode::failed,
                   path + " cannot be written: " + failure->localizedDescription + ".",
                   isForbidden ? asRoot : ""};
}

namespace {

template <class Value>
const Value* valueUnder(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : found->second.as<Value>();
}

}  // namespace

std::string textUnder(const JSONObject& object, std::string_view key, const char* otherwise) {
    const auto* text = valueUnder<std::string>(object, key);
    return text == nullptr ? otherwise : *text;
}

const JSONObject* objectUnder(const JSONObject& object, std::string_view key) {
    return valueUnder<JSONObject>(object, key);
}

const platform::JSONArray* listUnder(const JSONObject& object, std::string_view key) {
    return valueUnder<platform::JSONArray>(object, key);
}

std::int64_t numberUnder(const JSONObject& object, std::string_view key) {
    const auto* number = valueUnder<std::int64_t>(object, key);
    return number == nullptr ? 0 : *number;
}

bool flagUnder(const JSONObject& object, std::string_view key) {
    const auto* flag = valueUnder<bool>(object, key);
    return flag != nullptr && *flag;
}

namespace {

// Texts come from documents and checked arguments, so they are valid and the writer has a result.
std::string written(platform::JSONWriter writer, const JSONObject& object) {
    writer.value(object);
    return writer.finish().value_or("") + "\n";
}

}  // namespace

std::string documentOf(const JSONObject& object) { return written(platform::JSONWriter(), object); }

std::string prettyDocumentOf(const JSONObject& object) {
    constexpr unsigned indentation = 2;
    return written(platform::JSONWriter(indentation), object);
}

}  // namespace vantryhost
