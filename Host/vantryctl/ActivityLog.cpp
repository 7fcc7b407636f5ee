#include "Host/vantryctl/ActivityLog.h"

#include <cmath>
#include <ctime>
#include <utility>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Host/settings/Documents.h"
#include "Host/settings/Places.h"

namespace vantryctl {

using platform::Date;
using platform::JSONFailure;
using vantry::ActivityLogEntryIPC;
using vantry::ActivityLogResponseIPC;

namespace {

tm calendarTime(Date instant) {
    const auto seconds = static_cast<time_t>(std::floor(instant.secondsSince1970()));
    tm parts{};
    localtime_r(&seconds, &parts);
    return parts;
}

std::string formatted(const tm& parts, const char* format) {
    char text[64];
    return {text, std::strftime(text, sizeof text, format, &parts)};
}

}  // namespace

Outcome<std::vector<ActivityLogEntryIPC>> readActivityLog() {
    const auto content = readFile(places::activityLog);
    if (const auto* failure = failureOf(content)) return *failure;
    const auto& bytes = std::get<std::optional<std::string>>(content);
    if (!bytes) return std::vector<ActivityLogEntryIPC>{};
    auto log = ActivityLogResponseIPC::decode(*bytes);
    if (const auto* failure = std::get_if<JSONFailure>(&log))
        return Failure{
            ExitCode::failed,
            std::string(places::activityLog) + " is no activity log: " + failure->description + ".",
            "vantryctl clear makes the daemon start a new one."};
    return std::move(std::get<ActivityLogResponseIPC>(log).entries);
}

std::vector<ActivityLogEntryIPC> LogFollower::newEntries(
    const std::vector<ActivityLogEntryIPC>& log) {
    std::vector<ActivityLogEntryIPC> fresh;
    std::set<platform::UUID> present;
    for (const auto& entry : log) {
        present.insert(entry.id);
        if (!seen.contains(entry.id)) fresh.push_back(entry);
    }
    // What has left the log does not come back.
    seen = std::move(present);
    return fresh;
}

std::map<std::string, ApplicationActivity> activityByApplication(
    const std::vector<ActivityLogEntryIPC>& log) {
    std::map<std::string, ApplicationActivity> applications;
    for (const auto& entry : log) {
        auto& activity = applications[entry.bundleId];
        ++activity.flows;
        ++activity.flowsByRoute[entry.actualRoute.value_or("unknown")];
        if (entry.timestamp < activity.lastSeen) continue;
        activity.lastSeen = entry.timestamp;
        activity.lastDecision = entry.routingDecision;
    }
    return applications;
}

std::string localTime(Date instant, Date now) {
    // The calendar reaches as far as its years are numbers of four digits.
    if (!(std::abs(instant.secondsSince1970()) < 2.5e11)) return "?";
    const tm parts = calendarTime(instant);
    const tm today = calendarTime(now);
    if (parts.tm_year != today.tm_year) return formatted(parts, "%Y-%m-%d");
    return formatted(parts, parts.tm_yday == today.tm_yday ? "%H:%M:%S" : "%b %d %H:%M:%S");
}

}  // namespace vantryctl
