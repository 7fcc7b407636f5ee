#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/DarwinNotifications.h"
#include "Platform/Dispatch.h"
#include "Platform/InterfaceAddresses.h"
#include "Platform/LibProc.h"
#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"
#include "Tests/Platform/Simulated/Providers.h"

namespace platform::simulated {
namespace {

TEST(Files, AFailedReplacementLeavesTheOldFileAndAFailedWriteAPart) {
    World world;
    auto& manager = NSFileManager::defaultManager();
    world.files.put("/f", "old");
    world.files.fail(FileOperation::writeAtomically, "/f");
    EXPECT_TRUE(manager.writeAtomically("new", "/f"));
    EXPECT_EQ(world.files.contents("/f"), "old");
    EXPECT_FALSE(manager.writeAtomically("new", "/f"));
    EXPECT_EQ(world.files.contents("/f"), "new");
    world.files.fail(FileOperation::write, "/f", 1, 2);
    EXPECT_TRUE(manager.write("replacement", "/f"));
    EXPECT_EQ(world.files.contents("/f"), "re");
    world.files.fail(FileOperation::read);
    EXPECT_FALSE(manager.contentsAtPath("/f"));
    EXPECT_TRUE(manager.contentsAtPath("/f"));
    EXPECT_TRUE(manager.setPosixPermissions(0644, "/f"));
    EXPECT_EQ(world.files.permissions("/f"), 0644);
    EXPECT_TRUE(manager.removeItemAtPath("/f"));
    EXPECT_FALSE(manager.removeItemAtPath("/f"));
    EXPECT_EQ(world.files.count(FileOperation::remove, "/f"), 2u);
    EXPECT_EQ(world.files.accesses().front(),
              (FileAccess{FileOperation::writeAtomically, "/f", false}));
}

TEST(Files, TheContainerIsCountedAndCanBeMissing) {
    World world;
    auto& manager = NSFileManager::defaultManager();
    EXPECT_TRUE(manager.containerURLForSecurityApplicationGroupIdentifier("group.a"));
    world.files.setContainer(std::nullopt);
    EXPECT_FALSE(manager.containerURLForSecurityApplicationGroupIdentifier("group.a"));
    EXPECT_EQ(world.files.containerQuestions(), (std::vector<std::string>{"group.a", "group.a"}));
}

TEST(Processes, AreFoundByTheirIdsAndPaths) {
    World world;
    const auto parent = world.application("A", "com.example.A");
    const auto child = world.process({.path = "/usr/bin/\xff", .parent = parent.pid});
    world.bundleWithoutIdentifier("/Applications/B.app");
    proc_bsdinfo info;
    ASSERT_GT(proc_pidinfo(child.pid, PROC_PIDTBSDINFO, 0, info), 0);
    EXPECT_EQ(info.pbi_ppid, static_cast<std::uint32_t>(parent.pid));
    EXPECT_LE(proc_pidinfo(99999, PROC_PIDTBSDINFO, 0, info), 0);
    std::array<char, 64> path{};
    EXPECT_EQ(proc_pidpath(child.pid, path.data(), 64), 12);
    EXPECT_STREQ(path.data(), "/usr/bin/\xef\xbf\xbd");
    EXPECT_LE(proc_pidpath(child.pid, path.data(), 12), 0);
    EXPECT_EQ(NSBundle::bundleWithPath("/Applications/A.app")->bundleIdentifier(), "com.example.A");
    EXPECT_EQ(NSBundle::bundleWithPath("/Applications/B.app")->bundleIdentifier(), std::nullopt);
    EXPECT_FALSE(NSBundle::bundleWithPath("/Applications/C.app"));
    EXPECT_EQ(world.processes.bundlesAskedFor().size(), 3u);
    world.processes.end(child.pid);
    EXPECT_LE(proc_pidpath(child.pid, path.data(), 64), 0);

    const auto token = makeAuditToken(501, 77, 3);
    std::array<std::uint32_t, 8> words{};
    ASSERT_EQ(token.length(), sizeof words);
    std::memcpy(words.data(), token.bytes()->data(), sizeof words);
    EXPECT_EQ(words, (std::array<std::uint32_t, 8>{0, 501, 0, 0, 0, 77, 0, 3}));
}

TEST(Interfaces, TheListShowsEveryKindOfEntryAndIsCountedBack) {
    World world;
    world.setInterfaceAddresses({{"en0", "192.0.2.7"}, {"utun0", "fe80::1"}, {"utun1", {}}});
    struct ::ifaddrs* list = nullptr;
    ASSERT_EQ(platform::getifaddrs(&list), 0);
    std::string seen;
    for (auto* each = list; each != nullptr; each = each->ifa_next) {
        seen += each->ifa_name;
        char text[1025] = {};
        if (each->ifa_addr != nullptr &&
            platform::getnameinfo(each->ifa_addr, socketAddressLength(*each->ifa_addr), text,
                                  sizeof text, nullptr, 0, NI_NUMERICHOST) == 0)
            seen += std::string("=") + text;
        seen += " ";
    }
    EXPECT_EQ(seen, "en0=192.0.2.7 utun0=fe80::1 utun1 ");
    EXPECT_EQ(world.interfaces.listsOutstanding(), 1u);
    platform::freeifaddrs(list);
    world.interfaces.failGetifaddrs();
    EXPECT_EQ(platform::getifaddrs(&list), -1);
    world.setInterfaceAddresses({});
    EXPECT_EQ(platform::getifaddrs(&list), 0);
    EXPECT_EQ(list, nullptr);
}

// Counts its calls; posts and removes itself as told.
struct Observer {
    static void called(CFNotificationCenter& center, void* self, std::string_view name, const void*,
                       const void*) {
        auto& observer = *static_cast<Observer*>(self);
        EXPECT_FALSE(observer.isInside) << "deliveries come one at a time";
        observer.isInside = true;
        ++observer.calls;
        for (; observer.postsInside > 0; --observer.postsInside) center.post(name);
        observer.isInside = false;
    }
    void observe(const char* name) {
        CFNotificationCenterAddObserver(CFNotificationCenterGetDarwinNotifyCenter(), this, called,
                                        name, nullptr,
                                        CFNotificationSuspensionBehavior::deliverImmediately);
    }
    bool isInside = false;
    int calls = 0;
    int postsInside = 0;
};

TEST(Notifications, PostsDuringADeliveryGiveOneMoreAndNoneComesAfterRemoval) {
    World world;
    Observer observer;
    observer.observe("a");
    world.post("b");
    world.post("a");
    EXPECT_EQ(observer.calls, 0);
    observer.postsInside = 5;
    world.runUntilIdle();
    EXPECT_EQ(observer.calls, 2);
    world.post("a");
    CFNotificationCenterRemoveEveryObserver(CFNotificationCenterGetDarwinNotifyCenter(), &observer);
    world.runUntilIdle();
    EXPECT_EQ(observer.calls, 2);
}

TEST(Settings, AreCarriedOutInOrderWithTheOutcomesScripted) {
    World world({.order = Order::drawn, .seed = 5});
    const NSError refused{"NETunnelProviderErrorDomain", 1, "no"};
    world.providers.proxySettings.script({std::nullopt, refused});
    const auto proxy = ScriptedProxy::present();
    std::string outcomes;
    const auto note = [&](char name) {
        return [&outcomes, name](std::optional<NSError> error) {
            outcomes += name;
            outcomes += error ? "- " : "+ ";
        };
    };
    world.providers.proxySettings.hold();
    proxy->setTunnelNetworkSettings(ScriptedProxy::settings(true), note('a'));
    proxy->setTunnelNetworkSettings(ScriptedProxy::settings(), note('b'));
    proxy->setTunnelNetworkSettings(ScriptedProxy::settings(), note('c'));
    world.runUntilIdle();
    EXPECT_EQ(outcomes, "");
    world.providers.proxySettings.releaseOne();
    world.runUntilIdle();
    EXPECT_EQ(outcomes, "a+ ");
    world.providers.proxySettings.release();
    world.runUntilIdle();
    EXPECT_EQ(outcomes, "a+ b- c+ ");
    const auto calls = world.providers.proxySettings.calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].settings, ScriptedProxy::settings(true));
    EXPECT_EQ(calls[1].error, refused);
    EXPECT_EQ(world.providers.proxySettings.inForce(), ScriptedProxy::settings());
}

