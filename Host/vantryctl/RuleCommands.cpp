#include "Host/vantryctl/RuleCommands.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "Host/vantryctl/Documents.h"
#include "Host/vantryctl/Settings.h"
#include "Host/vantryctl/SettingsStore.h"
#include "Platform/Common/Text.h"

namespace vantryctl {

namespace {

constexpr std::size_t longestIdentifier = 1023;

Failure usage(std::string what, std::string advice = "") {
    return {ExitCode::usage, std::move(what), std::move(advice)};
}

// What no application can be called.
std::optional<Failure> objectionTo(const std::string& application) {
    if (application.empty() || application.size() > longestIdentifier)
        return usage("An application's identifier has 1 to 1023 bytes.");
    if (printable(application) != application)
        return usage("This is no application's identifier: " + printable(application));
    return std::nullopt;
}

std::optional<Failure> objectionToAny(const std::vector<std::string>& applications) {
    for (const auto& application : applications)
        if (auto objection = objectionTo(application)) return objection;
    return std::nullopt;
}

// A name that looks like a file's may be meant as one.
void hintAtPath(const std::string& application, const Console& console) {
    if (application.front() == '/' && application.find('.') != std::string::npos)
        console.note(
            "Identifiers made from a program's path have no dots; vantryctl identify FILE says "
            "what "
            "this one's is.");
}

ExitCode finish(const Outcome<Change>& outcome, const Console& console,
                const std::function<void(const Change&)>& explain) {
    if (const auto* failure = failureOf(outcome)) return console.report(*failure);
    const auto& change = std::get<Change>(outcome);
    if (change.isStored)
        explain(change);
    else
        console.out << "Nothing to change.\n";
    for (const auto& note : change.notes) console.note(note);
    return ExitCode::done;
}

void say(const Console& console, const std::string& text) {
    console.out << wrapped(printable(text), 0, console.width);
}

// What an application's rule comes to: the word itself, or what the daemon takes it for.
std::string routeOf(const std::string& word) { return word == "direct" ? "direct" : "vpn"; }

std::string noteOnRule(const Settings& settings, const std::string& application,
                       const std::string& word) {
    const auto block = blockThatCovers(settings, application);
    if (!block.empty() && block != application) return fmt::format("blocked with {}", block);
    if (word == "block") return "a rule \"block\" blocks nothing: use rules block";
    if (word != "vpn" && word != "direct") return fmt::format("\"{}\" counts as vpn", word);
    return "";
}

Table ruleTable(const Settings& settings) {
    Table table({{"APPLICATION", true}, {"ROUTE"}, {"NOTE", true}});
    std::set<std::string> applications(settings.blockedApps.begin(), settings.blockedApps.end());
    for (const auto& [application, word] : settings.rules) applications.insert(application);
    for (const auto& application : applications) {
        const auto rule = settings.rules.find(application);
        if (settings.blockedApps.contains(application))
            table.add({application, "blocked",
                       rule == settings.rules.end()
                           ? ""
                           : "its rule, " + rule->second + ", waits for unblock"});
        else
            table.add({application, routeOf(rule->second),
                       noteOnRule(settings, application, rule->second)});
    }
    table.add({"(all others)", routeOf(settings.defaultAction),
               settings.defaultAction == "block" ? "\"block\" as the default blocks nothing" : ""});
    return table;
}

std::string vpnDownText(const Settings& settings) {
    return settings.vpnFallback == "block" ? "applications with a rule for the VPN are blocked "
                                             "(TCP, and UDP to port 443); those "
                                             "without a rule are not"
                                           : "applications leave over the system's own route";
}

std::string noInterfaceText(const Settings& settings) {
    return settings.directFallback == "block"
               ? "direct applications' TCP connections are closed"
               : "direct applications leave over the system's own route, and a failure is recorded";
}

std::string documentOfSettings(const Settings& settings) {
    platform::JSONObject document;
    settings.writeInto(document);
    return documentOf(document);
}

void noteFiles(const StoredSettings& stored, const Console& console) {
    if (!stored.rulesFileProblem.empty())
        console.note(stored.rulesFileProblem + " The daemon cannot use it: vantryctl reload.");
    else if (stored.areInPreferences && !stored.rulesFile)
        console.note("The rules file is missing. vantryctl reload makes it anew.");
    else if (!stored.isRulesFileCurrent())
        console.note(
            "The rules file says something else than the preferences, which are shown here: "
            "vantryctl reload.");
}

}  // namespace

ExitCode showRules(bool asJSON, const Console& console) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return console.report(*failure);
    const auto& stored = std::get<StoredSettings>(loaded);
    const auto& settings = stored.settings;
    if (asJSON) {
        console.out << documentOfSettings(settings);
        return ExitCode::done;
    }
    console.out << ruleTable(settings).text(console.width) << '\n'
                << fmt::format("The VPN is said to be {}.\n", settings.vpnConnected ? "up" : "down")
                << wrapped("When it is down, " + vpnDownText(settings) + ".", 0, console.width)
                << wrapped("Without a physical interface, " + noInterfaceText(settings) + ".", 0,
                           console.width);
    noteFiles(stored, console);
    return ExitCode::done;
}

