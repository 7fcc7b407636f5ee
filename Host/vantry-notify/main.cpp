// Tells the person at the desktop what the log of flows says, over the session's message bus. Runs as a service of
// the person's own until the session ends; a button of a notice has vantryctl change the rule.

#include <poll.h>
#include <sys/inotify.h>
#include <systemd/sd-daemon.h>

#include <array>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "Host/vantry-notify/Desktop.h"
#include "Host/vantry-notify/Notices.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Daemon.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"

namespace {

using platform::Date;
using vantry::ActivityLogEntryIPC;
using vantrynotify::Desktop;

constexpr const char* logFolder = "/tmp";
constexpr std::string_view logName = "org.quillmere.Vantry.activitylog.json";

bool concernsLog(const platform::FolderWatch::Batch& batch) {
    for (const auto& event : batch.events)
        if (event.name == logName) return true;
    return batch.mayHaveMissedSome;
}

// What joined the log since the last look; all that is there at the first is old.
class NewEntries {
public:
    NewEntries() { take(); }
    std::vector<ActivityLogEntryIPC> take() {
        const auto log = vantryctl::readActivityLog();
        const auto* entries = std::get_if<std::vector<ActivityLogEntryIPC>>(&log);
        return entries ? follower.newEntries(*entries) : std::vector<ActivityLogEntryIPC>{};
    }

private:
    vantryctl::LogFollower follower;
};

// Asks the daemon every two seconds whose flows were refused, as the log says it only later.
class Refusals {
public:
    std::vector<vantrynotify::Notice> newNotices(vantrynotify::Notices& notices, Date now) {
        if (!isPermitted || now.timeIntervalSince(asked) < secondsBetween) return {};
        const auto since = std::exchange(asked, now);
        const auto answer = vantryctl::askPlatform({{"question", "refusals"}});
        const auto* failure = vantryctl::failureOf(answer);
        if (!failure)
            return notices.aboutRefusals(std::get<platform::JSONObject>(answer), since, now);
        isPermitted = failure->code != vantryctl::ExitCode::notPermitted;
        if (!isPermitted)
            std::cerr << "vantry-notify: what is blocked is told later than it could be, as this "
                         "account is not in the group vantry\n";
        return {};
    }
    int longestWait() const { return isPermitted ? int{secondsBetween * 1000} : -1; }

private:
    static constexpr int secondsBetween = 2;

    Date asked = Date::now();
    bool isPermitted = true;
};

// Does as vantryctl does, and gives what it said as a notice.
vantrynotify::Notice resultOf(const std::vector<std::string>& command) {
    std::ostringstream said;
    const int status = vantryctl::run(command, {said, said, vantryctl::Table::unlimited});
    return {status == 0 ? "Done" : "That could not be done", said.str(), "", {}};
}

}  // namespace

int main() {
    std::unique_ptr<Desktop> desktop;
    desktop = Desktop::connect([&](const auto& command) { desktop->show(resultOf(command)); });
    if (!desktop) return 1;
    platform::FolderWatch watch(
        logFolder, [] { return platform::Result<>(); }, IN_MOVED_TO | IN_CLOSE_WRITE);
    if (!watch.isWatching()) {
        std::cerr << "vantry-notify: " << logFolder << " cannot be watched\n";
        return 1;
    }
    NewEntries entries;
    Refusals refusals;
    vantrynotify::Notices notices;
    const auto show = [&](const std::vector<vantrynotify::Notice>& all) {
        for (const auto& notice : all) desktop->show(notice);
    };
    sd_notify(0, "READY=1");
    // What came with an answer waits in the bus and makes no descriptor ready.
    while (desktop->takeEvents()) {
        std::array<pollfd, 2> changes{
            {{watch.descriptor(), POLLIN, 0}, {desktop->descriptor(), POLLIN, 0}}};
        poll(changes.data(), changes.size(), refusals.longestWait());
        if (concernsLog(watch.read())) show(notices.about(entries.take(), Date::now()));
        show(refusals.newNotices(notices, Date::now()));
    }
    std::cerr << "vantry-notify: the session bus is gone\n";
    return 1;
}
