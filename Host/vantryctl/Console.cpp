#include "Host/vantryctl/Console.h"

#include <string>

namespace vantryctl {

ExitCode Console::report(const Failure& failure) const {
    err << wrapped("vantryctl: " + printable(failure.what), 0, width);
    if (!failure.advice.empty()) err << wrapped(printable(failure.advice), 4, width);
    err.flush();
    return failure.code;
}

void Console::note(std::string_view text) const {
    err << wrapped("Note: " + printable(text), 0, width);
    err.flush();
}

}  // namespace vantryctl
