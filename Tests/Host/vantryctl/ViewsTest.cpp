#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
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
    const std::string path = places::activityLog;
    writeFile(path + ".new", *ActivityLogResponseIPC{entries}.encode());
    ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
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
            if (asks("clearActivityLog")) std::filesystem::remove(places::activityLog);
            answer(R"({"success":{}})");
        },
        {});
}

class Views : public ToolTest {};

TEST_F(Views, TheLogReadsWellAndShowsNothingThatActsOnATerminal) {
    EXPECT_EQ(runTool({"log"}).out, "No flows.\n");
    auto hostile = entry("org.\x1b[2Jevil\u009b\u202e", 700000000, "direct");
    hostile.destinationIp = "2001:db8::1";
    auto bare = entry("org.bare", 700000001, "vpn");
    bare.actualRoute = bare.destinationIp = bare.protocolType = std::nullopt;
    bare.destinationPort = std::nullopt;
    store({hostile, bare, entry(std::string(300, 'x'), 700000002, "blocked")});
    const auto shown = runTool({"log"});
    EXPECT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_TRUE(fitsTerminal(shown.out)) << shown.out;
    EXPECT_EQ(shown.out.find('\x1b'), std::string::npos);
    EXPECT_NE(shown.out.find("org.?[2Jevil??"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("[2001:db8::1]:443"), std::string::npos) << shown.out;
    const auto whole = ActivityLogResponseIPC::decode(runTool({"log", "--json"}).out);
    EXPECT_EQ(std::get<ActivityLogResponseIPC>(whole).entries[2].bundleId, std::string(300, 'x'));
    for (const char* content : {"", "[]", R"({"entries":[{"id":"x"}]})"}) {
        writeFile(places::activityLog, content);
        EXPECT_EQ(runTool({"log"}).exitCode, 1) << content;
        EXPECT_EQ(runTool({"apps"}).exitCode, 1) << content;
    }
}

TEST_F(Views, TheLogIsChosenFromByCountAndApplication) {
    store({entry("org.a", 1, "vpn"), entry("org.a.helper", 2, "vpn"), entry("org.ab", 3, "direct"),
           entry("org.a", 4, "vpn")});
    const auto chosen = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"log", "--json"});
        std::vector<double> times;
        const auto log = ActivityLogResponseIPC::decode(runTool(arguments).out);
        for (const auto& each : std::get<ActivityLogResponseIPC>(log).entries)
            times.push_back(each.timestamp.secondsSinceReferenceDate());
        return times;
    };
    using Times = std::vector<double>;
    EXPECT_EQ(chosen({"-n", "1"}), (Times{4}));
    EXPECT_EQ(chosen({"--app", "org.a", "-n", "2"}), (Times{2, 4}));
    EXPECT_EQ(chosen({"--app", "org.a"}), (Times{1, 2, 4}));
}

