#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>

#include "Host/vantry-settings/SettingsService.h"
#include "Platform/Common/Version.h"

namespace {

vantrysettings::SettingsService* running = nullptr;

void stopService(int) { running->stop(); }

constexpr const char* usage =
    "vantry-settings keeps Vantry's settings: it owns the preferences, writes the rules file that "
    "vantryd\n"
    "reads, and says whether the VPN is up. It takes no arguments and is started by the service "
    "manager\n"
    "(systemctl start vantry-settings); vantryctl talks to it.\n";

}  // namespace

int main(int count, char** values) {
    const std::string_view argument = count > 1 ? values[1] : "";
    if (argument == "--version") {
        std::printf("vantry-settings %s\n", std::string(platform::version()).c_str());
        return 0;
    }
    if (count > 1) {
        std::fputs(usage, argument == "--help" ? stdout : stderr);
        return argument == "--help" ? 0 : 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    vantrysettings::SettingsService service;
    running = &service;
    std::signal(SIGTERM, stopService);
    std::signal(SIGINT, stopService);
    service.run();
    return 0;
}
