// Bytes of a flow or a connection. Their length is known and the code under test cannot look at
// them, as on a platform that leaves them in the kernel; the simulated platform can.
#pragma once

#include <string>
#include <string_view>

#include "Platform/Common/Data.h"

namespace platform::simulated {

Data makeFlowBytes(std::string bytes);

// The bytes of any block, also of one made by `makeFlowBytes`.
std::string bytesOf(const Data& data);

}  // namespace platform::simulated
