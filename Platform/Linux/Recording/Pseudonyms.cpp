#include "Platform/Linux/Recording/Pseudonyms.h"

#include <algorithm>
#include <array>

namespace platform::recording {

namespace {

using recorded::FieldKind;

constexpr std::size_t mostDocuments = 64;
constexpr std::size_t mostNames = 4096;

// Parts of names that mean something to the core, or say nothing about a person.
constexpr auto knownParts = std::to_array<std::string_view>(
    {"com",          "org",          "net",      "io",    "ch",      "app",         "apple",
     "Applications", "macOS",        "Contents", "tmp",   "PlugIns", "XPCServices", "WebKit",
     "Safari",       "Networking",   "xpc",      "appex", "json",    "rules",       "WebContent",
     "GPU",          "SearchHelper", "client",   "macos", "gui",     "mac",         "osx",
     "vpn",          "Vantry",       "quillmere"});
// Words of the documents.
constexpr auto knownWords = std::to_array<std::string_view>({"rules",
                                                             "defaultAction",
                                                             "vpnFallback",
                                                             "directFallback",
                                                             "vpnConnected",
                                                             "blockedApps",
                                                             "direct",
                                                             "vpn",
                                                             "block",
                                                             "allow",
                                                             "type",
                                                             "reload",
                                                             "getStatus",
                                                             "getActiveApps",
                                                             "clearActivityLog",
                                                             "isActive",
                                                             "ruleCount",
                                                             "success",
                                                             "logLevel",
                                                             "debug",
                                                             "info",
                                                             "error",
                                                             "tunnelManagers",
                                                             "providerBundleIdentifier",
                                                             "providerConfiguration",
                                                             "protocolConfiguration",
                                                             "personalAccounts",
                                                             "directCarriage",
                                                             "directDatagrams",
                                                             "relay",
                                                             "kernel",
                                                             ""});

bool isReplaced(FieldKind kind) {
    return kind == FieldKind::name || kind == FieldKind::path || kind == FieldKind::host ||
           kind == FieldKind::document;
}

bool isIn(const auto& words, std::string_view word) {
    return std::ranges::find(words, word) != words.end();
}

}  // namespace

// Most fields are no names, and stay as they are written.
std::string Pseudonyms::replaced(std::string_view lines) {
    std::string result;
    result.reserve(lines.size());
    std::size_t done = 0;
    for (auto tab = lines.find('\t'); tab < lines.size(); tab = lines.find('\t', tab)) {
        const auto begin = std::min(tab + 2, lines.size());
        const auto kind = static_cast<FieldKind>(lines[begin - 1]);
        tab = begin;
        if (!isReplaced(kind)) continue;
        const auto end = std::min(lines.find_first_of("\t\n", begin), lines.size());
        const auto text = lines.substr(begin, end - begin);
        const bool isEscaped = text.find('\\') != std::string_view::npos;
        result += lines.substr(done, begin - done);
        recorded::appendEscaped(result,
                                substitute(kind, isEscaped ? recorded::unescaped(text) : text));
        done = tab = end;
    }
    return result += lines.substr(done);
}

const std::string& Pseudonyms::substitute(FieldKind kind, std::string_view text) {
    if (kind == FieldKind::host) return host(text);
    return kind == FieldKind::document ? document(text) : name(text);
}

const std::string& Pseudonyms::part(std::string_view text) {
    const auto found = parts.find(text);
    if (found != parts.end()) return found->second;
    const bool stays = text.empty() || isIn(knownParts, text);
    auto substitute = stays ? std::string(text) : "n" + std::to_string(parts.size() + 1);
    return parts.emplace(text, std::move(substitute)).first->second;
}

const std::string& Pseudonyms::name(std::string_view text) {
    const auto found = names.find(text);
    if (found != names.end()) return found->second;
    if (names.size() >= mostNames) names.clear();
    return names.emplace(text, byParts(text)).first->second;
}

// Part by part, so that what lies below another name or folder still does. A name may be a path, and a path
// may hold names.
std::string Pseudonyms::byParts(std::string_view text) {
    std::string result;
    for (;;) {
        const auto end = text.find_first_of("./");
        result += part(text.substr(0, end));
        if (end == std::string_view::npos) return result;
        result += text[end];
        text.remove_prefix(end + 1);
    }
}

// From the blocks that are set aside for documentation and tests.
const std::string& Pseudonyms::host(std::string_view text) {
    const auto found = hosts.find(text);
    if (found != hosts.end()) return found->second;
    const auto count = hosts.size() + 1;
    auto substitute = "host" + std::to_string(count) + ".example";
    if (text.find(':') != std::string_view::npos) {
        substitute = "2001:db8::" + std::to_string(count % 10000);
    } else if (text.find_first_not_of("0123456789.") == std::string_view::npos) {
        substitute =
            "198.18." + std::to_string(count / 256 % 256) + "." + std::to_string(count % 256);
    }
    return hosts.emplace(text, std::move(substitute)).first->second;
}

// What is no whole document stays none.
const std::string& Pseudonyms::document(std::string_view text) {
    const auto found = documents.find(text);
    if (found != documents.end()) return found->second;
    const auto read = parseJSON(text);
    const auto* whole = std::get_if<JSONValue>(&read);
    JSONWriter writer;
    if (whole) writer.value(value(*whole));
    auto substitute = whole ? writer.finish().value_or("?") : "?";
    if (documents.size() >= mostDocuments) documents.clear();
    return documents.emplace(text, std::move(substitute)).first->second;
}

JSONValue Pseudonyms::value(const JSONValue& of) {
    if (const auto* text = of.as<std::string>())
        return isIn(knownWords, *text) ? *text : byParts(*text);
    if (const auto* list = of.as<JSONArray>()) {
        JSONArray replacedList;
        for (const auto& each : *list) replacedList.push_back(value(each));
        return replacedList;
    }
    const auto* object = of.as<JSONObject>();
    if (!object) return of;
    JSONObject replacedObject;
    for (const auto& [key, member] : *object)
        replacedObject[isIn(knownWords, key) ? key : byParts(key)] = value(member);
    return replacedObject;
}

}  // namespace platform::recording