TEST_F(Views, FollowingGivesEachFlowOnce) {
    std::vector<ActivityLogEntryIPC> log{entry("org.first", 1, "vpn")};
    store(log);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const platform::FileDescriptor reading(ends[0]);
    platform::FileDescriptor writing(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        dup2(writing.get(), STDOUT_FILENO);
        _exit(run({"log", "--follow", "--json"}, {std::cout, std::cerr}));
    }
    writing = {};
    std::string received;
    const auto hasReceived = [&](const std::string& application) {
        return becomesTrue([&] {
            pollfd state{reading.get(), POLLIN, 0};
            char buffer[4096];
            if (poll(&state, 1, 0) > 0) {
                const ssize_t length = read(reading.get(), buffer, sizeof buffer);
                if (length > 0) received.append(buffer, static_cast<std::size_t>(length));
            }
            return received.find("\"" + application + "\"") != std::string::npos;
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
    EXPECT_EQ(std::ranges::count(received, '\n'), 4) << received;
}

TEST_F(Views, ApplicationsAreCountedAndThoseThatTheDaemonNamesAreAdded) {
    store({entry("org.a", 10, "vpn"), entry("org.b", 30, "direct"), entry("org.a", 20, "blocked")});
    const auto alone = runTool({"apps"});
    EXPECT_EQ(alone.exitCode, 0);
    EXPECT_NE(alone.err.find("not running"), std::string::npos) << alone.err;
    const auto daemon = standInDaemon();
    ASSERT_TRUE(daemon);
    const auto document = parsed(runTool({"apps", "--json"}).out);
    const auto list = listUnder(document, "applications");
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(under(list[0], "bundleId"), platform::JSONValue("org.b"));
    EXPECT_EQ(under(list[0], "isActive"), platform::JSONValue(true));
    EXPECT_EQ(under(list[1], "flows"), platform::JSONValue(std::int64_t{2}));
    EXPECT_EQ(under(list[1], "routes"), parsed(R"({"blocked":1,"vpn":1})"));
    EXPECT_EQ(under(list[2], "bundleId"), platform::JSONValue("org.fresh"));
}

TEST_F(Views, TheDaemonIsAskedAndItsAbsenceIsSaid) {
    for (const char* command : {"clear", "status"}) {
        const auto result = runTool({command});
        EXPECT_EQ(result.exitCode, 3) << result.out;
        EXPECT_NE(result.err.find("systemctl start vantryd"), std::string::npos);
    }
    const auto daemon = standInDaemon();
    ASSERT_TRUE(daemon);
    store({entry("org.a", 10, "vpn")});
    EXPECT_EQ(runTool({"clear"}).exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(places::activityLog));
    ASSERT_EQ(runTool({"rules", "set", "a", "b", "direct"}).exitCode, 0);
    EXPECT_NE(runTool({"status"}).out.find("running, 12 rules"), std::string::npos);
    const auto document = parsed(runTool({"status", "--json"}).out);
    EXPECT_EQ(under(document, "ruleCount"), platform::JSONValue(std::int64_t{12}));
    EXPECT_EQ(under(document, "storedRuleCount"), platform::JSONValue(std::int64_t{2}));
    EXPECT_EQ(under(document, "rulesFileIsCurrent"), platform::JSONValue(true));
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    EXPECT_TRUE(succeedsAs(strangerAccount, {}, [] { return runTool({"clear"}).exitCode == 4; }));
}

TEST_F(Views, ProgramsAndProcessesAreIdentifiedByTheNamesThatRulesAreGivenFor) {
    const auto identifierOf = [](const std::string& subject) {
        return textUnder(parsed(runTool({"identify", subject, "--json"}).out), "bundleId");
    };
    std::filesystem::create_directories("/tmp/Demo.app/Contents/MacOS");
    writeFile("/tmp/Demo.app/Contents/Info.plist",
              "<plist><dict><key>CFBundleIdentifier</key><string>org.example.demo</string>"
              "</dict></plist>");
    writeFile("/tmp/Demo.app/Contents/MacOS/demo", "");
    EXPECT_EQ(identifierOf("/tmp/Demo.app/Contents/MacOS/demo"), "org.example.demo");
    for (const char* subject : {"/tmp/missing", "/tmp", "999999999", "-0x1"})
        EXPECT_NE(runTool({"identify", subject}).exitCode, 0) << subject;
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    writeFile("/tmp/tool.sh", "");
    EXPECT_EQ(identifierOf("/tmp/tool.sh"), "tool-sh");
    ASSERT_EQ(chown("/tmp/tool.sh", strangerAccount, 0), 0);
    EXPECT_EQ(identifierOf("/tmp/tool.sh"), "/tmp/tool-sh");
    // This test is an ordinary program: as a process and as a file it has the same name.
    EXPECT_EQ(identifierOf(std::to_string(getpid())),
              identifierOf(std::filesystem::read_symlink("/proc/self/exe")));
}

TEST_F(Views, FailuresAreListedAndEmptied) {
    EXPECT_NE(runTool({"failures"}).out.find("No direct connection"), std::string::npos);
    platform::makeSharedFolder(places::groupContainer, platform::FolderAccess::trustedGroupOnly);
    const std::string list =
        R"([{"bundleId":"org.a","host":"203.0.113.7","timestamp":"2026-11-18T09:37:00Z"},7,{}])";
    writeFile(places::failureFile, list);
    const auto shown = runTool({"failures"});
    EXPECT_NE(shown.out.find("2026-11-18T09:37:00Z  org.a"), std::string::npos) << shown.out;
    EXPECT_EQ(listUnder(parsed(runTool({"failures", "--json"}).out), "failures").size(), 2U);
    writeFile(places::failureFile, "damaged");
    EXPECT_EQ(runTool({"failures"}).exitCode, 1);
    EXPECT_EQ(runTool({"failures", "--clear"}).exitCode, 0);
    EXPECT_EQ(contentOf(places::failureFile), "[]");
}

}  // namespace
}  // namespace vantryctl::testing