TEST(Preferences, GiveConfigurationsAndTunnelManagersAsScripted) {
    World world;
    const auto proxy = ScriptedProxy::present();
    EXPECT_EQ(proxy->protocolConfiguration(), nullptr);
    world.preferences.setProviderConfiguration(R"({"vpnFallback": "block"})");
    const auto configuration =
        std::dynamic_pointer_cast<const NETunnelProviderProtocol>(proxy->protocolConfiguration());
    ASSERT_TRUE(configuration && configuration->providerConfiguration());
    EXPECT_EQ(
        *configuration->providerConfiguration()->find("vpnFallback")->second.as<std::string>(),
        "block");

    std::string seen;
    const auto load = [&] {
        NETunnelProviderManager::loadAllFromPreferences([&](auto list, auto error) {
            seen += list ? std::to_string(list->size()) : "none";
            seen += error ? "! " : " ";
        });
        world.runUntilIdle();
    };
    load();
    world.preferences.setTunnelProviders({"com.example.vpn.tunnel"});
    load();
    world.preferences.failTunnelManagers({"posix", 1, "no"});
    load();
    world.preferences.giveNoTunnelManagers();
    load();
    load();
    EXPECT_EQ(seen, "0 1 none! none 1 ");
}

TEST(Messages, AReplyComesOnceAndALostOneIsABreach) {
    World world;
    EXPECT_EQ(world.message("ping").text(), "ping");
    world.messageWithoutReply("ping");
    collectBreaches(true);
    ScriptedProxy::present()->answers = false;
    EXPECT_FALSE(world.message("ping").hasCome());
    EXPECT_EQ(takeBreaches(), std::vector<std::string>{"the completion of handleAppMessage was let "
                                                       "go without having run"});
    collectBreaches(false);
}

