#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>

#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Places.h"
#include "Platform/Common/JSON.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

// Runs the tool as a person would, on a machine of the test's own.
namespace vantryctl {
namespace {

using platform::JSONObject;
using platform::JSONValue;
using namespace platform::testing;

struct Result {
    int exitCode;
    std::string out;
    std::string err;
};

Result runTool(std::vector<std::string> arguments) {
    std::ostringstream out;
    std::ostringstream err;
    const int exitCode = run(std::move(arguments), {out, err});
    return {exitCode, out.str(), err.str()};
}

// The same for words without blanks.
Result runTool(const std::string& line) {
    std::istringstream words(line);
    return runTool(std::vector<std::string>{std::istream_iterator<std::string>(words), {}});
}

JSONValue parsed(const std::string& text) {
    auto document = platform::parseJSON(text);
    auto* value = std::get_if<JSONValue>(&document);
    EXPECT_NE(value, nullptr) << text;
    return value ? std::move(*value) : JSONValue{};
}

// The value under `key`; null if there is none.
JSONValue under(const JSONValue& value, std::string_view key) {
    const auto* object = value.as<JSONObject>();
    if (object == nullptr) return {};
    const auto found = object->find(key);
    return found == object->end() ? JSONValue{} : found->second;
}

std::string textUnder(const JSONValue& value, std::string_view key) {
    const auto found = under(value, key);
    return found.as<std::string>() ? *found.as<std::string>() : "";
}

// The six keys as the preferences and as the rules file have them.
JSONValue storedInPreferences() {
    return under(under(parsed(contentOf(places::preferencesFile)), "protocolConfiguration"),
                 "providerConfiguration");
}
JSONValue storedInRulesFile() { return parsed(contentOf(places::rulesFile)); }

using RuleCommands = PrivateMachine;

TEST_F(RuleCommands, WhatTheExtensionDoesNotDoIsRefused) {
    const struct {
        std::string command;
        const char* says;
    } cases[] = {
        {"rules default block", "filter"},
        {"rules set a.b block", "vantryctl rules block a.b"},
        {"rules set a.b sideways", "vpn or direct"},
        {"rules fallback vpn maybe", "allow or block"},
        {"rules block", "required"},
        {"rules block a\x1b[2J", ""},
        {"rules block \xff", ""},
        {"rules block " + std::string(1024, 'x'), "1 to 1023 bytes"},
        {"frobnicate", ""},
    };
    for (const auto& [command, says] : cases) {
        const auto result = runTool(command);
        EXPECT_EQ(result.exitCode, 2) << result.err;
        EXPECT_NE(result.err.find(says), std::string::npos) << result.err;
        EXPECT_FALSE(std::filesystem::exists(places::preferencesFile)) << result.err;
        EXPECT_FALSE(std::filesystem::exists(places::rulesFile)) << result.err;
    }
}

TEST_F(RuleCommands, ForeignKeysStayInBothFiles) {
    platform::makeSharedFolder(places::preferencesFolder, platform::FolderAccess::trustedGroupOnly);
    writeFile(places::preferencesFile,
              R"({"logLevel":"debug","protocolConfiguration":{"providerBundleIdentifier":"x.y",
                  "providerConfiguration":{"theirs":[1,2.5,null],"rules":{"a":"vpn"}}}})");
    writeFile(places::rulesFile, R"({"rules":{},"another":{"deep":{"er":true}}})");
    const auto result = runTool("rules set b direct");
    EXPECT_NE(result.err.find("under rules;"), std::string::npos) << result.err;
    const auto preferences = parsed(contentOf(places::preferencesFile));
    EXPECT_EQ(textUnder(preferences, "logLevel"), "debug");
    EXPECT_EQ(textUnder(under(preferences, "protocolConfiguration"), "providerBundleIdentifier"),
              "x.y");
    EXPECT_EQ(under(storedInPreferences(), "theirs"), parsed("[1,2.5,null]"));
    EXPECT_EQ(under(storedInRulesFile(), "another"), parsed(R"({"deep":{"er":true}})"));
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"vpn","b":"direct"})"));
    // Without preferences, the rules file is all there is to go by.
    ASSERT_EQ(unlink(places::preferencesFile), 0);
    ASSERT_EQ(runTool("rules remove a").exitCode, 0);
    EXPECT_EQ(under(storedInPreferences(), "rules"), parsed(R"({"b":"direct"})"));
}

