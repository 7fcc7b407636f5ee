// Shows, live, which application has how many connections, where they go and how much they carry; keys change
// its rule. Bytes are the kernel's own accounts of TCP.
#pragma once

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct TopOptions {
    bool isOnce = false;  // a table of one second, and no keys
    bool asJSON = false;  // the same as a document
};

ExitCode showTop(const TopOptions& options, const Console& console);

}  // namespace vantryctl
