// Flows that were seen to leave the machine: whose each is, and whether it left the way that the rules say. The
// daemon is asked whose it is; by which interface it left is what was seen. One thread.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "Host/vantryctl/Destination.h"
#include "Host/vantryctl/PacketWatch.h"

namespace vantryctl {

// How a flow left, against how it was to.
enum class Departure { right, notJudged, tunnelsOwn, leaked, inTunnel };
const char* wordFor(Departure departure);

struct Left {
    std::string identifier;  // empty: the system's, or no one's that can be named
    std::string to;
    std::string interface;
    bool isDatagram = false;
    Departure departure = Departure::notJudged;

    bool isWrong() const {
        return departure == Departure::leaked || departure == Departure::inTunnel;
    }
};

std::set<std::string> tunnelNames();

// Where the default routes lead, to addresses that no machine has (RFC 5737, RFC 3849).
inline const Destination farIPv4{"203.0.113.9", 443};
inline const Destination farIPv6{"2001:db8:ffff::9", 443};

// Whether a VPN that is up is expected to carry what goes there: it has a default route, be it of one family only,
// and the place is not near.
bool belongsInTunnel(const Destination& destination, const std::set<std::string>& tunnels);

class Departures {
public:
    Left examine(const DepartingFlow& departing) const;
    void keep(Left left) { kept.push_back(std::move(left)); }
    const std::vector<Left>& all() const { return kept; }
    const std::set<std::string>& tunnels() const { return tunnelInterfaces; }

private:
    const std::set<std::string> tunnelInterfaces = tunnelNames();
    std::vector<Left> kept;
};

}  // namespace vantryctl
