// The tool's command line: which words there are, what each needs, and the texts of its help.
#pragma once

#include <string>
#include <vector>

#include "Host/vantryctl/Console.h"

namespace vantryctl {

// Carries out what the arguments (without the program's name) ask for. Returns the exit code.
int run(std::vector<std::string> arguments, const Console& console);

}  // namespace vantryctl
