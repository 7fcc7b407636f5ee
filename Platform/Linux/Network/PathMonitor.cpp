#include <utility>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/Recording/RecordedSystem.h"
#include "Platform/Network.h"

namespace platform {

// Passes the changes of the network on to one handler, on its queue and one at a time.
class NWPathMonitor::Implementation : public std::enable_shared_from_this<Implementation> {
public:
    using Handler = std::function<void(const NWPath&)>;

    void setHandler(Handler newHandler) { handler = std::move(newHandler); }

    void start(DispatchQueue deliveryQueue) {
        {
            const MutexGuard guard(mutex);
            if (isCancelled || queue) return;
            queue = deliveryQueue;
        }
        token = NetworkMonitor::shared().observe(
            [weak = weak_from_this()](const std::shared_ptr<const NetworkState>&) {
                if (const auto self = weak.lock()) self->announce();
            });
        announce();
    }

    void cancel() {
        const MutexGuard guard(mutex);
        isCancelled = true;
        waiting.reset();
    }

private:
    // Only the latest path counts; it waits while an earlier one is being delivered. The path is read
    // here, under the lock: the start and a change at the same moment may announce in either order.
    void announce() {
        const MutexGuard guard(mutex);
        if (isCancelled) return;
        auto path = NetworkMonitor::shared().state()->path();
        // Much of what changes leaves the path as it is.
        if (announced == path.availableInterfaces) return;
        announced = path.availableInterfaces;
        waiting = std::move(path);
        if (std::exchange(isDelivering, true)) return;
        queue->async([weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->deliver();
        });
    }

    void deliver() {
        while (const auto path = next()) {
            recording::Call call(recording::Call::Kind::ofState, "path");
            recording::addInterfaces(call.with(), *path);
            handler(*path);
        }
    }

    std::optional<NWPath> next() {
        const MutexGuard guard(mutex);
        auto path = std::exchange(waiting, std::nullopt);
        isDelivering = path.has_value();
        return path;
    }

    Handler handler;
    NetworkMonitor::Token token;
    Mutex mutex;
    std::optional<DispatchQueue> queue GUARDED_BY(mutex);
    std::optional<std::vector<NWInterface>> announced GUARDED_BY(mutex);
    std::optional<NWPath> waiting GUARDED_BY(mutex);
    bool isDelivering GUARDED_BY(mutex) = false;
    bool isCancelled GUARDED_BY(mutex) = false;
};

NWPathMonitor::NWPathMonitor() : implementation(std::make_shared<Implementation>()) {}

NWPathMonitor::~NWPathMonitor() { implementation->cancel(); }

void NWPathMonitor::setPathUpdateHandler(std::function<void(const NWPath&)> handler) {
    implementation->setHandler(std::move(handler));
}

void NWPathMonitor::start(DispatchQueue queue) { implementation->start(queue); }

void NWPathMonitor::cancel() { implementation->cancel(); }

}  // namespace platform
