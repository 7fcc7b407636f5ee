#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <iterator>
#include <optional>
#include <thread>

#include "Host/settings/Places.h"
#include "Host/vantry-settings/SettingsService.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/ReportCommand.h"
#include "Platform/Common/JSON.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

// Runs the tool as a person would, on a machine of the test's own.
namespace vantryctl {
namespace {

using platform::JSONObject;
using platform::JSONValue;
using namespace platform::testing;
using platform::eventually;

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

// The six keys as the preferences and as the rules file have them.
JSONValue storedInPreferences() {
    return under(under(parsed(contentOf(places::preferencesFile)), "protocolConfiguration"),
                 "providerConfiguration");
}
JSONValue storedInRulesFile() { return parsed(contentOf(places::rulesFile)); }

std::string withTemporaryRule(std::time_t until) {
    return R"({"protocolConfiguration":{"providerConfiguration":{"rules":{"a":"direct"}}},
        "temporaryRules":[{"application":"a","until":)" +
           std::to_string(until) + "}]}";
}

// With the settings service at work, as on any machine of a user's.
class RuleCommands : public PrivateMachine {
protected:
    void SetUp() override {
        PrivateMachine::SetUp();
        if (!IsSkipped()) startService();
    }
    void TearDown() override { stopService(); }

    void startService() {
        service.emplace();
        serving = std::thread([this] { service->run(); });
        ASSERT_TRUE(eventually([] { return runTool("rules show").exitCode != 3; }));
    }
    void stopService() {
        if (!service) return;
        service->stop();
        serving.join();
        service.reset();
    }
    // As if the service had found `content` at its start.
    void startServiceWith(const std::string& preferences) {
        stopService();
        writeFile(places::preferencesFile, preferences);
        startService();
    }

private:
    std::optional<vantrysettings::SettingsService> service;
    std::thread serving;
};

TEST_F(RuleCommands, WhatTheExtensionDoesNotDoIsRefused) {
    const struct {
        std::string command;
        const char* says;
    } cases[] = {
        {"rules default block", "filter"},
        {"rules set a.b block", "vantryctl rules block a.b"},
        {"rules set a.b sideways", "vpn or direct"},
        {"rules set a.b vpn direct", "\"vpn\" is a route"},
        {"rules sett a.b direct", "vantryctl rules set"},
        {"stauts", "vantryctl status"},
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

TEST_F(RuleCommands, FilesAndProcessesAreNamedAsRulesKnowThem) {
    writeFile("/run/a.script", "#!/usr/bin/env -S sh -e\n");
    const auto shell = runTool("identify /bin/sh --json").out;
    const auto identifier = *under(parsed(shell), "bundleId").as<std::string>();
    EXPECT_EQ(runTool("rules set /bin/sh direct").exitCode, 0);
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed("{\"" + identifier + "\":\"direct\"}"));
    EXPECT_EQ(runTool("rules remove /run/a.script").exitCode, 0);
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed("{}"));
    EXPECT_EQ(runTool("rules set " + std::to_string(getpid()) + " direct").exitCode, 0);
    EXPECT_NE(contentOf(places::rulesFile).find("host_tests"), std::string::npos);
    // What is not known is said, with what may be meant; what is known has nothing to be said of.
    const auto misspelt = runTool("rules block host_test");
    EXPECT_NE(misspelt.err.find("Did you mean"), std::string::npos) << misspelt.err;
    EXPECT_NE(runTool("rules block git").err.find("git-remote-http"), std::string::npos);
    EXPECT_EQ(runTool("rules block " + identifier).err.find("No application"), std::string::npos);
    // A helper of a blocked application.
    EXPECT_EQ(runTool("rules block org.mail").exitCode, 0);
    const auto helper = runTool("rules unblock org.mail.agent");
    EXPECT_NE(helper.err.find("as org.mail is"), std::string::npos) << helper.err;
}

TEST_F(RuleCommands, ThePreferencesStayReadableAndForeignKeysInTheirPlace) {
    startServiceWith(
        R"({"logLevel":"debug","protocolConfiguration":{"providerBundleIdentifier":"x.y",
        "providerConfiguration":{"theirs":[1,2.5,null],"rules":{"a":"vpn"}}}})");
    ASSERT_EQ(chmod(places::preferencesFile, 0600), 0);
    umask(0);
    ASSERT_EQ(runTool("rules set b direct").exitCode, 0);
    EXPECT_EQ(contentOf(places::preferencesFile).find("{\n  \"logLevel\": \"debug\",\n"), 0U);
    EXPECT_EQ(under(storedInPreferences(), "theirs"), parsed("[1,2.5,null]"));
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"vpn","b":"direct"})"));
    struct stat file {};
    ASSERT_EQ(stat(places::preferencesFile, &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0640U);
    // An edit by hand counts too.
    replaceFile(places::preferencesFile,
                R"({"protocolConfiguration":{"providerConfiguration":{"blockedApps":["c"]}}})");
    EXPECT_TRUE(
        eventually([] { return under(storedInRulesFile(), "blockedApps") == parsed(R"(["c"])"); }));
    // Rules from before the service are taken over where nothing else is known.
    stopService();
    ASSERT_EQ(unlink(places::preferencesFile), 0);
    writeFile(places::rulesFile, R"({"rules":{"old":"direct"},"defaultAction":"direct"})");
    startService();
    EXPECT_EQ(under(storedInPreferences(), "rules"), parsed(R"({"old":"direct"})"));
}

