#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>

#include "Host/vantryctl/CommandLine.h"

namespace {

// The terminal's width, but never less than what the tables are made for.
std::size_t terminalWidth() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return vantryctl::Table::standardWidth;
    return std::max<std::size_t>(size.ws_col, vantryctl::Table::standardWidth);
}

}  // namespace

int main(int count, char** values) {
    // A reader that goes away shows as a stream that is no longer good.
    std::signal(SIGPIPE, SIG_IGN);
    return vantryctl::run({values + 1, values + count}, {std::cout, std::cerr, terminalWidth()});
}
