#include <set>

#include "Platform/Common/UUID.h"
#include "Platform/Dispatch.h"
#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Expectations.h"

namespace platform::simulated {
namespace {

const auto pool = DispatchQueue::global(QualityOfService::userInitiated);

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
