// Stories on real threads, for the thread sanitizer; only what always holds is asserted.

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/DarwinNotifications.h"
#include "Platform/Simulated/Expectations.h"
#include "Platform/Simulated/FlowBytes.h"
#include "Tests/Platform/Simulated/Providers.h"

namespace platform::simulated {
namespace {

const auto pool = DispatchQueue::global(QualityOfService::userInitiated);

// Carries bytes from an application to a peer and back until something ends it; counts what is
// outstanding. Held by its own callbacks.
class Carrier : public std::enable_shared_from_this<Carrier> {
public:
    Carrier(std::shared_ptr<NEAppProxyTCPFlow> itsFlow, std::atomic<int>& count)
        : flow(std::move(itsFlow)),
          connection(NWEndpoint::Host("peer"), *NWEndpoint::Port::fromString("443"), {}),
          outstanding(count) {}

    void start() {
        connection.setStateUpdateHandler([self = shared_from_this()](const auto& state) {
            EXPECT_FALSE(self->isInHandler.exchange(true)) << "states come one at a time";
            if (state.kind == NWConnection::State::Kind::ready) {
                self->upload();
                self->download();
            }
            self->isInHandler = false;
        });
        begin();
        flow->openWithLocalEndpoint(nullptr, [self = shared_from_this()](auto) {
            self->connection.start(pool);
            self->finish();
        });
    }

    void end() {
        connection.cancel();
        flow->closeReadWithError(std::nullopt);
        flow->closeWriteWithError(std::nullopt);
    }

private:
    void begin() { ++outstanding; }
    void finish() { --outstanding; }

    void upload() {
        begin();
        flow->readData([self = shared_from_this()](auto data, auto error) {
            if (error || !data || data->isEmpty()) {
                self->end();
            } else {
                self->begin();
                self->connection.send(*std::move(data),
                                      NWConnection::ContentContext::defaultMessage, true,
                                      [self](auto failure) {
                                          failure ? self->end() : self->upload();
                                          self->finish();
                                      });
            }
            self->finish();
        });
    }

    void download() {
        begin();
        connection.receive(1, 4, [self = shared_from_this()](auto data, auto, bool, auto error) {
            if (error || !data || data->isEmpty()) {
                self->end();
            } else {
                self->begin();
                self->flow->writeData(*std::move(data), [self](auto failure) {
                    failure ? self->end() : self->download();
                    self->finish();
                });
            }
            self->finish();
        });
    }

    const std::shared_ptr<NEAppProxyTCPFlow> flow;
    NWConnection connection;
    std::atomic<bool> isInHandler = false;
    std::atomic<int>& outstanding;
};

void carryManyFlows(World& world) {
    constexpr int count = 60;
    std::atomic<int> outstanding = 0;
    world.peer("peer", 443).echoes();
    const auto app = world.application("A", "com.example.A");
    EXPECT_TRUE(world.start());
    ScriptedProxy::present()->onNewFlow = [&](const std::shared_ptr<NEAppProxyFlow>& object) {
        const auto carrier = std::make_shared<Carrier>(
            std::static_pointer_cast<NEAppProxyTCPFlow>(object), outstanding);
        carrier->start();
        if (world.draw(3) == 0) pool.asyncAfter(0.1, [carrier] { carrier->end(); });
        return true;
    };
    std::vector<Flow> flows;
    for (int i = 0; i < count; ++i) flows.push_back(world.tcpFlow(app, "peer", "443"));
    for (auto& flow : flows)
        world.later([&world, flow]() mutable {
            world.offer(flow);
            for (const char* bytes : {"some", "bytes", "to", "carry"}) flow.sends(bytes);
            flow.endsSending();
        });
    world.runToEnd();
    for (const auto& flow : flows) {
        EXPECT_TRUE(flow.isClosed());
        EXPECT_FALSE(flow.socket()->hasOperationOutstanding());
        const std::string all = "somebytestocarry";
        EXPECT_EQ(flow.received(), all.substr(0, flow.received().size()));
    }
    EXPECT_EQ(outstanding, 0) << "every completion has come";
    for (const auto& connection : world.network.connections()) {
        const auto states = connection->record().states;
        const bool wasStarted = !states.empty();
        EXPECT_TRUE(!wasStarted || states.back() == NWConnection::State::Kind::cancelled);
        EXPECT_FALSE(connection->hasOperationOutstanding());
    }
}

TEST(Threads, FlowsAndConnectionsEndOnceAndWhole) {
    World world({.order = Order::threads});
    carryManyFlows(world);
}

TEST(Exploration, TheSameStoryHoldsForEverySeed) {
    EXPECT_TRUE(holdsForSeeds(100, carryManyFlows));
    EXPECT_TRUE(holdsForSeeds(100, [](World& world) {
        world.scheduler.setLatency(0.05);
        carryManyFlows(world);
    }));
}

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

TEST(Threads, EverythingElseMayBeUsedAtOnce) {
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
