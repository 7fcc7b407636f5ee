// The providers as the rest of the platform sees them: what it asks of them and what they answer is noted
// where a recording wants it. Any thread.
#pragma once

#include <functional>
#include <memory>

#include "Platform/Common/JSON.h"
#include "Platform/NEProvider.h"

namespace platform::recording {

std::shared_ptr<NETransparentProxyProvider> followed(
    std::shared_ptr<NETransparentProxyProvider> proxy);
std::shared_ptr<NEFilterDataProvider> followed(std::shared_ptr<NEFilterDataProvider> filter);
using Explain = std::function<JSONObject(const FlowQuestion&)>;
Explain followed(Explain explain);

}  // namespace platform::recording
