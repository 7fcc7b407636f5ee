#include "Host/vantryctl/WatchCommand.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <utility>

#include "Host/vantryctl/Places.h"
#include "Host/vantryctl/SettingsStore.h"
#include "Host/vantryctl/TunnelState.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantryctl {

using platform::FileDescriptor;
using platform::FolderWatch;
using platform::NetworkMonitor;

namespace {

constexpr int retryMilliseconds = 5000;

bool isRulesFileMissing() { return access(places::rulesFile, F_OK) != 0; }

class TunnelWatch {
public:
    TunnelWatch(const WatchOptions& watchOptions, const Console& toUse)
        : options(watchOptions), console(toUse) {}

    // Both files say what is the case afterwards; false, having said why, if they do not.
    bool settle() { return restoreRules() && storeState(); }
    [[noreturn]] void follow();

private:
    bool restoreRules();
    bool storeState();
    bool succeeded(const Outcome<Change>& outcome);
    void waitForChange(bool isSettled);

    const WatchOptions& options;
    const Console& console;
    const FileDescriptor networkChange{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    FolderWatch rulesFolder{"/tmp", [] { return std::nullopt; }, IN_DELETE | IN_MOVED_FROM};
    const NetworkMonitor::Token token = NetworkMonitor::shared().observe(
        [this](const auto&) { eventfd_write(networkChange.get(), 1); });
    bool areRulesRestored = false;
    std::optional<bool> saidToBeUp;
    std::string lastFailure;
};

// A failure is said when it begins or becomes another one.
bool TunnelWatch::succeeded(const Outcome<Change>& outcome) {
    const auto* failure = failureOf(outcome);
    const std::string text = failure == nullptr ? "" : failure->what;
    if (std::exchange(lastFailure, text) != text && failure != nullptr) console.report(*failure);
    return failure == nullptr;
}

// Once at the beginning, whatever the rules file says, and then whenever it is missing.
bool TunnelWatch::restoreRules() {
    if (areRulesRestored && !isRulesFileMissing()) return true;
    const auto restored = restoreRulesFile();
    if (!succeeded(restored)) return false;
    areRulesRestored = true;
    if (std::get<Change>(restored).isStored)
        console.out << "The rules file was made anew from the preferences.\n" << std::flush;
    return true;
}

bool TunnelWatch::storeState() {
    const auto tunnels = tunnelsThatAreUp(*NetworkMonitor::shared().state(), options.interfaces);
    const bool isUp = !tunnels.empty();
    const auto stored = changeSettings(
        [&](Settings& settings) { return std::exchange(settings.vpnConnected, isUp) != isUp; });
    if (!succeeded(stored)) return false;
    if (std::exchange(saidToBeUp, isUp) != isUp)
        console.out << (isUp ? fmt::format("The VPN is up: {}.\n", fmt::join(tunnels, ", "))
                             : "The VPN is down.\n")
                    << std::flush;
    return true;
}

void TunnelWatch::follow() {
    bool isSettled = settle();
    sd_notify(0, "READY=1");
    for (;;) {
        waitForChange(isSettled);
        isSettled = settle();
    }
}

void TunnelWatch::waitForChange(bool isSettled) {
    std::array<pollfd, 2> changes{
        {{networkChange.get(), POLLIN, 0}, {rulesFolder.descriptor(), POLLIN, 0}}};
    poll(changes.data(), changes.size(), isSettled ? -1 : retryMilliseconds);
    eventfd_t ignored = 0;
    eventfd_read(networkChange.get(), &ignored);
    rulesFolder.read();
}

}  // namespace

ExitCode watchTunnel(const WatchOptions& options, const Console& console) {
    TunnelWatch watch(options, console);
    if (!options.isOnce) watch.follow();
    return watch.settle() ? ExitCode::done : ExitCode::failed;
}

}  // namespace vantryctl
