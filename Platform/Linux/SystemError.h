// An errno as the platform's error: domain "posix", the number, and its text.
#pragma once

#include "Platform/Foundation.h"

namespace platform {

NSError systemError(int number);

}  // namespace platform
