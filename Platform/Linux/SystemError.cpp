#include "Platform/Linux/SystemError.h"

#include <system_error>

namespace platform {

NSError systemError(int number) {
    return {"posix", number, std::generic_category().message(number)};
}

}  // namespace platform
