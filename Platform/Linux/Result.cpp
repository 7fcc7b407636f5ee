#include "Platform/Linux/Result.h"

#include <system_error>

namespace platform {

std::string Error::text() const {
    const std::string why = reason_.empty() ? std::generic_category().message(code_) : reason_;
    return *doing_ == '\0' ? why : std::string("cannot ") + doing_ + ": " + why;
}

NSError systemError(const Error& error) { return {"posix", error.code(), error.text()}; }

}  // namespace platform
