// What all threads may use at once, for the thread sanitizer; only what always holds is asserted.
// Flows and connections on threads are the business of the stories of the extension.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Platform/DarwinNotifications.h"
#include "Platform/Simulated/Expectations.h"

namespace platform::simulated {
namespace {

struct Counter {
    static void called(CFNotificationCenter&, void* self, std::string_view, const void*,
                       const void*) {
        auto& counter = *static_cast<Counter*>(self);
        EXPECT_FALSE(counter.isInside.exchange(true));
        ++counter.calls;
        counter.isInside = false;
    }
    std::atomic<bool> isInside = false;
    int calls = 0;
};

TEST(Threads, TheMachineMayBeUsedFromAllAtOnce) {
    World world({.order = Order::threads});
    Counter counter;
    CFNotificationCenterAddObserver(CFNotificationCenterGetDarwinNotifyCenter(), &counter,
                                    Counter::called, "changed", nullptr,
                                    CFNotificationSuspensionBehavior::deliverImmediately);
    const Logger logger("org.example", "Threads");
    std::vector<std::unique_ptr<NWPathMonitor>> monitors(20);
    std::atomic<int> paths = 0;
    for (auto& monitor : monitors) {
        monitor = std::make_unique<NWPathMonitor>();
        monitor->setPathUpdateHandler([&](const NWPath&) { ++paths; });
        monitor->start(DispatchQueue::global(QualityOfService::utility));
    }
    for (int i = 0; i < 100; ++i) {
        world.later([&, i] {
            world.post("changed");
            logger.info("line %d", i);
            NSFileManager::defaultManager().writeAtomically(std::to_string(i), "/shared");
            EXPECT_TRUE(NSFileManager::defaultManager().contentsAtPath("/shared"));
            world.clock.jump(1);
            if (i % 10 == 0) world.setPath({});
            if (i % 5 == 0) monitors[static_cast<std::size_t>(i / 5)].reset();
        });
    }
    world.runToEnd();
    EXPECT_GE(counter.calls, 1);
    EXPECT_GE(paths, 1);
    EXPECT_EQ(world.log("Threads").size(), 100u);
    EXPECT_EQ(world.network.monitorsAtWork(), 0u);
}

}  // namespace
}  // namespace platform::simulated
