// How a command of the tool ends. The tool is written in terms of the settings and of how operations on
// them end, so their names are its own.
#pragma once

#include "Host/settings/Outcome.h"

namespace vantryctl {

using namespace vantryhost;

}  // namespace vantryctl
