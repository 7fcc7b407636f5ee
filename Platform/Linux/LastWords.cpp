#include "Platform/Linux/LastWords.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>

namespace platform {

namespace {

[[noreturn]] void endOnUncaught() {
    try {
        if (const auto thrown = std::current_exception()) std::rethrow_exception(thrown);
    } catch (const std::system_error& error) {
        endForLackOf("a thread", error.code().value());
    } catch (const std::bad_alloc&) {
        endForLackOf("memory", ENOMEM);
    } catch (...) {
        std::abort();
    }
    std::abort();
}

}  // namespace

// The log may need what is lacking: straight to standard error, which the journal keeps.
void endForLackOf(const char* what, int cause) {
    std::fprintf(stderr, "%s ends, as the system refuses it %s: %s\n",
                 program_invocation_short_name, what, std::strerror(cause));
    _exit(EXIT_FAILURE);
}

void endInWordsWhereRefused() { std::set_terminate(endOnUncaught); }

}  // namespace platform
