#include <signal.h>
#include <sys/wait.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Platform/Linux/HostChannel/MessageSocket.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Tests/Host/vantryctl/ToolTest.h"

namespace vantryctl::testing {
namespace {

using platform::Date;
using platform::UUID;
using vantry::ActivityLogEntryIPC;
using vantry::ActivityLogResponseIPC;

ActivityLogEntryIPC entry(const std::string& application, double time, const std::string& route) {
    ActivityLogEntryIPC made;
    made.id = UUID::random();
    made.timestamp = Date::sinceReferenceDate(time);
    made.bundleId = made.appName = application;
    made.routingDecision = "vpn";
    made.actualRoute = route;
    made.destinationIp = "203.0.113.7";
    made.destinationPort = 443;
    made.protocolType = "tcp";
    return made;
}

void store(const std::vector<ActivityLogEntryIPC>& entries) {
    replaceFile(places::activityLog, *ActivityLogResponseIPC{entries}.encode());
}

// Answers as the daemon does, with fixed contents.
std::unique_ptr<platform::MessageSocket> standInDaemon() {
    platform::makeSharedFolder(places::runtimeFolder, platform::FolderAccess::everyoneMayRead);
    return platform::MessageSocket::listenAt(
        places::messageSocket,
        [](platform::Data request, platform::Completion<std::optional<platform::Data>> answer) {
            const auto asks = [&](std::string_view type) {
                return request.bytes()->find(type) != std::string_view::npos;
            };
            if (asks("getStatus")) return answer(R"({"isActive":true,"ruleCount":12})");
            if (asks("getActiveApps")) return answer(R"({"bundleIds":["org.b","org.fresh"]})");
            answer(R"({"success":{}})");
        },
        {});
}

class Views : public ToolTest {};

TEST_F(Views, TheLogReadsWellAndShowsNothingThatActsOnATerminal) {
    EXPECT_EQ(runTool("log").out, "No flows.\n");
    auto hostile = entry("org.\x1b[2Jevil\u009b\u202e", 700000000, "direct");
    hostile.destinationIp = "2001:db8::1";
    auto bare = entry("org.bare", 700000001, "vpn");
    bare.actualRoute = bare.destinationIp = bare.protocolType = std::nullopt;
    bare.destinationPort = std::nullopt;
    store({hostile, bare, entry(std::string(300, 'x'), 700000002, "blocked")});
    const auto shown = runTool("log");
    EXPECT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_TRUE(fitsTerminal(shown.out)) << shown.out;
    EXPECT_EQ(shown.out.find('\x1b'), std::string::npos);
    EXPECT_NE(shown.out.find("org.?[2Jevil??"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("[2001:db8::1]:443"), std::string::npos) << shown.out;
    const auto whole = ActivityLogResponseIPC::decode(runTool("log --json").out);
    EXPECT_EQ(std::get<ActivityLogResponseIPC>(whole).entries[2].bundleId, std::string(300, 'x'));
    for (const char* content : {"", "[]", R"({"entries":[{"id":"x"}]})"}) {
        writeFile(places::activityLog, content);
        EXPECT_EQ(runTool("log").exitCode, 1) << content;
        EXPECT_EQ(runTool("apps").exitCode, 1) << content;
    }
}

TEST_F(Views, TheLogIsChosenFromByCountAndApplication) {
    store({entry("org.a", 1, "vpn"), entry("org.a.helper", 2, "vpn"), entry("org.ab", 3, "direct"),
           entry("org.a", 4, "vpn")});
    const auto chosen = [](const std::string& options) {
        std::string times;
        const auto log = ActivityLogResponseIPC::decode(runTool("log --json " + options).out);
        for (const auto& each : std::get<ActivityLogResponseIPC>(log).entries)
            times += std::to_string(std::lround(each.timestamp.secondsSinceReferenceDate()));
        return times;
    };
    EXPECT_EQ(chosen("-n 1"), "4");
    EXPECT_EQ(chosen("--app org.a -n 2"), "24");
    EXPECT_EQ(chosen("--app org.a"), "124");
}

TEST_F(Views, FollowingGivesEachFlowOnce) {
    std::vector<ActivityLogEntryIPC> log{entry("org.first", 1, "vpn")};
    store(log);
    const pid_t child = fork();
    if (child == 0) {
        std::ofstream output("/run/output");
        _exit(run({"log", "--follow", "--json"}, {output, std::cerr}));
    }
    const auto hasReceived = [](const std::string& application) {
        return eventually([&] {
            return contentOf("/run/output").find("\"" + application + "\"") != std::string::npos;
        });
    };
    EXPECT_TRUE(hasReceived("org.first"));
    for (const std::string name : {"org.second", "org.third"}) {
        log.push_back(entry(name, 2, "direct"));
        store(log);
        EXPECT_TRUE(hasReceived(name));
    }
    // A log that was emptied, or cannot be read for a moment, ends nothing.
    writeFile(places::activityLog, "{");
    store({entry("org.fourth", 3, "vpn")});
    EXPECT_TRUE(hasReceived("org.fourth"));
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    const auto output = contentOf("/run/output");
    EXPECT_EQ(std::ranges::count(output, '\n'), 4) << output;
}

TEST_F(Views, TheDaemonIsAskedAndItsAbsenceIsSaid) {
    store({entry("org.a", 10, "vpn"), entry("org.b", 30, "direct"), entry("org.a", 20, "blocked")});
    EXPECT_NE(runTool("apps").err.find("not running"), std::string::npos);
    const auto refused = runTool("clear");
    EXPECT_EQ(refused.exitCode, 3) << refused.out;
    EXPECT_NE(refused.err.find("systemctl start vantryd"), std::string::npos);
    const auto daemon = standInDaemon();
    ASSERT_TRUE(daemon);
    const auto list = listUnder(parsed(runTool("apps --json").out), "applications");
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(textUnder(list[0], "bundleId"), "org.b");
    EXPECT_EQ(under(list[0], "isActive"), JSONValue(true));
    EXPECT_EQ(under(list[1], "flows"), JSONValue(2));
    EXPECT_EQ(under(list[1], "routes"), parsed(R"({"blocked":1,"vpn":1})"));
    EXPECT_EQ(textUnder(list[2], "bundleId"), "org.fresh");

    ASSERT_EQ(runTool("rules set a b direct").exitCode, 0);
    EXPECT_NE(runTool("status").out.find("running, 12 rules"), std::string::npos);
    const auto status = parsed(runTool("status --json").out);
    EXPECT_EQ(under(status, "ruleCount"), JSONValue(12));
    EXPECT_EQ(under(status, "storedRuleCount"), JSONValue(2));
    EXPECT_EQ(under(status, "rulesFileIsCurrent"), JSONValue(true));
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    EXPECT_TRUE(succeedsAs(strangerAccount, {}, [] { return runTool("clear").exitCode == 4; }));
}

TEST_F(Views, ProgramsAndProcessesAreIdentifiedByTheNamesThatRulesAreGivenFor) {
    const auto identifierOf = [](const std::string& subject) {
        return textUnder(parsed(runTool("identify --json " + subject).out), "bundleId");
    };
    std::filesystem::create_directories("/tmp/Demo.app/Contents/MacOS");
    writeFile("/tmp/Demo.app/Contents/Info.plist",
              "<plist><dict><key>CFBundleIdentifier</key><string>org.example.demo</string>"
              "</dict></plist>");
    writeFile("/tmp/Demo.app/Contents/MacOS/demo", "");
    EXPECT_EQ(identifierOf("/tmp/Demo.app/Contents/MacOS/demo"), "org.example.demo");
    for (const std::string subject : {"/tmp/missing", "/tmp", "999999999", "-0x1"})
        EXPECT_NE(runTool("identify " + subject).exitCode, 0) << subject;
    // This test is an ordinary program: as a process and as a file it has the same name.
    EXPECT_EQ(identifierOf(std::to_string(getpid())),
              identifierOf(std::filesystem::read_symlink("/proc/self/exe")));
}

TEST_F(Views, FailuresAreListedAndEmptied) {
    EXPECT_NE(runTool("failures").out.find("No direct connection"), std::string::npos);
    platform::makeSharedFolder(places::groupContainer, platform::FolderAccess::trustedGroupOnly);
    writeFile(places::failureFile, R"([7,{},
        {"bundleId":"org.a","host":"203.0.113.7","timestamp":"2026-11-18T09:37:00Z"}])");
    const auto shown = runTool("failures");
    EXPECT_NE(shown.out.find("2026-11-18T09:37:00Z  org.a"), std::string::npos) << shown.out;
    EXPECT_EQ(listUnder(parsed(runTool("failures --json").out), "failures").size(), 2U);
    writeFile(places::failureFile, "damaged");
    EXPECT_EQ(runTool("failures").exitCode, 1);
    EXPECT_EQ(runTool("failures --clear").exitCode, 0);
    EXPECT_EQ(contentOf(places::failureFile), "[]");
}

}  // namespace
}  // namespace vantryctl::testing
