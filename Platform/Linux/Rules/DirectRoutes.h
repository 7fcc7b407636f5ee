// The way out for our own connections when a VPN has deleted the machine's default route. Every
// connection is bound to its interface, but without a route there the kernel sends nothing. While
// the network monitor remembers such a route, a table of our own holds it, and two rules lead our
// own traffic there: past the default routes of the main table, which are the VPN's, but after its
// nearer ones. Nothing is in force as long as nothing is missing. What an earlier process left
// behind is taken away first.
#pragma once

#include <cstdint>
#include <memory>

#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/Rules/FlowMark.h"

namespace platform::interception {

// The preferences of the two rules.
inline constexpr std::uint32_t nearRoutesPriority = 7660;
inline constexpr std::uint32_t ownTablePriority = 7661;

class DirectRoutes {
public:
    explicit DirectRoutes(MarkPlace place);
    // Takes rules and routes away.
    ~DirectRoutes();
    DirectRoutes(const DirectRoutes&) = delete;
    DirectRoutes& operator=(const DirectRoutes&) = delete;

    // Becomes readable when somebody changes rules or routes; its reader calls the other, which puts
    // back what of ours was removed. For one thread.
    int eventDescriptor() const;
    void putBackWhatIsMissing() const;

private:
    class Table;
    const std::shared_ptr<Table> table;
    NetworkMonitor::Token following;
};

}  // namespace platform::interception
