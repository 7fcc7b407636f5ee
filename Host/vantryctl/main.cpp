#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "Host/vantryctl/CommandLine.h"

namespace {

// The terminal's width, but never less than what the tables are made for. What reads from a pipe gets
// whole lines, unless COLUMNS says how long they may be.
std::size_t widthOfOutput() {
    using vantryctl::Table;
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        return std::max<std::size_t>(size.ws_col, Table::standardWidth);
    const char* const columns = std::getenv("COLUMNS");
    const auto asked = columns == nullptr ? 0 : std::strtoul(columns, nullptr, 10);
    return asked > 0 ? std::max<std::size_t>(asked, Table::standardWidth) : Table::unlimited;
}

}  // namespace

int main(int count, char** values) {
    // A reader that goes away shows as a stream that is no longer good.
    std::signal(SIGPIPE, SIG_IGN);
    return vantryctl::run({values + 1, values + count}, {std::cout, std::cerr, widthOfOutput()});
}
