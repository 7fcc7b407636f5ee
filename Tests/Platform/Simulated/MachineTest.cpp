
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/DarwinNotifications.h"
#include "Platform/Dispatch.h"
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

TEST(Log, IsComparedLineByLine) {
    World world;
    const Logger logger("org.example", "Category");
    logger.debug("%{public}s has %ld of %s, %{bool}d", "a", 3, "secret", true);
    logger.error("plain");
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
