#include "Host/vantryctl/CompletionCommand.h"

#include <set>

#include "Host/settings/Choices.h"
#include "Host/settings/Settings.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/SettingsClient.h"

namespace vantryctl {

namespace {

using Names = std::set<std::string, std::less<>>;

Settings readableSettings() {
    const auto loaded = loadSettings();
    return failureOf(loaded) ? Settings{} : std::get<StoredSettings>(loaded).choices.settings;
}

void addSeen(Names& names) {
    const auto log = readActivityLog();
    if (failureOf(log)) return;
    for (const auto& entry : std::get<0>(log))
        if (!vantryhost::isRuledCommand(entry.bundleId)) names.insert(entry.bundleId);
}

Names namesOf(const std::string& kind) {
    const auto settings = readableSettings();
    Names names;
    if (kind != "blocked")
        for (const auto& [application, word] : settings.rules) names.insert(application);
    if (kind != "ruled") names.insert(settings.blockedApps.begin(), settings.blockedApps.end());
    if (kind == "seen") addSeen(names);
    return names;
}

}  // namespace

ExitCode printNames(const std::string& kind, const Console& console) {
    for (const auto& name : namesOf(kind))
        if (printable(name) == name) console.out << name << '\n';
    return ExitCode::done;
}

}  // namespace vantryctl
