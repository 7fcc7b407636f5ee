// The providers as the rest of the platform sees them: what it asks of them and what they answer is noted
// where a recording wants it. Any thread.
#pragma once

#include <memory>

#include "Platform/NEProvider.h"

namespace platform::recording {

std::shared_ptr<NETransparentProxyProvider> followed(
    std::shared_ptr<NETransparentProxyProvider> proxy);
std::shared_ptr<NEFilterDataProvider> followed(std::shared_ptr<NEFilterDataProvider> filter);

}  // namespace platform::recording
