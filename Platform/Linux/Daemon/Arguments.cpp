#include "Platform/Linux/Daemon/Arguments.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "Platform/Common/Version.h"

namespace platform {

namespace {

constexpr int usageStatus = 2;
constexpr const char* help =
    "usage: vantryd [--help | --version]\n"
    "\n"
    "Enforces for each application whether its traffic goes over the VPN, directly over\n"
    "the physical interface, or nowhere. Runs as root until SIGTERM; normally the service\n"
    "manager starts it: systemctl start vantryd. It takes no settings here: vantryctl\n"
    "changes the rules, and vantryd(8) says which files it reads.\n";

// The core's entry knows no arguments, so the kernel is asked for them.
std::vector<std::string> ownArguments() {
    std::vector<std::string> arguments;
    std::ifstream file("/proc/self/cmdline");
    for (std::string each; std::getline(file, each, '\0');) arguments.push_back(std::move(each));
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return arguments;
}

[[noreturn]] void refuse(const std::string& argument) {
    std::cerr << "vantryd: unknown argument: " << argument << "\nTry vantryd --help.\n";
    std::exit(usageStatus);
}

}  // namespace

void answerArguments() {
    const auto arguments = ownArguments();
    if (arguments.empty()) return;
    const std::string& first = arguments.front();
    if (first != "--help" && first != "-h" && first != "--version") refuse(first);
    if (arguments.size() > 1) refuse(arguments[1]);
    if (first == "--version")
        std::cout << "vantryd " << version() << '\n';
    else
        std::cout << help;
    std::exit(EXIT_SUCCESS);
}

}  // namespace platform
