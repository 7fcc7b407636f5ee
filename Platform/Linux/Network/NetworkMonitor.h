// Keeps the picture of the machine's network up to date from the kernel's own reports, for everybody
// who asks: path monitors, connections that wait for a way out, the list of interface addresses. One
// for the process, begun with the first use and living as long; it has no thread of its own.
#pragma once

#include <functional>
#include <memory>

#include "Platform/Linux/Network/NetworkState.h"

namespace platform {

class NetworkMonitor {
public:
    // The monitor; the first call takes the first picture.
    static NetworkMonitor& shared();

    // The latest picture. Any thread, at the cost of a short lock.
    std::shared_ptr<const NetworkState> state() const;

    // Calls `observer` after each change, one call at a time, until the token has gone: on an event
    // loop's thread, where it must not wait. Changes that come together give one call. Any thread.
    using Observer = std::function<void(const std::shared_ptr<const NetworkState>&)>;
    using Token = std::shared_ptr<const Observer>;
    [[nodiscard]] Token observe(Observer observer);

    NetworkMonitor(const NetworkMonitor&) = delete;
    NetworkMonitor& operator=(const NetworkMonitor&) = delete;

private:
    NetworkMonitor();
    class Watch;
    const std::shared_ptr<Watch> watch;
};

}  // namespace platform
