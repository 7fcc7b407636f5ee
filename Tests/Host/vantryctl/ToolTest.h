// Runs the tool as a person would, on a machine of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Places.h"
#include "Platform/Common/JSON.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

namespace vantryctl::testing {

using platform::testing::contentOf;
using platform::testing::memberByAccount;
using platform::testing::strangerAccount;
using platform::testing::vantryGroupId;
using platform::testing::writeFile;

struct Result {
    int exitCode;
    std::string out;
    std::string err;
};

inline Result runTool(std::vector<std::string> arguments) {
    std::ostringstream out;
    std::ostringstream err;
    const int exitCode = run(std::move(arguments), {out, err});
    return {exitCode, out.str(), err.str()};
}

inline platform::JSONValue parsed(const std::string& text) {
    auto document = platform::parseJSON(text);
    const auto* failure = std::get_if<platform::JSONFailure>(&document);
    EXPECT_EQ(failure, nullptr) << text << "\n" << (failure ? failure->description : "");
    return failure ? platform::JSONValue{} : std::get<platform::JSONValue>(std::move(document));
}

// The value under `key`; null if there is none.
inline platform::JSONValue under(const platform::JSONValue& value, std::string_view key) {
    const auto* object = value.as<platform::JSONObject>();
    if (object == nullptr) return {};
    const auto found = object->find(key);
    return found == object->end() ? platform::JSONValue{} : found->second;
}

inline std::string textUnder(const platform::JSONValue& value, std::string_view key) {
    const auto found = under(value, key);
    const auto* text = found.as<std::string>();
    return text == nullptr ? "" : *text;
}

inline platform::JSONArray listUnder(const platform::JSONValue& value, std::string_view key) {
    const auto found = under(value, key);
    const auto* list = found.as<platform::JSONArray>();
    return list == nullptr ? platform::JSONArray{} : *list;
}

// The six keys as the preferences and as the rules file have them.
inline platform::JSONValue storedInPreferences() {
    return under(under(parsed(contentOf(places::preferencesFile)), "protocolConfiguration"),
                 "providerConfiguration");
}
inline platform::JSONValue storedInRulesFile() { return parsed(contentOf(places::rulesFile)); }

// No line is wider than a terminal of 80 columns, counted in characters.
inline bool fitsTerminal(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const auto length = std::ranges::count_if(
            line, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; });
        if (length > 80) return false;
    }
    return true;
}

using ToolTest = platform::testing::PrivateMachine;

}  // namespace vantryctl::testing
