// Remembers whose flows the filter has refused lately, for the person who is to be told at once: the log of flows has
// them only once another flow has passed. One entry for each program, and a bounded number of them. Any thread, at
// the cost of a short lock.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Platform/Common/Date.h"
#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/NEAppProxyFlow.h"

namespace platform {

// The latest flow of a program that was refused.
struct RefusedFlow {
    NEFlowMetaData metaData;
    FlowTuple flow;
    Date at = Date::distantPast();
};

class RefusedFlows {
public:
    static RefusedFlows& shared();

    void note(const NEFlowMetaData& metaData, const FlowTuple& flow);
    std::vector<RefusedFlow> list() const;

private:
    mutable Mutex lock;
    std::map<std::string, RefusedFlow> latest GUARDED_BY(lock);  // by signing identifier
};

}  // namespace platform