TEST_F(RuleCommands, PreferencesThatAreNotUnderstoodAreLeftAsTheyAre) {
    platform::makeSharedFolder(places::preferencesFolder, platform::FolderAccess::trustedGroupOnly);
    for (const std::string content :
         {"", "[]", R"({"protocolConfiguration":7})",
          R"({"protocolConfiguration":{"providerConfiguration":"x"}})",
          R"({"protocolConfiguration":{"providerConfiguration":{"rules":{"a":1}}}})",
          R"({"protocolConfiguration":{"providerConfiguration":{"blockedApps":{}}}})"}) {
        writeFile(places::preferencesFile, content);
        for (const char* command : {"rules set a direct", "rules show", "reload", "vpn down"}) {
            const auto result = runTool(command);
            EXPECT_EQ(result.exitCode, 1) << content;
            EXPECT_NE(result.err.find(places::preferencesFile), std::string::npos) << result.err;
        }
        EXPECT_EQ(contentOf(places::preferencesFile), content);
        EXPECT_FALSE(std::filesystem::exists(places::rulesFile));
    }
}

TEST_F(RuleCommands, ARulesFileThatCannotBeUsedIsReplacedButNotLost) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    const std::function<void()> harms[] = {
        [] { writeFile(places::rulesFile, "not json"); },
        [] { writeFile(places::rulesFile, R"({"rules":{"a":7}})"); },
        [] { ASSERT_EQ(chown(places::rulesFile, strangerAccount, 0), 0); },
        [] {
            unlink(places::rulesFile);
            ASSERT_EQ(symlink("/etc/passwd", places::rulesFile), 0);
        },
    };
    const auto before = contentOf("/etc/passwd");
    for (const auto& harm : harms) {
        harm();
        const auto result = runTool("reload");
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.err.find(".broken"), std::string::npos) << result.err;
        EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"direct"})"));
        EXPECT_TRUE(std::filesystem::exists(
            std::filesystem::symlink_status(std::string(places::rulesFile) + ".broken")));
    }
    EXPECT_EQ(contentOf("/etc/passwd"), before);
    // With nothing else to go by, nothing is guessed.
    ASSERT_EQ(unlink(places::preferencesFile), 0);
    writeFile(places::rulesFile, "not json");
    EXPECT_EQ(runTool("rules set b vpn").exitCode, 1);
    EXPECT_EQ(contentOf(places::rulesFile), "not json");
}

TEST_F(RuleCommands, WritersTakeTurns) {
    constexpr int writers = 6;
    constexpr int changes = 24;
    std::vector<pid_t> children;
    for (int writer = 0; writer < writers; ++writer) {
        children.push_back(fork());
        if (children.back() != 0) continue;
        int failures = 0;
        for (int change = 0; change < changes; ++change) {
            const auto name = "w" + std::to_string(writer) + ".c" + std::to_string(change);
            failures += runTool({"rules", "set", name, "direct"}).exitCode;
        }
        _exit(failures);
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    const auto rules = under(storedInPreferences(), "rules");
    EXPECT_EQ(rules.as<JSONObject>()->size(), std::size_t{writers * changes});
    EXPECT_EQ(storedInRulesFile(), storedInPreferences());
    const std::filesystem::directory_iterator files("/tmp");
    EXPECT_EQ(std::distance(files, {}), 1) << "nothing is left over beside the rules file";
}

TEST_F(RuleCommands, WhoMayNotChangeThingsIsToldSo) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    const auto before = contentOf(places::preferencesFile);
    const auto isRefused = [] { return runTool("rules set b vpn").exitCode == 4; };
    EXPECT_TRUE(succeedsAs(strangerAccount, {}, isRefused));
    // A member may, except where the rules file in /tmp is another user's.
    EXPECT_TRUE(succeedsAs(strangerAccount, {vantryGroupId}, isRefused));
    EXPECT_EQ(contentOf(places::preferencesFile), before);
    ASSERT_EQ(unlink(places::rulesFile), 0);
    EXPECT_TRUE(succeedsAs(memberByAccount, {vantryGroupId},
                           [] { return runTool("rules set b vpn").exitCode == 0; }));
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"direct","b":"vpn"})"));
    EXPECT_EQ(runTool("rules remove b").exitCode, 0);
    EXPECT_EQ(storedInRulesFile(), storedInPreferences());
}

TEST_F(RuleCommands, AFailureToWriteLeavesBothFilesAsTheyWere) {
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    const auto before = contentOf(places::preferencesFile);
    ASSERT_EQ(unlink(places::rulesFile), 0);
    ASSERT_EQ(mkdir(places::rulesFile, 0755), 0);
    ASSERT_EQ(mkdir((std::string(places::rulesFile) + ".broken").c_str(), 0755), 0);
    writeFile(std::string(places::rulesFile) + ".broken/keeps", "it");
    EXPECT_EQ(runTool("rules set b vpn").exitCode, 1);
    EXPECT_EQ(contentOf(places::preferencesFile), before);
}

}  // namespace
}  // namespace vantryctl
