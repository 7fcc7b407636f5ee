// Has the daemon write down what it is asked and what it decides, and puts that into a file which `replay`
// plays: the daemon hands it over in pieces, so that this program's account owns the file and pays for it.
#pragma once

#include <chrono>
#include <string>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct RecordOptions {
    std::string file;
    std::chrono::seconds time{600};
    bool isVerbatim = false;  // with names and addresses
    int mostMegabytes = 256;
};

// Until the time is over, the file is full, or Ctrl-C.
ExitCode record(const RecordOptions& options, const Console& console);

}  // namespace vantryctl
