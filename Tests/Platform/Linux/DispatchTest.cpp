#include "Platform/Dispatch.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/Dispatch/MainQueue.h"
#include "Tests/Platform/Linux/Eventually.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const DispatchQueue global = DispatchQueue::global(QualityOfService::userInitiated);

TEST(Dispatch, RunsEachPieceOnceAndLetsItGo) {
    constexpr int pieces = 20'000;
    const auto held = std::make_shared<std::atomic<int>>(0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([held] {
            for (int i = 0; i < pieces / 4; ++i) global.async([held] { ++*held; });
        });
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(eventually([&] { return held.use_count() == 1; }));
    EXPECT_EQ(*held, pieces);
}

TEST(Dispatch, WorkThatWaitsHoldsUpNoOtherWork) {
    std::promise<void> released;
    std::promise<void> waiterEnded;
    global.async([&] {
        released.get_future().wait();
        waiterEnded.set_value();
    });
    global.async([&] { released.set_value(); });
    EXPECT_EQ(waiterEnded.get_future().wait_for(10s), std::future_status::ready);
}

TEST(Dispatch, DelayedWorkComesInTheOrderOfItsDueTimesAndNeverEarly) {
    std::promise<void> ended;
    std::vector<double> order;
    EventLoop& loop = EventLoopPool::shared().currentOrNext();
    const auto start = Clock::now();
    for (const double seconds : {0.08, 0.02, 0.05})
        loop.post([&, seconds] {
            loop.after(seconds, [&, seconds] {
                EXPECT_GE(Clock::now() - start, std::chrono::duration<double>(seconds));
                order.push_back(seconds);
                if (order.size() == 3) ended.set_value();
            });
        });
    // Delays that make no sense are at once or never.
    std::atomic<int> atOnce = 0;
    for (const double seconds : {0.0, -1e300, std::nan("")})
        global.asyncAfter(seconds, [&] { ++atOnce; });
    global.asyncAfter(1e300, [] { std::abort(); });
    ASSERT_EQ(ended.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(order, (std::vector<double>{0.02, 0.05, 0.08}));
    EXPECT_TRUE(eventually([&] { return atOnce == 3; }));
}

// The main queue in a process of its own, as serving it never returns; gives its exit status.
int serveMainQueueInChild(void (*handOver)()) {
    const pid_t child = ::fork();
    if (child == 0) {
        handOver();
        dispatch_main();
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Dispatch, MainQueueIsSerialAndInOrderOnTheMainThread) {
    const int status = serveMainQueueInChild([] {
        static std::vector<int> seen;
        static const pid_t thread = ::gettid();
        const auto note = [](int number) { seen.push_back(::gettid() == thread ? number : -1); };
        DispatchQueue::main().asyncAfter(0.03, [=] {
            note(3);
            MainQueue::shared().stop(seen == std::vector<int>{1, 2, 3} ? 7 : 1);
        });
        std::thread([=] {
            DispatchQueue::main().async([=] { note(1); });
            DispatchQueue::main().async([=] { note(2); });
        }).join();
    });
    EXPECT_EQ(status, 7);
}

TEST(Dispatch, StopEndsTheProcessWhateverIsQueued) {
    const int status = serveMainQueueInChild([] {
        DispatchQueue::main().async([] {
            std::thread([] { MainQueue::shared().stop(0); }).join();
            DispatchQueue::main().async([] { std::_Exit(1); });
        });
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace platform