ExitCode setRule(const std::vector<std::string>& applications, const std::string& route,
                 const Console& console) {
    if (route == "block")
        return console.report(
            usage("A rule chooses between vpn and direct; it cannot block.",
                  fmt::format("To block: vantryctl rules block {}", applications.front())));
    if (route != "vpn" && route != "direct")
        return console.report(usage("A route is vpn or direct, not " + route + "."));
    if (const auto objection = objectionToAny(applications)) return console.report(*objection);
    for (const auto& application : applications) hintAtPath(application, console);
    const auto change = changeSettings([&](Settings& settings) {
        const auto before = settings.rules;
        for (const auto& application : applications) settings.rules[application] = route;
        return settings.rules != before;
    });
    return finish(change, console, [&](const Change& done) {
        if (route == "direct")
            say(console,
                "New TCP connections leave over the physical interface, beside the VPN; open ones "
                "end at their next data, and the application connects again. Its UDP (name "
                "look-ups, "
                "calls, HTTP/3) stays on the system's own route.");
        else
            say(console,
                "Open direct connections end; new ones take the system's own route, the VPN while "
                "that is up. When it is down, " +
                    vpnDownText(done.after) + ".");
        for (const auto& application : applications)
            if (const auto block = blockThatCovers(done.after, application); !block.empty())
                console.note(fmt::format("{} is blocked, and stays so: vantryctl rules unblock {}",
                                         application, block));
    });
}

ExitCode removeRules(const std::vector<std::string>& applications, const Console& console) {
    const auto change = changeSettings([&](Settings& settings) {
        std::size_t removed = 0;
        for (const auto& application : applications) removed += settings.rules.erase(application);
        return removed > 0;
    });
    return finish(change, console, [&](const Change& done) {
        for (const auto& application : applications)
            if (!done.before.rules.contains(application))
                console.note(fmt::format("{} had no rule.", application));
        say(console, fmt::format("Without a rule, an application takes the default route: {}.",
                                 routeOf(done.after.defaultAction)));
    });
}

ExitCode setDefaultRoute(const std::string& route, const Console& console) {
    if (route == "block")
        return console.report(
            usage("The default cannot block: what blocks is a filter that knows applications by "
                  "name and no default, so that everything would pass.",
                  "Block applications one by one: vantryctl rules block APPLICATION"));
    if (route != "vpn" && route != "direct")
        return console.report(usage("A route is vpn or direct, not " + route + "."));
    const auto change = changeSettings(
        [&](Settings& settings) { return std::exchange(settings.defaultAction, route) != route; });
    return finish(change, console, [&](const Change&) {
        if (route == "direct")
            say(console,
                "New TCP connections of applications without a rule leave over the physical "
                "interface, beside the VPN. Open ones go on as they are.");
        else
            say(console,
                "Applications without a rule stay on the system's own route, the VPN while that is "
                "up; direct connections that are open go on. When the VPN is down they are never "
                "blocked: that takes a rule.");
    });
}

ExitCode blockApplications(const std::vector<std::string>& applications, const Console& console) {
    if (const auto objection = objectionToAny(applications)) return console.report(*objection);
    for (const auto& application : applications) hintAtPath(application, console);
    const auto change = changeSettings([&](Settings& settings) {
        const auto before = settings.blockedApps.size();
        settings.blockedApps.insert(applications.begin(), applications.end());
        return settings.blockedApps.size() != before;
    });
    return finish(change, console, [&](const Change&) {
        say(console,
            "Blocked, with all that is named below: new traffic is refused, TCP and UDP, except "
            "name "
            "look-ups (UDP port 53). Open connections end, at the latest with what they send "
            "next.");
        say(console,
            "A program that an application starts is blocked through that application, or under "
            "its "
            "own name only where it runs on its own.");
    });
}

ExitCode unblockApplications(const std::vector<std::string>& applications, const Console& console) {
    const auto change = changeSettings([&](Settings& settings) {
        std::size_t removed = 0;
        for (const auto& application : applications)
            removed += settings.blockedApps.erase(application);
        return removed > 0;
    });
    return finish(change, console, [&](const Change& done) {
        for (const auto& application : applications) {
            if (!done.before.blockedApps.contains(application))
                console.note(fmt::format("{} was not blocked by this name.", application));
            if (const auto block = blockThatCovers(done.after, application); !block.empty())
                console.note(fmt::format("{} is still blocked, with {}.", application, block));
        }
        say(console, "Unblocked.");
    });
}

ExitCode setFallback(Fallback fallback, const std::string& word, const Console& console) {
    if (word != "allow" && word != "block")
        return console.report(usage("A fallback is allow or block, not " + word + "."));
    const auto change = changeSettings([&](Settings& settings) {
        auto& field = fallback == Fallback::vpn ? settings.vpnFallback : settings.directFallback;
        return std::exchange(field, word) != word;
    });
    return finish(change, console, [&](const Change& done) {
        if (fallback == Fallback::vpn)
            say(console, "While the VPN is down, " + vpnDownText(done.after) + ".");
        else
            say(console, "Without a physical interface, " + noInterfaceText(done.after) + ".");
    });
}

ExitCode setVPNState(bool isUp, const Console& console) {
    const auto change = changeSettings(
        [&](Settings& settings) { return std::exchange(settings.vpnConnected, isUp) != isUp; });
    return finish(change, console, [&](const Change& done) {
        console.out << fmt::format("The daemon takes the VPN to be {}.\n", isUp ? "up" : "down");
        if (!isUp) say(console, "While it is down, " + vpnDownText(done.after) + ".");
    });
}

ExitCode reloadRules(const Console& console) {
    const auto restored = restoreRulesFile();
    if (const auto* failure = failureOf(restored)) return console.report(*failure);
    const auto& change = std::get<Change>(restored);
    console.out << (change.isStored ? "The rules file was made anew from the preferences.\n"
                                    : "The rules file says what the preferences say.\n");
    for (const auto& note : change.notes) console.note(note);
    return ExitCode::done;
}

}  // namespace vantryctl
