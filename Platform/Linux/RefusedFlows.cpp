#include "Platform/Linux/RefusedFlows.h"

namespace platform {

namespace {
constexpr std::size_t mostPrograms = 1000;
}  // namespace

RefusedFlows& RefusedFlows::shared() {
    static auto& flows = *new RefusedFlows;  // packets may be decided until the very end
    return flows;
}

void RefusedFlows::note(const NEFlowMetaData& metaData, const FlowTuple& flow) {
    const MutexGuard guard(lock);
    if (latest.size() >= mostPrograms && !latest.contains(metaData.sourceAppSigningIdentifier))
        latest.clear();
    latest[metaData.sourceAppSigningIdentifier] = {metaData, flow, Date::now()};
}

std::vector<RefusedFlow> RefusedFlows::list() const {
    const MutexGuard guard(lock);
    std::vector<RefusedFlow> flows;
    flows.reserve(latest.size());
    for (const auto& [identifier, flow] : latest) flows.push_back(flow);
    return flows;
}

}  // namespace platform
