#include "Host/vantryctl/LogCommands.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Host/settings/Choices.h"
#include "Host/settings/Documents.h"
#include "Host/settings/Places.h"
#include "Host/settings/Settings.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/SessionsCommand.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"

namespace vantryctl {

using platform::Date;
using platform::JSONArray;
using platform::JSONObject;
using platform::JSONValue;
using vantry::ActivityLogEntryIPC;

namespace {

constexpr std::string_view logFolder = "/tmp";
// Columns that go on growing need no more.
constexpr std::size_t widestTerminal = 200;

bool concerns(const std::string& application, const ActivityLogEntryIPC& entry) {
    if (application.empty() || entry.bundleId == application) return true;
    return entry.bundleId.starts_with(application + ".");
}

// Late records of what was blocked join the log after newer ones.
void putInOrder(std::vector<ActivityLogEntryIPC>& log) {
    std::ranges::stable_sort(log, {}, &ActivityLogEntryIPC::timestamp);
}

std::vector<ActivityLogEntryIPC> selected(std::vector<ActivityLogEntryIPC> log,
                                          const LogOptions& options) {
    std::erase_if(log, [&](const auto& entry) { return !concerns(options.application, entry); });
    putInOrder(log);
    return log;
}

void keepLast(std::vector<ActivityLogEntryIPC>& log, std::size_t count) {
    if (log.size() > count) log.erase(log.begin(), log.end() - static_cast<std::ptrdiff_t>(count));
}

std::string destinationOf(const ActivityLogEntryIPC& entry) {
    std::string host = entry.destinationIp.value_or("?");
    if (!entry.destinationPort) return host;
    if (host.find(':') != std::string::npos)
        return fmt::format("[{}]:{}", host, *entry.destinationPort);
    return fmt::format("{}:{}", host, *entry.destinationPort);
}

// Null where this user may not see the settings.
std::shared_ptr<const Settings> settingsIfReadable() {
    const auto loaded = loadSettings();
    const auto* stored = std::get_if<StoredSettings>(&loaded);
    return stored ? std::make_shared<const Settings>(stored->choices.settings) : nullptr;
}

// What has a rule for this name: itself, or the name above it; empty if neither.
std::string_view ruleOwner(const Settings& settings, std::string_view name) {
    if (settings.rules.contains(name)) return "rule";
    const auto dot = name.rfind('.');
    const bool hasParent =
        dot != std::string_view::npos && settings.rules.contains(name.substr(0, dot));
    return hasParent ? "parent" : "default";
}

// Which step decided. Of rules and the default only today's are known: an entry that they would not have
// led to was decided by earlier ones.
std::string decidedBy(const ActivityLogEntryIPC& entry, const Settings* settings) {
    const auto route = entry.actualRoute.value_or("");
    const auto& word = entry.routingDecision;
    if (route == "blocked") return word == "block" ? "block" : "fallback";
    if ((route == "direct") != (word == "direct")) return "fallback";
    if (settings == nullptr) return "?";
    const auto by = ruleOwner(*settings, entry.bundleId);
    auto today = settings->defaultAction;
    if (by == "rule") today = settings->rules.find(entry.bundleId)->second;
    if (by == "parent")
        today = settings->rules.find(entry.bundleId.substr(0, entry.bundleId.rfind('.')))->second;
    return today == word ? std::string(by) : "earlier";
}

// The columns, in which every row of a log fits, or as wide as the console is.
Table logTable() {
    return Table({{"TIME"}, {"APPLICATION", true}, {"WENT"}, {"BY"}, {"OVER"}, {"TO", true}});
}

// What the rows of a log are read with, looked at once.
struct Context {
    Date now = Date::now();
    std::shared_ptr<const Settings> settings = settingsIfReadable();
    FailedSessions failed;
};

std::vector<std::string> logRow(const ActivityLogEntryIPC& entry, const Context& context) {
    const auto route = entry.actualRoute.value_or("?");
    return {localTime(entry.timestamp, context.now),
            entry.bundleId,
            context.failed.includes(entry) ? "failed" : route,
            decidedBy(entry, context.settings.get()),
            entry.protocolType.value_or("?"),
            destinationOf(entry)};
}

// The columns of a table that grows line by line, whose texts are not known yet.
std::vector<std::size_t> growingWidths(std::size_t width) {
    const std::vector<std::size_t> fixed{15, 0, 7, 8, 4, 0};
    const std::size_t taken = 15 + 7 + 8 + 4 + 5 * 2;
    const std::size_t rest =
        std::max<std::size_t>(std::min(width, widestTerminal), taken + 36) - taken;
    auto widths = fixed;
    widths[1] = rest / 2;
    widths[5] = rest - rest / 2;
    return widths;
}

void printEntries(const std::vector<ActivityLogEntryIPC>& log, const LogOptions& options,
                  const Console& console) {
    auto table = logTable();
    const Context context;
    const auto widths = growingWidths(console.width);
    for (const auto& entry : log) {
        if (options.asJSON) {
            console.out << entry.encode().value_or("") << '\n';
            continue;
        }
        auto row = logRow(entry, context);
        std::ranges::transform(row, row.begin(), [](const auto& cell) { return printable(cell); });
        console.out << table.rowText(
            row, console.isTerminal() ? widths : Table::wideEnough(row, widths));
    }
    console.out.flush();
}

ExitCode printLog(const std::vector<ActivityLogEntryIPC>& log, const LogOptions& options,
                  const Console& console) {
    if (options.asJSON) {
        console.out << vantry::ActivityLogResponseIPC{log}.encode().value_or("") << '\n';
        return ExitCode::done;
    }
    if (log.empty()) {
        console.out << "No flows.\n";
        return ExitCode::done;
    }
    auto table = logTable();
    const Context context;
    for (const auto& entry : log) table.add(logRow(entry, context));
    console.out << table.text(console.width);
    return ExitCode::done;
}

// Prints what joins the log, until whoever reads has gone. A log that cannot be read for a moment is
// read again at its next change.
ExitCode followLog(std::vector<ActivityLogEntryIPC> log, const LogOptions& options,
                   const Console& console) {
    platform::FolderWatch watch(
        std::string(logFolder), [] { return platform::Result<>(); }, IN_MOVED_TO | IN_CLOSE_WRITE);
    LogFollower follower;
    log = follower.newEntries(log);
    keepLast(log, options.lines);
    if (!options.asJSON) console.out << logTable().titleText(growingWidths(console.width));
    printEntries(log, options, console);
    while (console.out.good()) {
        pollfd change{watch.descriptor(), POLLIN, 0};
        constexpr int millisecondsUnwatched = 1000;
        poll(&change, 1, watch.isWatching() ? -1 : millisecondsUnwatched);
        watch.read();
        auto present = readActivityLog();
        if (auto* entries = std::get_if<std::vector<ActivityLogEntryIPC>>(&present))
            printEntries(follower.newEntries(selected(std::move(*entries), options)), options,
                         console);
    }
    return ExitCode::done;
}

std::string routesText(const ApplicationActivity& activity) {
    std::string text;
    for (const auto& [route, flows] : activity.flowsByRoute)
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", route, flows);
    return text;
}

struct Application {
    std::string identifier;
    ApplicationActivity activity;
    bool isActive = false;
};

// The applications of the log and those that the daemon names, the latest first. Commands that had a rule
// of their own are no applications that a rule can be given for.
std::vector<Application> applicationsOf(const std::vector<ActivityLogEntryIPC>& log,
                                        const std::set<std::string>& active) {
    auto activities = activityByApplication(log);
    for (const auto& identifier : active) activities.try_emplace(identifier);
    std::vector<Application> applications;
    applications.reserve(activities.size());
    for (auto& [identifier, activity] : activities)
        if (!vantryhost::isRuledCommand(identifier))
            applications.push_back({identifier, std::move(activity), active.contains(identifier)});
    std::ranges::stable_sort(applications, [](const auto& a, const auto& b) {
        return a.activity.lastSeen > b.activity.lastSeen;
    });
    return applications;
}

JSONObject documentOfApplication(const Application& application) {
    JSONObject routes;
    for (const auto& [route, flows] : application.activity.flowsByRoute)
        routes[route] = static_cast<std::int64_t>(flows);
    JSONObject document{{"bundleId", application.identifier},
                        {"isActive", application.isActive},
                        {"flows", static_cast<std::int64_t>(application.activity.flows)},
                        {"routes", std::move(routes)}};
    if (application.activity.flows > 0)
        document["lastSeen"] =
            platform::NSISO8601DateFormatter().stringFromDate(application.activity.lastSeen);
    return document;
}

Outcome<std::vector<JSONObject>> readFailures() {
    const auto content = readFile(places::failureFile);
    if (const auto* failure = failureOf(content)) return *failure;
    const auto& bytes = std::get<std::optional<std::string>>(content);
    std::vector<JSONObject> failures;
    if (!bytes) return failures;
    const auto document = platform::parseJSON(*bytes);
    const auto* value = std::get_if<JSONValue>(&document);
    const auto* list = value == nullptr ? nullptr : value->as<JSONArray>();
    if (list == nullptr)
        return Failure{ExitCode::failed, std::string(places::failureFile) + " holds no list.",
                       "vantryctl failures --clear starts a new one."};
    for (const auto& each : *list)
        if (const auto* failure = each.as<JSONObject>()) failures.push_back(*failure);
    return failures;
}

}  // namespace

ExitCode showLog(const LogOptions& options, const Console& console) {
    auto read = readActivityLog();
    if (const auto* failure = failureOf(read)) return console.report(*failure);
    auto log = selected(std::get<std::vector<ActivityLogEntryIPC>>(std::move(read)), options);
    if (options.isFollowing) return followLog(std::move(log), options, console);
    keepLast(log, options.lines);
    return printLog(log, options, console);
}

ExitCode clearLog(const Console& console) {
    const auto cleared = askToClearActivityLog();
    if (const auto* failure = failureOf(cleared)) return console.report(*failure);
    console.out << "The log is empty. It fills again with the next flow.\n";
    return ExitCode::done;
}

// The daemon's own list covers its newest entries; without it the log file alone has to do.
ExitCode showApplications(bool asJSON, const Console& console) {
    const auto read = readActivityLog();
    if (const auto* failure = failureOf(read)) return console.report(*failure);
    const auto response = askForActiveApps();
    std::set<std::string> active;
    if (const auto* known = std::get_if<vantry::ActiveAppsResponse>(&response))
        active.insert(known->bundleIds.begin(), known->bundleIds.end());
    const auto applications =
        applicationsOf(std::get<std::vector<ActivityLogEntryIPC>>(read), active);
    if (asJSON) {
        JSONArray list;
        for (const auto& each : applications) list.emplace_back(documentOfApplication(each));
        console.out << documentOf({{"applications", std::move(list)}});
    } else if (applications.empty()) {
        console.out << "No application has been seen yet.\n";
    } else {
        Table table({{"APPLICATION", true}, {"FLOWS", false, true}, {"WENT", true}, {"LAST SEEN"}});
        const auto now = Date::now();
        for (const auto& each : applications)
            table.add({each.identifier, std::to_string(each.activity.flows),
                       routesText(each.activity),
                       each.activity.flows == 0 ? "" : localTime(each.activity.lastSeen, now)});
        console.out << table.text(console.width)
                    << "\nThe first column is what rules and blocks are given for.\n";
    }
    if (const auto* failure = failureOf(response)) console.note(failure->what);
    return ExitCode::done;
}

ExitCode showFailures(bool asJSON, const Console& console) {
    const auto read = readFailures();
    if (const auto* failure = failureOf(read)) return console.report(*failure);
    const auto& failures = std::get<std::vector<JSONObject>>(read);
    if (asJSON) {
        console.out << documentOf({{"failures", JSONArray(failures.begin(), failures.end())}});
        return ExitCode::done;
    }
    if (failures.empty()) {
        console.out << "No direct connection has failed for want of a physical interface.\n";
        return ExitCode::done;
    }
    Table table({{"WHEN (UTC)"}, {"APPLICATION", true}, {"HOST", true}});
    for (const auto& each : failures)
        table.add({textUnder(each, "timestamp", "?"), textUnder(each, "bundleId", "?"),
                   textUnder(each, "host", "?")});
    console.out << table.text(console.width)
                << wrapped(
                       "\nEach was a direct application's connection that found no physical "
                       "interface and took the system's own route instead.",
                       0, console.width);
    return ExitCode::done;
}

ExitCode clearFailures(const Console& console) {
    const auto replaced = replaceFile(places::failureFile, "[]");
    if (const auto* failure = failureOf(replaced)) return console.report(*failure);
    console.out << "The list of failures is empty.\n";
    return ExitCode::done;
}

}  // namespace vantryctl
