// The interception that serves the providers of this process. The providers' operations are
// members of classes that hold no state, so this is where they find it. Any thread.
#pragma once

#include <memory>

#include "Platform/Linux/Daemon/Interception.h"

namespace platform::interception {

class RunningInterception {
public:
    // Null before the start and after the end.
    static std::shared_ptr<Interception> get();
    static void set(std::shared_ptr<Interception> interception);
};

}  // namespace platform::interception
