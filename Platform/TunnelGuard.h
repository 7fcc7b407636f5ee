// What becomes of flows under watch in the moments between the end of a tunnel and the host
// application's word of it, or between its word that a VPN is up and the routes. Any thread may call.
#pragma once

namespace platform {

// While this is wanted, packets of flows that the filter watches do not leave by another way than the
// tunnel that led the machine's default route. Such a packet is dropped; the flow goes on when the
// tunnel is back, or ends by the filter's verdict. Another VPN may carry less than the one before: once
// it is connected again and has had its time for routes, what it leads counts. Returns at once; the last
// call counts.
void keepWatchedFlowsInTunnel(bool isWanted, bool isVpnConnected);

}  // namespace platform