TEST(Extension, IsStartedFilterFirst) {
    World world;
    NEProvider::startSystemExtensionMode();
    EXPECT_FALSE(world.providers.isFilterAsked());
    world.runUntilIdle();
    EXPECT_TRUE(world.providers.isFilterAsked());
    EXPECT_EQ(world.providers.proxySettings.inForce(), ScriptedProxy::settings());
}

TEST(Extension, HandingTheMainThreadOverPlaysTheStoryToItsEnd) {
    const auto play = [] {
        World world;
        NEProvider::startSystemExtensionMode();
        DispatchQueue::main().asyncAfter(30, [&] {
            if (world.providers.isFilterAsked()) std::fputs("filtering after 30 s", stderr);
        });
        dispatch_main();
    };
    EXPECT_EXIT(play(), testing::ExitedWithCode(0), "filtering after 30 s");
}

TEST(Log, KeepsFormatAndArgumentsApart) {
    World world;
    const Logger logger("org.example", "Category");
    logger.debug("%{public}s has %ld of %s, %{bool}d", "a", 3, "secret", true);
    logger.error("plain");
    const auto lines = world.log();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].format, "%{public}s has %ld of %s, %{bool}d");
    EXPECT_EQ(lines[0].arguments, (std::vector<std::string>{"a", "3", "secret", "true"}));
    EXPECT_EQ(lines[0].redactedText, "a has 3 of <private>, true");
    EXPECT_EQ(lines[0].subsystem, "org.example");
    EXPECT_TRUE(logHolds(world, {debug("a has <any> of <any>, true"), error("plain<any>")}));
    EXPECT_FALSE(logHolds(world, {error("plain"), debug("<any>")}));
    EXPECT_FALSE(logHolds(world, {debug("a has <any>false")}));
    const auto different = logIs(
        world, {debug("a has 3 of secret, true", "Category"), info("plain"), error("missing")});
    ASSERT_FALSE(different);
    EXPECT_THAT(different.message(), testing::HasSubstr("    Category debug: a has 3 of secret"));
    EXPECT_THAT(different.message(), testing::HasSubstr("  - * info: plain"));
    EXPECT_THAT(different.message(), testing::HasSubstr("  + Category error: plain"));
    EXPECT_THAT(different.message(), testing::HasSubstr("  - * error: missing"));
    EXPECT_TRUE(logIs(world, {}));
}

}  // namespace
}  // namespace platform::simulated
