// What a process that was killed leaves for direct connections: routing rules and tables, packet rules,
// the changed reverse-path filter, and the connections that they carry. The next process begins with
// taking it away; where none follows, `vantryd --clean-up` does, which the service manager runs after
// every end. One thread.
#pragma once

#include "Platform/Linux/Result.h"

namespace platform::steering {

// Ends the connections and takes away the rest; does nothing where nothing is left. Not for a machine
// on which the daemon runs. Fails with the first thing that the kernel refuses.
Result<> removeLeftovers();

}  // namespace platform::steering
