#include <cmath>

#include "Extension/ipc/ActivityLogResponseIPC.h"
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

class Views : public ToolTest {};

TEST_F(Views, TheLogReadsWellAndShowsNothingThatActsOnATerminal) {
    EXPECT_EQ(runTool("log").out, "No flows.\n");
    auto hostile = entry("org.\x1b[2Jevil\u009b\u202e", 700000000, "direct");
    hostile.destinationIp = "2001:db8::1";
    ActivityLogEntryIPC bare;
    bare.id = UUID::random();
    bare.bundleId = "org.bare";
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