TEST_F(RuleCommands, PreferencesThatAreNotUnderstoodAreLeftAsTheyAre) {
    for (const std::string content :
         {"", "[]", R"({"protocolConfiguration":7})",
          R"({"protocolConfiguration":{"providerConfiguration":{"rules":{"a":1}}}})",
          R"({"temporaryRules":[7]})"}) {
        startServiceWith(content);
        for (const char* command : {"rules set a direct", "rules show", "reload", "vpn down"}) {
            const auto result = runTool(command);
            EXPECT_EQ(result.exitCode, 1) << content;
            EXPECT_NE(result.err.find(places::preferencesFile), std::string::npos) << result.err;
        }
        EXPECT_EQ(contentOf(places::preferencesFile), content);
        EXPECT_FALSE(std::filesystem::exists(places::rulesFile)) << "nothing was ever set";
    }
    // Nor does what ends meanwhile have them written.
    startServiceWith(withTemporaryRule(std::time(nullptr) + 2));
    replaceFile(places::preferencesFile, "{");
    EXPECT_TRUE(eventually([] { return under(storedInRulesFile(), "rules") == parsed("{}"); }));
    EXPECT_EQ(contentOf(places::preferencesFile), "{");
    // What was last understood holds, also from the next boot on, until it is put back.
    unlink(places::preferencesFile);
    ASSERT_TRUE(eventually([] { return runTool("rules set b vpn").exitCode == 0; }));
    stopService();
    unlink(places::rulesFile);
    startServiceWith("{");
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"b":"vpn"})"));
    EXPECT_EQ(runTool("undo").exitCode, 0);
    EXPECT_EQ(under(storedInPreferences(), "rules"), parsed(R"({"b":"vpn"})"));
}

TEST_F(RuleCommands, WhateverTakesTheRulesFilesPlaceIsMovedAside) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    const auto before = contentOf("/etc/passwd");
    const std::function<void()> harms[] = {
        [] { unlink(places::rulesFile); },
        [] { writeFile(places::rulesFile, R"({"rules":{"a":7}})"); },
        [] { ASSERT_EQ(chown(places::rulesFile, strangerAccount, 0), 0); },
        [] {
            while (symlink("/etc/passwd", places::rulesFile) != 0) unlink(places::rulesFile);
        },
        [] {
            // The service may have put the file back between the two.
            while (mkdir(places::rulesFile, 0755) != 0) unlink(places::rulesFile);
        },
    };
    for (const auto& harm : harms) {
        harm();
        EXPECT_TRUE(eventually([] {
            struct stat file {};
            return lstat(places::rulesFile, &file) == 0 && S_ISREG(file.st_mode) &&
                   file.st_uid == 0 &&
                   contentOf(places::rulesFile).find(R"({"a":"direct"})") != std::string::npos;
        }));
    }
    EXPECT_EQ(contentOf("/etc/passwd"), before);
    const std::filesystem::directory_iterator files("/tmp");
    EXPECT_EQ(std::distance(files, {}), 4) << "three things moved aside, and the file";
}

