// What the kernel can do for the daemon, found out by doing it: in a network namespace of its own, which
// a child process makes and takes along when it ends, so that nothing of the machine is touched.
#pragma once

#include "Host/vantryctl/Finding.h"

namespace vantryctl {

Findings checkKernel();

}  // namespace vantryctl
