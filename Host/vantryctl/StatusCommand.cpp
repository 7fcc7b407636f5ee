#include "Host/vantryctl/StatusCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <utility>
#include <vector>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Duration.h"
#include "Host/vantryctl/SettingsClient.h"

namespace vantryctl {

using platform::JSONArray;
using platform::JSONObject;

namespace {

std::string counted(std::int64_t count, const char* what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string daemonText(const Outcome<vantry::ExtensionStatus>& status) {
    if (const auto* known = std::get_if<vantry::ExtensionStatus>(&status))
        return fmt::format("running, {} in force", counted(known->ruleCount, "rule"));
    return std::get<Failure>(status).code == ExitCode::daemonNotRunning ? "not running"
                                                                        : "cannot be asked";
}

std::string trialText(const vantryhost::Choices& choices) {
    if (!choices.trial) return "";
    return fmt::format("Trial     a change is taken back in {} unless: vantryctl confirm\n",
                       durationText(choices.trial->until - std::time(nullptr)));
}

std::string settingsText(const StoredSettings& stored) {
    const auto& settings = stored.choices.settings;
    const auto& tunnel = stored.tunnel;
    std::string vpn = tunnel.isUp ? "up" : "down";
    if (!tunnel.isFollowed) vpn = "said to be " + vpn;
    if (!tunnel.carrying.empty()) vpn += fmt::format(" ({})", fmt::join(tunnel.carrying, ", "));
    const auto others = splitTunnelsText(tunnel);
    return fmt::format("Settings  {}\n",
                       stored.hasSettings ? fmt::format("{}, {} blocked, all others {}",
                                                        counted(std::ssize(settings.rules), "rule"),
                                                        settings.blockedApps.size(),
                                                        printable(settings.defaultAction))
                                          : "nothing was set yet, the defaults hold") +
           fmt::format("VPN       {}; when down: {}\n", printable(vpn),
                       printable(settings.vpnFallback)) +
           (others.empty() ? "" : fmt::format("          {}\n", printable(others))) +
           fmt::format("Direct    without a physical interface: {}\n",
                       printable(settings.directFallback)) +
           trialText(stored.choices);
}

// "no" for a problem that is not there.
std::string healthText(const HealthItem& item) {
    if (const auto* text = item.value.as<std::string>())
        return item.isProblem ? "yes: " + printable(*text) : printable(*text);
    if (const auto* number = item.value.as<std::int64_t>()) return std::to_string(*number);
    if (const auto* number = item.value.as<std::uint64_t>()) return std::to_string(*number);
    return "no";
}

std::string healthBlock(const std::vector<HealthItem>& items) {
    std::size_t width = 0;
    for (const auto& item : items) width = std::max(width, item.label.size());
    std::string block;
    for (const auto& item : items)
        block += fmt::format("  {:<{}}  {}\n", item.label, width, healthText(item));
    return block.empty() ? block : "Health\n" + block;
}

std::vector<std::string> problemsOf(const StoredSettings& stored,
                                    const Outcome<std::vector<HealthItem>>& health) {
    auto problems = stored.problems;
    if (stored.choices.isOff)
        problems.insert(
            problems.begin(),
            "All rules are switched off (vantryctl off). They hold again after: vantryctl on");
    if (const auto* items = std::get_if<std::vector<HealthItem>>(&health))
        for (const auto& item : *items)
            if (const auto* text = item.value.as<std::string>(); item.isProblem && text)
                problems.push_back(fmt::format("{}: {}", item.label, *text));
    return problems;
}

JSONObject healthDocument(const std::vector<HealthItem>& items) {
    JSONObject document;
    for (const auto& item : items) document[item.key] = item.value;
    return document;
}

JSONObject statusDocument(const Outcome<vantry::ExtensionStatus>& status,
                          const Outcome<std::vector<HealthItem>>& health,
                          const StoredSettings& stored) {
    JSONObject document;
    const auto* known = std::get_if<vantry::ExtensionStatus>(&status);
    document["isRunning"] = known != nullptr;
    if (known != nullptr) document["ruleCount"] = known->ruleCount;
    const auto& settings = stored.choices.settings;
    document["storedRuleCount"] = static_cast<std::int64_t>(settings.rules.size());
    document["blockedCount"] = static_cast<std::int64_t>(settings.blockedApps.size());
    document["vpnConnected"] = settings.vpnConnected;
    document["vpnInterfaces"] =
        JSONArray(stored.tunnel.carrying.begin(), stored.tunnel.carrying.end());
    document["defaultAction"] = settings.defaultAction;
    document["vpnFallback"] = settings.vpnFallback;
    document["directFallback"] = settings.directFallback;
    const auto problems = problemsOf(stored, health);
    document["problems"] = JSONArray(problems.begin(), problems.end());
    if (const auto* items = std::get_if<std::vector<HealthItem>>(&health))
        document["health"] = healthDocument(*items);
    return document;
}

}  // namespace

ExitCode showStatus(bool asJSON, const Console& console) {
    const auto loaded = loadSettings();
    const auto* withoutSettings = failureOf(loaded);
    const auto stored =
        withoutSettings == nullptr ? std::get<StoredSettings>(loaded) : StoredSettings{};
    const auto status = askForStatus();
    const auto health = askForHealth();
    const auto* failure = failureOf(status);
    if (asJSON) {
        console.out << documentOf(statusDocument(status, health, stored));
    } else {
        for (const auto& problem : problemsOf(stored, health))
            console.out << wrapped("Problem: " + printable(problem), 0, console.width);
        console.out << fmt::format("Daemon    {}\n", daemonText(status));
        if (withoutSettings == nullptr) console.out << settingsText(stored);
        if (const auto* items = std::get_if<std::vector<HealthItem>>(&health))
            console.out << healthBlock(*items);
    }
    if (const auto* silence = failureOf(health); failure == nullptr && silence != nullptr)
        console.note(silence->what);
    if (withoutSettings != nullptr) console.report(*withoutSettings);
    if (failure != nullptr) return console.report(*failure);
    return withoutSettings == nullptr ? ExitCode::done : withoutSettings->code;
}

}  // namespace vantryctl