// The tool looks names up on threads of its own, which a process that was forked from one with threads
// cannot start under the thread sanitizer.
#ifdef __SANITIZE_THREAD__
constexpr bool canRunToolInFork = false;
#else
constexpr bool canRunToolInFork = true;
#endif
constexpr const char* needsFork = "the thread sanitizer starts no threads after a fork";

TEST_F(RuleCommands, WritersTakeTurns) {
    if (!canRunToolInFork) GTEST_SKIP() << needsFork;
    constexpr int writers = 6;
    constexpr int changes = 12;
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
    EXPECT_EQ(under(storedInRulesFile(), "rules"), rules);
    const std::filesystem::directory_iterator files("/tmp");
    EXPECT_EQ(std::distance(files, {}), 1) << "nothing is left over beside the rules file";
}

TEST_F(RuleCommands, MembersChangeThingsWhoeverWroteLastAndStrangersAreToldSo) {
    if (!canRunToolInFork) GTEST_SKIP() << needsFork;
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    EXPECT_TRUE(
        succeedsAs(strangerAccount, {}, [] { return runTool("rules set b vpn").exitCode == 4; }));
    EXPECT_TRUE(succeedsAs(memberByAccount, {vantryGroupId},
                           [] { return runTool("rules set b vpn").exitCode == 0; }));
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"direct","b":"vpn"})"));
    EXPECT_EQ(runTool("rules remove b").exitCode, 0);
    // A member's own file, written by hand before they left the group, is no less the truth.
    ASSERT_EQ(chown(places::preferencesFile, strangerAccount, vantryGroupId), 0);
    stopService();
    startService();
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"direct"})"));
    stopService();
    const auto result = runTool("rules set c vpn");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_NE(result.err.find("systemctl start vantry-settings"), std::string::npos) << result.err;
}

TEST_F(RuleCommands, AFullDiskLeavesEverythingAsItWas) {
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    const auto before = contentOf(places::preferencesFile);
    ASSERT_EQ(mount("tmpfs", "/var/lib", "tmpfs", MS_REMOUNT, "size=64k"), 0);
    writeFile("/var/lib/filler", std::string(65536, 'x'));
    const auto result = runTool("rules set b vpn");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("Make room"), std::string::npos) << result.err;
    EXPECT_EQ(contentOf(places::preferencesFile), before);
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"a":"direct"})"));
    ASSERT_EQ(unlink("/var/lib/filler"), 0);
    EXPECT_EQ(runTool("rules set b vpn").exitCode, 0);
    EXPECT_EQ(runTool("undo").exitCode, 0);
    EXPECT_EQ(contentOf(places::preferencesFile), before);
    // But what ends is out of force, and stored once there is room.
    stopService();
    writeFile(places::preferencesFile, withTemporaryRule(1));
    writeFile("/var/lib/filler", std::string(65536, 'x'));
    startService();
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed("{}"));
    EXPECT_NE(runTool("status").out.find("Make room"), std::string::npos);
    ASSERT_EQ(unlink("/var/lib/filler"), 0);
    EXPECT_TRUE(eventually(
        [] { return contentOf(places::preferencesFile).find("until") == std::string::npos; }));
}

