// Tells the person at the desktop what the log of flows says, over the session's message bus. Runs as a service of
// the person's own until the session ends; a bus without anything that shows notices is asked again each time.

#include <poll.h>
#include <sys/inotify.h>
#include <systemd/sd-bus.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Host/vantry-notify/Notices.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"

namespace {

using vantry::ActivityLogEntryIPC;
using vantrynotify::Notice;

constexpr const char* logFolder = "/tmp";
constexpr std::string_view logName = "org.quillmere.Vantry.activitylog.json";

struct DropBus {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, DropBus>;

Bus sessionBus() {
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_user(&bus);
    if (result >= 0) return Bus(bus);
    std::cerr << "vantry-notify: no session bus: " << std::strerror(-result) << '\n';
    return nullptr;
}

// The body is text, of which the desktop takes some for markup.
std::string escaped(std::string_view text) {
    std::string safe;
    for (const char each : text) {
        if (each == '&')
            safe += "&amp;";
        else if (each == '<')
            safe += "&lt;";
        else
            safe += each;
    }
    return safe;
}

bool show(sd_bus& bus, const Notice& notice) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int result =
        sd_bus_call_method(&bus, "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                           "org.freedesktop.Notifications", "Notify", &error, nullptr,
                           "susssasa{sv}i", "Vantry", std::uint32_t{0}, "network-vpn",
                           notice.title.c_str(), escaped(notice.body).c_str(), 0, 0, -1);
    if (result < 0)
        std::cerr << "vantry-notify: not shown: " << notice.title << ": "
                  << (error.message ? error.message : std::strerror(-result)) << '\n';
    sd_bus_error_free(&error);
    return result >= 0;
}

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

}  // namespace

int main() {
    auto bus = sessionBus();
    if (!bus) return 1;
    platform::FolderWatch watch(
        logFolder, [] { return platform::Result<>(); }, IN_MOVED_TO | IN_CLOSE_WRITE);
    if (!watch.isWatching()) {
        std::cerr << "vantry-notify: " << logFolder << " cannot be watched\n";
        return 1;
    }
    NewEntries entries;
    vantrynotify::Notices notices;
    for (;;) {
        pollfd change{watch.descriptor(), POLLIN, 0};
        poll(&change, 1, -1);
        if (!concernsLog(watch.read())) continue;
        for (const auto& notice : notices.about(entries.take(), platform::Date::now()))
            if (!show(*bus, notice)) bus = sessionBus();
        if (!bus) return 1;
    }
}
