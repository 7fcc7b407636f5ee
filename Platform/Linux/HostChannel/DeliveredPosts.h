// Tells when notifications have been delivered, so that whoever posted one knows that the daemon works by it.
#pragma once

#include "Platform/Common/Completion.h"

namespace platform {

// Calls `completion` once each notification that was posted before this call has been delivered, on the
// thread that delivers. It is dropped without a call if the process ends first. Any thread.
void whenPostsAreDelivered(Completion<> completion);

}  // namespace platform