TEST_F(RuleCommands, WhatIsShownIsInForce) {
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    const auto before = contentOf(places::preferencesFile);
    ASSERT_EQ(unlink(places::preferencesFile), 0);
    EXPECT_TRUE(eventually([&] { return contentOf(places::preferencesFile) == before; }));
    startServiceWith("{");
    ASSERT_EQ(unlink(places::preferencesFile), 0);
    EXPECT_TRUE(eventually([&] {
        return under(parsed(runTool("rules --json").out), "rules") == parsed(R"({"a":"direct"})");
    })) << "of damaged preferences, what is in force stays";

    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", MS_REMOUNT, "size=64k"), 0);
    writeFile("/tmp/filler", std::string(65536, 'x'));
    const auto result = runTool("rules block b");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("not in force"), std::string::npos) << result.err;
    ASSERT_EQ(unlink("/tmp/filler"), 0);
    EXPECT_TRUE(
        eventually([] { return under(storedInRulesFile(), "blockedApps") == parsed(R"(["b"])"); }));
}

TEST_F(RuleCommands, WhatIsTemporaryOrOnTrialEndsAlsoOverARestart) {
    const auto rules = [] { return under(storedInRulesFile(), "rules"); };
    const auto blocked = [] { return under(storedInRulesFile(), "blockedApps"); };
    // The clock comes to the end of it while the service is down.
    const auto letTimePass = [this] {
        stopService();
        auto stored = contentOf(places::preferencesFile);
        stored.replace(stored.find("\"until\": "), 19, "\"until\": 100000000");
        writeFile(places::preferencesFile, stored);
        startService();
    };
    ASSERT_EQ(runTool("rules set a vpn").exitCode, 0);
    ASSERT_EQ(runTool("rules set a direct --for 2h").exitCode, 0);
    EXPECT_EQ(rules(), parsed(R"({"a":"direct"})"));
    EXPECT_NE(runTool("rules").out.find("FOR THE TIME BEING"), std::string::npos);
    EXPECT_EQ(runTool("rules set a direct --for soon").exitCode, 2);
    // The rule is temporary still, whatever becomes of the block.
    ASSERT_EQ(runTool("rules block a").exitCode, 0);
    ASSERT_EQ(runTool("rules unblock a").exitCode, 0);
    letTimePass();
    EXPECT_EQ(rules(), parsed(R"({"a":"vpn"})"));

    ASSERT_EQ(runTool("try --for 1h rules set b direct").exitCode, 0);
    EXPECT_EQ(rules(), parsed(R"({"a":"vpn","b":"direct"})"));
    EXPECT_EQ(runTool("confirm").exitCode, 0);
    EXPECT_EQ(runTool("confirm").exitCode, 1) << "nothing is on trial any more";
    // What is taken back is the whole of it: the trial does not begin again.
    EXPECT_EQ(runTool("undo").exitCode, 0);
    EXPECT_EQ(rules(), parsed(R"({"a":"vpn"})"));
    EXPECT_EQ(contentOf(places::preferencesFile).find("trial"), std::string::npos);
    ASSERT_EQ(runTool("rules set b direct").exitCode, 0);
    EXPECT_NE(runTool("try --for 1h rules block b").out.find("On trial"), std::string::npos);
    const auto second = runTool("try --for 3h rules set e vpn").out;
    EXPECT_NE(second.find("On trial"), std::string::npos) << second;
    EXPECT_EQ(second.find("3 h"), std::string::npos) << "it ends with the first: " << second;
    EXPECT_EQ(runTool("try undo").exitCode, 2) << "it would not be taken back";
    // Beside the trial: the one to stay, the other with an end of its own.
    ASSERT_EQ(runTool("rules block c").exitCode, 0);
    ASSERT_EQ(runTool("rules block d --for 1s").exitCode, 0);
    EXPECT_TRUE(eventually([&] { return blocked() == parsed(R"(["b","c"])"); }));
    letTimePass();
    EXPECT_EQ(blocked(), parsed(R"(["c"])"));
    EXPECT_EQ(rules(), parsed(R"({"a":"vpn","b":"direct"})"));
    for (int change = 0; change < 2; ++change) EXPECT_EQ(runTool("undo").exitCode, 0);
    EXPECT_EQ(rules(), parsed(R"({"a":"vpn"})")) << "what has ended by itself is no change";
}

