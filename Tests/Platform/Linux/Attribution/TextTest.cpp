// The tables of texts behind the attribution: property lists, control groups, accounts, paths.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <utility>

#include "Platform/Common/Text.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/Attribution/AuditToken.h"
#include "Platform/Linux/Attribution/BundleIdentifiers.h"
#include "Platform/Linux/Attribution/ControlGroupApplication.h"
#include "Platform/Linux/Attribution/DesktopEntry.h"
#include "Platform/Linux/Attribution/InstalledApplications.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/ProcessStatus.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"
#include "Platform/Linux/Attribution/VirtualBundle.h"
#include "Tests/Platform/Linux/Attribution/RealPrograms.h"

namespace platform {
namespace {

using namespace std::string_literals;

std::string listWith(std::string_view entries) {
    return "<plist version=\"1.0\"><dict>" + std::string(entries) + "</dict></plist>";
}

std::string identifierEntry(std::string_view value) {
    return "<key>CFBundleIdentifier</key><string>" + std::string(value) + "</string>";
}

TEST(PropertyList, GivesTheIdentifierOrNothing) {
    const struct {
        const char* what;
        std::string text;
        std::optional<std::string> identifier;
    } cases[] = {
        {"plain", listWith(identifierEntry("com.example.a")), "com.example.a"},
        {"declaration, document type and comments",
         "<?xml version=\"1.0\" encoding=\"UTF-8\"?><!DOCTYPE plist PUBLIC \"x\" \"y\"><!-- c -->" +
             listWith("<key>CFBundleIdentifier</key><!-- c --> <string>a.b</string>"),
         "a.b"},
        {"after nested values",
         listWith("<key>K</key><dict>" + identifierEntry("in.ner") + "</dict><key>L</key><array/>" +
                  identifierEntry("out.er")),
         "out.er"},
        {"white space as a piece of the text",
         listWith("<key> <![CDATA[C]]>FBundleIdentifier</key><string>in</string>" +
                  identifierEntry("a<!-- c --> <![CDATA[b]]>")),
         "a b"},
        {"the last of several", listWith(identifierEntry("a.b") + identifierEntry("c.d")), "c.d"},
        {"the last of several, unusable",
         listWith(identifierEntry("a.b") + "<key>CFBundleIdentifier</key><true/>"),
         {}},
        {"control characters", listWith(identifierEntry("a\xc2\x9b.b")), {}},
        {"escapes", listWith(identifierEntry("a&amp;b&#x2e;c")), "a&b.c"},
        {"binary list", "bplist00\xd1\x01\x02"s, {}},
        {"cut short", listWith(identifierEntry("com.example.a")).substr(0, 60), {}},
        {"no such key", listWith("<key>CFBundleName</key><string>a.b</string>"), {}},
        {"value of another type",
         listWith("<key>CFBundleIdentifier</key><integer>1</integer>"),
         {}},
        {"empty value", listWith(identifierEntry("")), {}},
        {"invalid UTF-8", listWith(identifierEntry("com.\xff.app")), {}},
        {"far too long", listWith(identifierEntry(std::string(100'000, 'a'))), {}},
        {"entity bomb",
         "<!DOCTYPE p [<!ENTITY a \"aa\"><!ENTITY b \"&a;&a;\">]>" +
             listWith(identifierEntry("&b;")),
         "&b;"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(identifierInPropertyList(each.text), each.identifier) << each.what;
    }
    std::string deep = "<plist>";
    for (int depth = 0; depth < 100'000; ++depth) deep += "<dict>";
    EXPECT_EQ(identifierInPropertyList(deep), std::nullopt);
}

TEST(Bundle, OpensWhatIsOneAndFollowsItsChanges) {
    const testing::TemporaryFolder folder;
    folder.addBundle("A.app", "com.example.a");
    folder.addFile("Flat.appex/Info.plist", listWith(identifierEntry("com.example.flat")));
    folder.addBundle("Odd\xff.app", "com.example.odd");
    folder.addFile("Huge.app/Contents/Info.plist",
                   listWith(identifierEntry("a.b")) + std::string(2 << 20, ' '));
    folder.addFile("Folder.app/Contents/Info.plist/x", "");
    folder.addFile("file.app", listWith(identifierEntry("a.b")));
    ASSERT_EQ(::mkfifo((folder.path("Flat.appex") + "/pipe").c_str(), 0600), 0);
    std::filesystem::create_directories(folder.path("Pipe.app/Contents"));
    std::filesystem::create_symlink(folder.path("Flat.appex/pipe"),
                                    folder.path("Pipe.app/Contents/Info.plist"));

    // What opens, with its identifier; and what doesn't.
    const auto identifier = [&](const std::string& relative) -> std::string {
        const auto bundle = NSBundle::bundleWithPath(folder.path(relative));
        return bundle ? bundle->bundleIdentifier().value_or("none") : "no bundle";
    };
    const std::pair<const char*, const char*> cases[] = {
        {"A.app", "com.example.a"},          {"Flat.appex", "com.example.flat"},
        {"Odd\\xff.app", "com.example.odd"}, {"Huge.app", "no bundle"},
        {"Folder.app", "no bundle"},         {"Pipe.app", "no bundle"},
        {"file.app", "no bundle"},           {"Missing.app", "no bundle"}};
    for (const auto& [path, expected] : cases) EXPECT_EQ(identifier(path), expected) << path;

    folder.addBundle("A.app", "com.example.renamed");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (identifier("A.app") == "com.example.a" && std::chrono::steady_clock::now() < deadline)
        ::usleep(10'000);
    EXPECT_EQ(identifier("A.app"), "com.example.renamed");
}

TEST(ControlGroup, NamesTheDesktopApplication) {
    const std::string session = "/user.slice/user@1000.service/app.slice/";
    const std::string unique = "f47ac10b-58cc-4372-a567-0e02b2c3d479.scope";
    const struct {
        std::string group;
        std::optional<std::string> application;
    } cases[] = {
        {session + "app-gnome-org.example.Editor-4711.scope", "org.example.Editor"},
        {"/app-gnome-google\\x2dbrowser-12.scope", "google-browser"},
        {"/app-org.example.Terminal-8f3a.scope/tab(77).scope", "org.example.Terminal"},
        {"/app-flatpak-org.exa\\x2dmple.Player-99.scope", "org.exa-mple.Player"},
        {"/flatpak-org.example.Player-99.scope", "org.example.Player"},
        {"/app-gnome-org.example.Clock@autostart.service", "org.example.Clock"},
        {"/app-kde-org.example.Clock-17.service", "org.example.Clock"},
        {"/app-gnome-editor.desktop-1.scope", "editor"},
        {"/snap.browser.browser-" + unique, "snap.browser.browser"},
        {"/snap.office.write-r." + unique, "snap.office.write-r"},
        {"/snap.store.daemon.service", "snap.store.daemon"},
        {"/app-gnome-odd\\xff-1.scope", "odd\\xff"},
        {"/app-gnome--1.scope", {}},
        {"/snap.browser.scope", {}},
        {session + "app-org.example.Terminal.slice/vte-spawn-1.scope", {}},
        {"/system.slice/application.service", {}},
        {"", {}},
    };
    for (const auto& [group, application] : cases)
        EXPECT_EQ(applicationOfControlGroup(group), application) << group;
    EXPECT_EQ(busNameOfControlGroup(session + "dbus-:1.2-org.exa\\x2dmple.Editor@0.service"),
              "org.exa-mple.Editor");
    EXPECT_EQ(busNameOfControlGroup("/system.slice/dbus-org.example.service"), std::nullopt);
}

TEST(ControlGroup, IsFoundInBothLayouts) {
    EXPECT_EQ(controlGroupPath("0::/a/b\n"), "/a/b");
    EXPECT_EQ(controlGroupPath("9:name=systemd:/a\n8:pids:/p\n0::/\n"), "/a");
    EXPECT_EQ(controlGroupPath("9:name=systemd:/\n8:pids:/p\n0::/c\n"), "/c");
    EXPECT_EQ(controlGroupPath(""), "");
}

TEST(DesktopEntry, SaysWhatIsRunAndHow) {
    const std::string head = "# a comment\n[Desktop Entry]\nType=Application\n";
    const auto entry = parseDesktopEntry(
        head +
        "Exec = env A=1 B=2 \"/opt/My App/run\" --new \\%u\nCategories=X;TerminalEmulator;\n"
        "[Desktop Action new]\nExec=other\nNoDisplay=true\n");
    ASSERT_TRUE(entry);
    EXPECT_THAT(entry->command, ::testing::ElementsAre("/opt/My App/run", "--new", "%u"));
    EXPECT_TRUE(entry->isShown && entry->isTerminal && !entry->runsInTerminal);
    for (const auto& text : {head, head + "Exec=\n", head + "Exec=a\nHidden=true\n",
                             std::string("[Desktop Entry]\nType=Link\nExec=a\n"), std::string()})
        EXPECT_FALSE(parseDesktopEntry(text)) << text;
}

TEST(InstalledApplications, AreKnownByTheirExecutables) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root's files count";
    const testing::TemporaryFolder folder;
    const auto browser = folder.addProgram("opt/browser/browser");
    const auto player = folder.addProgram("usr/bin/player");
    folder.addFile("opt/wrapped/start", "#!/bin/sh\n");
    const auto entry = [&](const std::string& name, const std::string& command,
                           const std::string& more = "") {
        folder.addFile("applications/" + name,
                       "[Desktop Entry]\nType=Application\nExec=" + command + "\n" + more);
    };
    entry("org.example.Browser.desktop", browser + " %u");
    entry("browser-private.desktop", browser + " --private %u");
    entry("kde/player.desktop", "env A=b " + player);
    entry("hidden.desktop", folder.path("opt/wrapped/start"), "NoDisplay=true\n");
    entry("wrapped.desktop", folder.path("opt/wrapped/start"));
    entry("script.desktop", "/bin/sh /x");
    InstalledApplications applications({folder.path("applications")});
    const auto of = [&](const std::string& path) {
        const auto application = applications.ofExecutable(path);
        return application ? application->identifier : "none";
    };
    EXPECT_EQ(of(browser), "org.example.Browser");
    EXPECT_EQ(of(folder.path("opt/browser/lib/helper")), "org.example.Browser");
    EXPECT_EQ(of(player), "kde-player");
    EXPECT_EQ(of(folder.path("usr/bin/other")), "none");
    EXPECT_EQ(of(folder.path("opt/wrapped/program")), "wrapped");
    EXPECT_EQ(of("/bin/sh"), "none");
    EXPECT_TRUE(applications.named("hidden"));
    const auto before = applications.version();
    std::filesystem::remove(folder.path("applications/kde/player.desktop"));
    applications.reload();
    EXPECT_EQ(of(player), "none");
    EXPECT_NE(applications.version(), before);
}

TEST(SystemAccounts, AreShownBelowFiveHundred) {
    EXPECT_EQ(lowestPersonalUserId("# UID_MIN 7\nSYS_UID_MIN 100\n UID_MIN\t 2000\n"), 2000U);
    EXPECT_EQ(lowestPersonalUserId("UID_MIN many"), 1000U);

    EXPECT_EQ(shownUserId(65534), 499U);
    EXPECT_EQ(shownUserId(61184), 499U);
    EXPECT_EQ(shownUserId(65519), 499U);
    EXPECT_EQ(shownUserId(65520), 65520U);
    EXPECT_FALSE(isSystemAccount(60000));

    setPersonalAccounts({115, 61184});
    EXPECT_EQ(shownUserId(115), 1000U);
    EXPECT_EQ(shownUserId(61184), 61184U);
    EXPECT_TRUE(isSystemAccount(116));
    setPersonalAccounts({});
    EXPECT_TRUE(isSystemAccount(115));
}

TEST(AuditToken, HoldsAccountProcessAndVersion) {
    const AuditTokenFields fields{.effectiveUserId = 60000,
                                  .pid = 4711,
                                  .startTime = 99,
                                  .executable = "/x",
                                  .signingIdentifier = "a.b"};
    const auto token = makeAuditToken(fields);
    EXPECT_EQ(makeAuditToken(fields), token);
    std::uint32_t words[8];
    static_assert(sizeof words == sizeof token);
    std::memcpy(words, token.data(), sizeof words);
    words[7] = 0;  // the version
    EXPECT_THAT(words, ::testing::ElementsAre(0U, 60000U, 0U, 0U, 0U, 4711U, 0U, 0U));
    auto reused = fields, executed = fields, moved = fields;
    reused.startTime = 100;
    executed.executable = "/y";
    moved.signingIdentifier = "a.c";
    for (const auto& other : {reused, executed, moved}) EXPECT_NE(makeAuditToken(other), token);
    // An application is no system process, whoever runs it.
    const auto ofRoot = makeAuditToken({.pid = 1, .isApplication = true});
    std::memcpy(words, ofRoot.data(), sizeof words);
    EXPECT_EQ(words[1], 500U);
}

TEST(PathText, IsValidAndLosesNothing) {
    const struct {
        std::string bytes;
        std::string text;
    } cases[] = {
        {"/\xc3\xbc/\xf0\x9f\x8e\x88", "/\xc3\xbc/\xf0\x9f\x8e\x88"},
        {"/a\xff", "/a\\xff"},
        {"/a\\xff", "/a\\x5cxff"},
        {"/a\nb\x7f\xc2\x9b", "/a\\x0ab\\x7f\\xc2\\x9b"},
        {"/\xed\xa0\x80", "/\\xed\\xa0\\x80"},
        {"/\xc3/\xbc", "/\\xc3/\\xbc"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(textOfPath(each.bytes), each.text);
        EXPECT_EQ(pathOfText(each.text), each.bytes);
        EXPECT_TRUE(isValidUTF8(each.text));
    }
    // What textOfPath would not have escaped is left.
    for (const auto* text : {"\\xfg\\x", "\\x41", "\\xFF", "\\xc3\\xbc", "\\xc3\\xbc\\x41"})
        EXPECT_EQ(pathOfText(text), text);
    EXPECT_EQ(pathOfText("\\xff\\xc3\\xbc\\x0a"), "\xff\\xc3\\xbc\n");
}

TEST(ProcessStat, IsReadPastAnyName) {
    const std::string tail = "S 42 1 1 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 1 0 777 0 0\n";
    for (const auto* name : {"bash", "a) R 7 (b", ") ", ""}) {
        ProcessStatus status;
        EXPECT_TRUE(parseProcessStat("9 (" + std::string(name) + ") " + tail, status)) << name;
        EXPECT_EQ(status.parentPid, 42) << name;
        EXPECT_EQ(status.startTime, 777U) << name;
    }
    ProcessStatus status;
    EXPECT_FALSE(parseProcessStat("", status));
    EXPECT_FALSE(parseProcessStat("9 (x) S 42", status));
}

TEST(VirtualBundle, IsFoundBySearchingForTheOutermost) {
    for (const std::string& identifier :
         {"a.app"s, ".app"s, "/home/u/x-app/tool"s, "a%2Fb"s, "%25"s, ".xpc"s, "odd\\xff"s,
          "\xc3\xbc"s, "../.."s, identifierThatFits(std::string(5000, 'x')),
          identifierThatFits(std::string(1200, '/'))}) {
        const auto path = virtualProgramPath(identifier);
        EXPECT_LE(path.size(), longestShownPath) << identifier;
        const auto bundle = path.substr(0, path.find(".app/") + 4);
        EXPECT_EQ(virtualBundleIdentifier(bundle), identifier);
        const auto opened = NSBundle::bundleWithPath(bundle);
        ASSERT_TRUE(opened) << identifier;
        EXPECT_EQ(opened->bundleIdentifier(), identifier);
    }
    EXPECT_NE(identifierThatFits(std::string(5000, 'x')),
              identifierThatFits(std::string(5001, 'x')));
    for (const auto* real : {"/applications/a.app", "//applications/a", "//applications/.app",
                             "//applications/a/b.app", "//applications/", ""}) {
        EXPECT_EQ(virtualBundleIdentifier(real), std::nullopt) << real;
    }
}

}  // namespace
}  // namespace platform
