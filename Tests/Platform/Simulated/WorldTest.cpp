#include <atomic>
#include <cstdio>
#include <set>

#include "Platform/Common/UUID.h"
#include "Platform/DarwinNotifications.h"
#include "Platform/Dispatch.h"
#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"

namespace platform::simulated {
namespace {

const auto pool = DispatchQueue::global(QualityOfService::userInitiated);

TEST(Scheduler, TimersFireInOrderAtTheirVirtualTimes) {
    World world({.order = Order::drawn, .seed = 7});
    world.scheduler.setLatency(0.5);
    const auto before = Date::now();
    std::string done;
    const auto notes = [&](const char* what, double when) {
        done += what;
        EXPECT_NEAR(world.now(), when, 1e-9);
    };
    pool.asyncAfter(30, [&] { notes("c", 30); });
    pool.asyncAfter(5, [&] {
        notes("a", 5);
        pool.asyncAfter(5, [&] { notes("b", 10); });
    });
    for (int i = 0; i < 10; ++i) pool.async([&] { done += "."; });
    world.runUntilIdle();  // passes over the latency, and over no timer
    EXPECT_EQ(done, "..........");
    EXPECT_LT(world.now(), 0.5);
    world.clock.jump(-3600);  // which the timers do not notice
    world.advance(29.9 - world.now());
    EXPECT_EQ(done, "..........ab");
    EXPECT_NEAR(Date::now().timeIntervalSince(before), 29.9 - 3600, 1e-5);
    world.advance(0.1);
    EXPECT_EQ(done, "..........abc");
}

// The order in which work is done, and all else that is drawn.
std::string orderOf(std::uint64_t seed) {
    World world({.order = Order::drawn, .seed = seed});
    std::string order;
    for (const char name : {'a', 'b', 'c', 'd', 'e'}) pool.async([&order, name] { order += name; });
    for (const char name : {'1', '2', '3'})
        DispatchQueue::main().async([&order, name] { order += name; });
    EXPECT_EQ(order, "") << "nothing runs inside the call that hands it over";
    world.runUntilIdle();
    return order + " " + std::to_string(world.scheduler.fingerprint()) +
           UUID::random().uuidString();
}

TEST(Scheduler, TheSeedDecidesTheOrderAndRepeatsIt) {
    std::set<std::string> orders;
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        const auto order = orderOf(seed);
        EXPECT_EQ(order, orderOf(seed));
        EXPECT_LT(order.find('1'), order.find('2'));
        EXPECT_LT(order.find('2'), order.find('3'));
        orders.insert(order.substr(0, order.find(' ')));
    }
    EXPECT_GT(orders.size(), 15u);
}

TEST(Scheduler, WorkIsLetGoWhenItHasRunAndWhenTheWorldEnds) {
    auto held = std::make_shared<int>();
    {
        World world;
        pool.async([held] {});
        world.runUntilIdle();
        EXPECT_EQ(held.use_count(), 1);
        pool.asyncAfter(1, [held] {});
        EXPECT_EQ(held.use_count(), 2);
    }
    EXPECT_EQ(held.use_count(), 1);
}

TEST(Scheduler, ThreadsRunAllWorkAndKeepTheMainQueueSerial) {
    World world({.order = Order::threads});
    std::atomic<int> ran = 0;
    std::vector<int> serial;
    for (int i = 0; i < 500; ++i) {
        pool.async([&] { ++ran; });
        DispatchQueue::main().async([&serial, i] { serial.push_back(i); });
        pool.asyncAfter(5, [&] { ++ran; });
    }
    world.runToEnd();
    EXPECT_EQ(ran, 1000);
    ASSERT_EQ(serial.size(), 500u);
    EXPECT_TRUE(std::is_sorted(serial.begin(), serial.end()));
}

TEST(Notifications, PostsDuringADeliveryGiveOneMoreAndNoneComesAfterRemoval) {
    World world;
    struct Observer {
        int calls = 0;
        int postsInside = 5;
    } observer;
    const auto called = [](CFNotificationCenter& center, void* self, std::string_view name, auto,
                           auto) {
        ++static_cast<Observer*>(self)->calls;
        for (auto& left = static_cast<Observer*>(self)->postsInside; left > 0; --left)
            center.post(name);
    };
    auto& center = CFNotificationCenterGetDarwinNotifyCenter();
    CFNotificationCenterAddObserver(center, &observer, called, "a", nullptr,
                                    CFNotificationSuspensionBehavior::deliverImmediately);
    world.post("b");
    world.post("a");
    EXPECT_EQ(observer.calls, 0);
    world.runUntilIdle();
    EXPECT_EQ(observer.calls, 3);
    world.post("a");
    CFNotificationCenterRemoveEveryObserver(center, &observer);
    world.runUntilIdle();
    EXPECT_EQ(observer.calls, 3);
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

TEST(Exploration, ABreachFailsItsSeedAndSaysHowToRepeatIt) {
    if (seedFromEnvironment()) GTEST_SKIP() << "one seed is asked for";
    const auto failed = explore({.seeds = 50}, [](std::uint64_t seed) {
        World world({.order = Order::drawn, .seed = seed});
        pool.async([seed] {
            NSLock lock;
            const NSLockGuard guard(lock);
            if (seed == 23) NSFileManager::defaultManager().removeItemAtPath("/x");
        });
        world.runUntilIdle();
        return true;
    });
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->seed, 23u);
    EXPECT_THAT(
        failed->output,
        testing::AllOf(testing::HasSubstr("removeItemAtPath is called while an NSLock is held"),
                       testing::HasSubstr("SEED=23")));
}

}  // namespace
}  // namespace platform::simulated