TEST_F(RuleCommands, SwitchedOffTheRulesAreKeptButDoNotHold) {
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    ASSERT_EQ(runTool("rules fallback vpn block").exitCode, 0);
    const auto before = storedInRulesFile();
    ASSERT_EQ(runTool("off").exitCode, 0);
    stopService();
    startService();
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed("{}"));
    EXPECT_EQ(under(storedInRulesFile(), "vpnFallback"), parsed(R"("allow")"));
    EXPECT_NE(runTool("rules").out.find("switched off"), std::string::npos);
    ASSERT_EQ(runTool("on").exitCode, 0);
    EXPECT_EQ(storedInRulesFile(), before);
}

TEST_F(RuleCommands, SetupAsksNothingWhereAllIsSaidAndAReportNamesNoOne) {
    const auto asked = runTool("setup --default vpn");
    EXPECT_EQ(asked.exitCode, 2);
    EXPECT_NE(asked.err.find("--fallback"), std::string::npos) << asked.err;
    EXPECT_EQ(runTool("setup --default direct --except org.secret.mail --fallback block").exitCode,
              3)
        << "what is set cannot be verified without the daemon";
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"org.secret.mail":"vpn"})"));
    EXPECT_EQ(under(storedInRulesFile(), "vpnFallback"), parsed(R"("block")"));
    const auto report = runTool("report");
    EXPECT_EQ(report.out.find("secret"), std::string::npos) << report.out;
    EXPECT_NE(report.out.find("(application 1)"), std::string::npos) << report.out;
    EXPECT_NE(runTool("report --plain").out.find("secret"), std::string::npos);
    Redaction redaction({"curl"});
    EXPECT_EQ(
        redaction.of("curl to [2001:db8::1]:443, 203.0.113.7:80, 203.0.113.7. curly 12:30:45"),
        "(application 1) to [(address 1)]:443, (address 2):80, (address 2). curly 12:30:45");
}

TEST_F(RuleCommands, SettingsTravelAsADocument) {
    ASSERT_EQ(runTool("rules set a direct").exitCode, 0);
    ASSERT_EQ(runTool("rules block b").exitCode, 0);
    const auto exported = runTool("export");
    writeFile("/run/settings.json", exported.out);
    ASSERT_EQ(runTool("rules remove a").exitCode, 0);
    ASSERT_EQ(runTool("rules fallback vpn block").exitCode, 0);
    const auto shown = runTool("import --dry-run /run/settings.json");
    EXPECT_EQ(shown.out, "+ rule a: direct\n- fallback vpn: block\n+ fallback vpn: allow\n");
    EXPECT_EQ(runTool("import --yes /run/settings.json").exitCode, 0);
    EXPECT_EQ(runTool("export").out, exported.out);
    ASSERT_EQ(runTool("rules block a --for 1h").exitCode, 0);
    EXPECT_EQ(runTool("import --yes /run/settings.json").out, "Nothing to change.\n");
    for (const auto* broken : {"", R"({"vpnFallbak":"block"})", R"({"defaultAction":"sideways"})",
                               R"({"rules":{"a":"drect"}})"}) {
        writeFile("/run/settings.json", broken);
        const auto refused = runTool("import --yes /run/settings.json");
        EXPECT_EQ(refused.exitCode, 1) << broken;
        EXPECT_EQ(refused.err.find("mv "), std::string::npos) << refused.err;
    }
    // Words that an edit by hand has brought in.
    replaceFile(places::preferencesFile, R"({"protocolConfiguration":{"providerConfiguration":{
        "rules":{"c":"block","d":"drect"},"vpnFallback":"reject"}}})");
    ASSERT_TRUE(
        eventually([&] { return runTool("rules").out.find("drect") != std::string::npos; }));
    writeFile("/run/settings.json", runTool("export").out);
    const auto imported = runTool("import --yes /run/settings.json");
    EXPECT_EQ(imported.exitCode, 0) << imported.err;
    EXPECT_NE(imported.err.find("vantryctl rules block c"), std::string::npos) << imported.err;
    EXPECT_EQ(under(storedInRulesFile(), "rules"), parsed(R"({"c":"block","d":"vpn"})"));
}

}  // namespace
}  // namespace vantryctl
