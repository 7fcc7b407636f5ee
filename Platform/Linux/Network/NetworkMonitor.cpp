#include "Platform/Linux/Network/NetworkMonitor.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/Network/RememberedRoutes.h"
#include "Platform/Linux/Network/RouteMessages.h"
#include "Platform/Linux/Network/StoredRoutes.h"
#include "Platform/Linux/PlatformLog.h"

namespace platform {
namespace {

// However many reports come, pictures are taken no closer together than this.
constexpr double secondsBetweenPictures = 0.02;
// Where one can't be taken, as without descriptors.
constexpr double secondsBetweenTries = 1;

}  // namespace

class NetworkMonitor::Watch final : public EventLoop::Source {
public:
    void start() {
        takePicture(readStoredRoutes());
        loop.post([this] { watchReports(); });
    }

    std::shared_ptr<const NetworkState> state() const {
        const MutexGuard guard(lock);
        return present;
    }

    void add(const Token& token) {
        const MutexGuard guard(lock);
        std::erase_if(observers, [](const auto& observer) { return observer.expired(); });
        observers.push_back(token);
    }

    void handleEvents(std::uint32_t) override {
        reports->discard();
        refreshSoon();
    }

private:
    void watchReports() {
        auto opened = openChangeReports();
        if (!opened)
            return platformLog.error("Changes of the network cannot be followed: %{public}s",
                                     opened.error().text());
        reports = std::move(*opened);
        if (const int error = loop.watch(reports->descriptor(), EPOLLIN, *this))
            return platformLog.error("Changes of the network cannot be followed: %{public}s",
                                     Error(error).text());
        refresh();  // what changed since the first picture
    }

    void refreshSoon() {
        if (isResting)
            isOutdated = true;
        else
            refresh();
    }

    void refresh() {
        isResting = true;
        isOutdated = false;
        loop.after(secondsBetweenPictures, [this] {
            isResting = false;
            if (isOutdated) refresh();
        });
        if (takePicture(*state())) tellObservers();
        if (!unread.isProblem() || std::exchange(isTryDue, true)) return;
        loop.after(secondsBetweenTries, [this] {
            isTryDue = false;
            refreshSoon();
        });
    }

    // True if it differs from the one before. What `earlier` knows of routes that are gone, it remembers.
    bool takePicture(const NetworkState& earlier) {
        auto picture = readNetworkState();
        if (!picture) {
            if (unread.begin(picture.error().text()))
                platformLog.error("The state of the network cannot be read: %{public}s",
                                  picture.error().text());
            return false;
        }
        if (unread.end()) platformLog.info("The state of the network can be read again");
        rememberRoutes(earlier, *picture);
        if (*picture == *state()) return false;
        const MutexGuard guard(lock);
        present = std::make_shared<const NetworkState>(std::move(*picture));
        return true;
    }

    void tellObservers() {
        std::vector<Token> living;
        {
            const MutexGuard guard(lock);
            for (const auto& observer : observers)
                if (auto token = observer.lock()) living.push_back(std::move(token));
        }
        for (const auto& observer : living) (*observer)(state());
    }

    // Never destroyed, as the monitor; so the loop may hold it by its address.
    EventLoop& loop = *EventLoopPool::shared().loops().front();
    std::optional<netlink::Socket> reports;
    bool isResting = false;   // since the last picture
    bool isOutdated = false;  // by a report since then
    bool isTryDue = false;    // as the last one failed
    health::Problem unread{health::Place::network, "networkUnread",
                           "The state of the network cannot be read"};
    mutable Mutex lock;
    std::shared_ptr<const NetworkState> present GUARDED_BY(lock) =
        std::make_shared<const NetworkState>();
    std::vector<std::weak_ptr<const Observer>> observers GUARDED_BY(lock);
};

NetworkMonitor::NetworkMonitor() : watch(std::make_shared<Watch>()) { watch->start(); }

NetworkMonitor& NetworkMonitor::shared() {
    static NetworkMonitor& monitor = *std::unique_ptr<NetworkMonitor>(new NetworkMonitor).release();
    return monitor;
}

std::shared_ptr<const NetworkState> NetworkMonitor::state() const { return watch->state(); }

NetworkMonitor::Token NetworkMonitor::observe(Observer observer) {
    auto token = std::make_shared<const Observer>(std::move(observer));
    watch->add(token);
    return token;
}

}  // namespace platform
