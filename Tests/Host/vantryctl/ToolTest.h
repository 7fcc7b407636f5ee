// Runs the tool as a person would, on a machine of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Places.h"
#include "Platform/Common/JSON.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

namespace vantryctl::testing {

using platform::eventually;
using platform::JSONArray;
using platform::JSONObject;
using platform::JSONValue;
using platform::testing::contentOf;
using platform::testing::memberByAccount;
using platform::testing::replaceFile;
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

// The same for words without blanks.
inline Result runTool(const std::string& line) {
    std::istringstream words(line);
    return runTool(std::vector<std::string>{std::istream_iterator<std::string>(words), {}});
}

inline JSONValue parsed(const std::string& text) {
    auto document = platform::parseJSON(text);
    auto* value = std::get_if<JSONValue>(&document);
    EXPECT_NE(value, nullptr) << text;
    return value ? std::move(*value) : JSONValue{};
}

// The value under `key`; null if there is none.
inline JSONValue under(const JSONValue& value, std::string_view key) {
    const auto* object = value.as<JSONObject>();
    if (object == nullptr) return {};
    const auto found = object->find(key);
    return found == object->end() ? JSONValue{} : found->second;
}

inline std::string textUnder(const JSONValue& value, std::string_view key) {
    const auto found = under(value, key);
    return found.as<std::string>() ? *found.as<std::string>() : "";
}

inline JSONArray listUnder(const JSONValue& value, std::string_view key) {
    const auto found = under(value, key);
    return found.as<JSONArray>() ? *found.as<JSONArray>() : JSONArray{};
}

// The six keys as the preferences and as the rules file have them.
inline JSONValue storedInPreferences() {
    return under(under(parsed(contentOf(places::preferencesFile)), "protocolConfiguration"),
                 "providerConfiguration");
}
inline JSONValue storedInRulesFile() { return parsed(contentOf(places::rulesFile)); }

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
