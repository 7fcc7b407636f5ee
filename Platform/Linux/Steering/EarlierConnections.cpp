#include "Platform/Linux/Steering/EarlierConnections.h"

#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <vector>

#include "Platform/Linux/Attribution/SocketDiagnosis.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/Rules/SteeringMarks.h"

namespace platform::steering {

namespace {

using Tests = std::set<SteeringRoutes::MarkTest>;

bool fits(std::uint32_t mark, const Tests& tests) {
    return std::ranges::any_of(tests, [&](const SteeringRoutes::MarkTest& test) {
        return (mark & test.mask) == test.value;
    });
}

// A connection's mark says it with the same number, but for what it says of being watched or held back.
bool isSteered(std::uint32_t mark, const Tests& tests) {
    return std::ranges::any_of(tests, [&](const SteeringRoutes::MarkTest& test) {
        const MarkPlace place(static_cast<unsigned>(std::countr_zero(test.mask)));
        const SteeringMarks marks(place);
        const auto state = place.stateOf(mark);
        const bool isClaimed = state == FlowState::claimed || state == FlowState::claimedAndWatched;
        const auto number = marks.numberMask() & ~place.stateMask();
        return isClaimed && (mark & number) == (test.value & number);
    });
}

std::vector<inet_diag_sockid> socketsWith(const Tests& tests, netlink::Socket& socket, int family) {
    inet_diag_req_v2 question{};
    question.sdiag_family = static_cast<std::uint8_t>(family);
    question.sdiag_protocol = IPPROTO_TCP;
    question.idiag_states = ~0U;
    netlink::Request dump(SOCK_DIAG_BY_FAMILY, NLM_F_DUMP, question);
    std::vector<inet_diag_sockid> found;
    // What was told before an error is ended all the same.
    static_cast<void>(socket.request(dump, [&](const netlink::Message& answer) {
        const auto about = answer.fixedHeader<inet_diag_msg>();
        const auto mark = answer.attributes<inet_diag_msg>().find(INET_DIAG_MARK);
        if (about && mark && fits(mark->number<std::uint32_t>().value_or(0), tests))
            found.push_back(about->id);
    }));
    return found;
}

std::size_t endSockets(const Tests& tests) {
    auto socket = netlink::Socket::open(NETLINK_SOCK_DIAG);
    if (!socket) return 0;
    std::size_t count = 0;
    for (const int family : {AF_INET, AF_INET6}) {
        for (const auto& id : socketsWith(tests, *socket, family)) {
            inet_diag_req_v2 which{};
            which.sdiag_family = static_cast<std::uint8_t>(family);
            which.sdiag_protocol = IPPROTO_TCP;
            which.idiag_states = ~0U;
            which.id = id;
            netlink::Request request(SOCK_DESTROY, NLM_F_ACK, which);
            if (socket->request(request)) ++count;
        }
    }
    return count;
}

std::size_t endConnections(const std::vector<FlowTuple>& flows) {
    SocketDiagnosis diagnosis;
    return static_cast<std::size_t>(std::ranges::count_if(flows, [&](const FlowTuple& flow) {
        if (flow.protocol != IPPROTO_TCP) return false;
        const auto socket = diagnosis.find(flow);
        return socket && diagnosis.destroy(flow, socket->cookie);
    }));
}

}  // namespace

void endEarlierConnections(const Tests& marks, interception::ConnectionEntries& entries) {
    if (marks.empty()) return;
    std::size_t count = endSockets(marks);
    const auto flows =
        entries.flowsWith([&](std::uint32_t mark) { return isSteered(mark, marks); });
    if (flows) count += endConnections(*flows);
    // Datagrams may go on, as the rules say.
    entries.removeDatagramsWith([&](std::uint32_t mark) { return isSteered(mark, marks); });
    if (count > 0)
        platformLog.info("%ld direct connections of an earlier start were ended",
                         static_cast<long>(count));
}

}  // namespace platform::steering
