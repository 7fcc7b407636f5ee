// Tells when notifications have been delivered: from then on the daemon works by what they told of.
#pragma once

#include "Platform/Common/Completion.h"

namespace platform {

// Calls `completion` once each notification that was posted before this call has been delivered, on the
// thread that delivers. It is dropped without a call if the process ends first. Any thread.
void whenPostsAreDelivered(Completion<> completion);

}  // namespace platform
