#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Common/UUID.h"
#include "Platform/DarwinNotifications.h"
#include "Platform/Dispatch.h"
#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"

namespace platform::simulated {
namespace {

const auto pool = DispatchQueue::global(QualityOfService::userInitiated);

TEST(Scheduler, TimersFireInOrderAtTheirVirtualTimes) {
    World world;
    std::vector<std::pair<char, double>> fired;
    pool.asyncAfter(30, [&] { fired.emplace_back('c', world.now()); });
    pool.asyncAfter(0.05, [&] {
        fired.emplace_back('a', world.now());
        pool.asyncAfter(0.05, [&] { fired.emplace_back('b', world.now()); });
    });
    world.runUntilIdle();
    EXPECT_TRUE(fired.empty());
    world.advance(29.9);
    ASSERT_EQ(fired.size(), 2u);
    EXPECT_NEAR(fired[1].second, 0.1, 1e-9);
    EXPECT_NEAR(world.now(), 29.9, 1e-9);
    world.advance(0.1);
    ASSERT_EQ(fired.size(), 3u);
    EXPECT_EQ(fired[2].second, 30);
}

TEST(Scheduler, TheWallClockJumpsWithoutTheTimersNoticing) {
    World world;
    const auto before = Date::now();
    bool hasFired = false;
    DispatchQueue::main().asyncAfter(2, [&] { hasFired = true; });
    world.clock.jump(-3600);
    world.advance(1.5);
    EXPECT_FALSE(hasFired);
    EXPECT_DOUBLE_EQ(Date::now().timeIntervalSince(before), -3598.5);
    world.advance(0.5);
    EXPECT_TRUE(hasFired);
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

TEST(Scheduler, LatencyIsPassedOverButTimersAreNot) {
    World world({.order = Order::drawn, .seed = 7});
    world.scheduler.setLatency(0.5);
    int ran = 0;
    for (int i = 0; i < 10; ++i) pool.async([&] { ++ran; });
    pool.asyncAfter(5, [&] { ran = -100; });
    world.runUntilIdle();
    EXPECT_EQ(ran, 10);
    EXPECT_LT(world.now(), 0.5);
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
        pool.asyncAfter(0.5, [&] { ++ran; });
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
    auto& center = CFNotificationCenterGetDarwinNotifyCenter();
    CFNotificationCenterAddObserver(
        center, &observer,
        [](CFNotificationCenter& poster, void* self, std::string_view name, auto, auto) {
            auto& called = *static_cast<Observer*>(self);
            ++called.calls;
            for (; called.postsInside > 0; --called.postsInside) poster.post(name);
        },
        "a", nullptr, CFNotificationSuspensionBehavior::deliverImmediately);
    world.post("b");
    world.post("a");
    EXPECT_EQ(observer.calls, 0);
    world.runUntilIdle();
    EXPECT_EQ(observer.calls, 2);
    world.post("a");
    CFNotificationCenterRemoveEveryObserver(center, &observer);
    world.runUntilIdle();
    EXPECT_EQ(observer.calls, 2);
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
