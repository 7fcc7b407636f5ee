#include "Host/vantryctl/RuleCommands.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <set>
#include <utility>

#include "Host/settings/Documents.h"
#include "Host/settings/Settings.h"
#include "Host/vantryctl/Duration.h"
#include "Host/vantryctl/Names.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Platform/Common/Text.h"

namespace vantryctl {

using vantryhost::Choices;

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

// The applications that the words name, once nothing stands against them. The settings tell which names
// are known.
Outcome<NamedApplications> named(const std::vector<std::string>& words) {
    if (auto objection = objectionToAny(words)) return *std::move(objection);
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return *failure;
    return applicationsNamed(words, std::get<StoredSettings>(loaded).choices.settings);
}

Outcome<NamedApplications> namedInRules(const std::vector<std::string>& words) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return *failure;
    return applicationsWithRules(words, std::get<StoredSettings>(loaded).choices.settings);
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

// What ends by itself, in a table of its own.
std::string temporaryText(const vantryhost::Choices& choices) {
    if (choices.temporaryRules.empty()) return "";
    Table table({{"FOR THE TIME BEING", true}, {"FOR"}, {"THEN"}});
    const auto now = std::time(nullptr);
    for (const auto& rule : choices.temporaryRules)
        table.add({rule.application, durationText(rule.until - now),
                   rule.wasBlocked ? "blocked" : rule.ruleBefore.value_or("no rule")});
    return "\n" + table.text();
}

std::string tunnelText(const StoredSettings& stored) {
    const auto& tunnel = stored.tunnel;
    const std::string_view state = tunnel.isUp ? "up" : "down";
    if (!tunnel.isFollowed) return fmt::format("The VPN is said to be {} (vpn follow).", state);
    if (!tunnel.isUp && tunnel.split.empty()) return "The VPN is down.";
    if (!tunnel.isUp) return fmt::format("The VPN is down: {}.", splitTunnelsText(tunnel));
    return fmt::format("The VPN is up: {}.", fmt::join(tunnel.carrying, ", "));
}

// What is changed after it lasts for `time` only, where one is given.
void limitTo(const std::optional<std::chrono::seconds>& time, vantryhost::Choices& choices,
             const std::vector<std::string>& applications) {
    if (!time) return;
    for (const auto& application : applications)
        choices.makeTemporary(application, std::time(nullptr) + time->count());
}

void sayHowLong(const std::optional<std::chrono::seconds>& time, const Console& console) {
    if (time) say(console, "This ends by itself in " + durationText(time->count()) + ".");
}

}  // namespace

ExitCode showRules(bool asJSON, const Console& console) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return console.report(*failure);
    const auto& stored = std::get<StoredSettings>(loaded);
    const auto& settings = stored.choices.settings;
    if (asJSON) {
        console.out << documentOfSettings(settings);
        return ExitCode::done;
    }
    if (stored.choices.isOff)
        say(console, "All of this is switched off, and holds again after: vantryctl on");
    if (stored.choices.trial)
        say(console, fmt::format("A change is on trial: it is taken back in {} unless you keep it "
                                 "with: vantryctl confirm",
                                 durationText(stored.choices.trial->until - std::time(nullptr))));
    console.out << ruleTable(settings).text(console.width) << temporaryText(stored.choices) << '\n'
                << wrapped(printable(tunnelText(stored)), 0, console.width)
                << wrapped("When it is down, " + vpnDownText(settings) + ".", 0, console.width)
                << wrapped("Without a physical interface, " + noInterfaceText(settings) + ".", 0,
                           console.width);
    for (const auto& problem : stored.problems) console.note(problem);
    return ExitCode::done;
}

ExitCode setRule(const std::vector<std::string>& words, const std::string& route,
                 std::optional<std::chrono::seconds> time, const Console& console) {
    if (route == "block")
        return console.report(
            usage("A rule chooses between vpn and direct; it cannot block.",
                  fmt::format("To block: vantryctl rules block {}", fmt::join(words, " "))));
    const bool isRoute = route == "vpn" || route == "direct";
    if (words.empty() && isRoute)
        return console.report(usage("Whose rule?", "vantryctl rules set APPLICATION... " + route));
    if (!isRoute)
        return console.report(
            usage(words.empty() ? "Which route?"
                                : fmt::format("A route is vpn or direct, not {}.", route),
                  "It comes last: vantryctl rules set APPLICATION... vpn|direct"));
    const auto names = named(words);
    if (const auto* failure = failureOf(names)) return console.report(*failure);
    const auto& applications = std::get<NamedApplications>(names).identifiers;
    for (const auto& note : std::get<NamedApplications>(names).notes) console.note(note);
    const auto change = changeSettings([&](Choices& choices) {
        const auto before = choices;
        limitTo(time, choices, applications);
        for (const auto& application : applications) {
            choices.settings.rules[application] = route;
            if (!time) choices.keepRuleOf(application);
        }
        return choices != before;
    });
    return finish(change, console, [&](const Change& done) {
        const auto wasDirectByDefault = [&](const auto& application) {
            const auto& before = done.before.settings;
            return before.defaultAction == "direct" && !before.rules.contains(application);
        };
        if (route == "direct")
            say(console,
                "New TCP connections leave over the physical interface, beside the VPN; open ones "
                "end at their next data, and the application connects again. " +
                    std::string(done.after.areDatagramsDirect
                                    ? "Its UDP goes with them, but for name look-ups."
                                    : "Its UDP (name look-ups, calls, HTTP/3) stays on the "
                                      "system's own route."));
        else
            say(console,
                std::string(std::ranges::all_of(applications, wasDirectByDefault)
                                ? "New connections take"
                                : "Open direct connections end; new ones take") +
                    " the system's own route, the VPN while that is up. When it is down, " +
                    vpnDownText(done.after.settings) + ".");
        if (route != "direct" && std::ranges::any_of(applications, wasDirectByDefault))
            console.note(
                "What was direct by the default goes on directly until it ends: restart the "
                "application.");
        sayHowLong(time, console);
        for (const auto& application : applications)
            if (const auto block = blockThatCovers(done.after.settings, application);
                !block.empty())
                console.note(fmt::format("{} is still blocked: vantryctl rules unblock {}",
                                         application, block));
    });
}

ExitCode removeRules(const std::vector<std::string>& words, const Console& console) {
    const auto names = namedInRules(words);
    if (const auto* failure = failureOf(names)) return console.report(*failure);
    const auto& applications = std::get<NamedApplications>(names).identifiers;
    const auto change = changeSettings([&](Choices& choices) {
        std::size_t removed = 0;
        for (const auto& application : applications) {
            removed += choices.settings.rules.erase(application);
            choices.keepRuleOf(application);
        }
        return removed > 0;
    });
    return finish(change, console, [&](const Change& done) {
        for (const auto& application : applications)
            if (!done.before.settings.rules.contains(application))
                console.note(fmt::format("{} had no rule.", application));
        say(console, fmt::format("Without a rule, an application takes the default route: {}.",
                                 routeOf(done.after.settings.defaultAction)));
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
    const auto change = changeSettings([&](Choices& choices) {
        return std::exchange(choices.settings.defaultAction, route) != route;
    });
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

ExitCode blockApplications(const std::vector<std::string>& words,
                           std::optional<std::chrono::seconds> time, const Console& console) {
    const auto names = named(words);
    if (const auto* failure = failureOf(names)) return console.report(*failure);
    const auto& applications = std::get<NamedApplications>(names).identifiers;
    for (const auto& note : std::get<NamedApplications>(names).notes) console.note(note);
    const auto change = changeSettings([&](Choices& choices) {
        const auto before = choices;
        limitTo(time, choices, applications);
        for (const auto& application : applications) {
            choices.settings.blockedApps.insert(application);
            if (!time) choices.keepBlockOf(application);
        }
        return choices != before;
    });
    return finish(change, console, [&](const Change&) {
        say(console,
            "Blocked, with all that is named below: new traffic is refused, TCP and UDP, except "
            "name "
            "look-ups (UDP port 53). Open connections end, at the latest with what they send "
            "next. What others begin is still answered.");
        say(console,
            "A program that an application starts is blocked through that application, or under "
            "its "
            "own name only where it runs on its own.");
        sayHowLong(time, console);
    });
}

namespace {

void noteBlocksLeft(const Change& done, const std::string& application, const Console& console) {
    if (const auto block = blockThatCovers(done.after.settings, application); !block.empty())
        console.note(fmt::format("{0} is still blocked, as {1} is: vantryctl rules unblock {1}",
                                 application, block));
    else if (!done.before.settings.blockedApps.contains(application))
        console.note(fmt::format("{} was not blocked.", application));
}

}  // namespace

ExitCode unblockApplications(const std::vector<std::string>& words, const Console& console) {
    const auto names = namedInRules(words);
    if (const auto* failure = failureOf(names)) return console.report(*failure);
    const auto& applications = std::get<NamedApplications>(names).identifiers;
    const auto change = changeSettings([&](Choices& choices) {
        std::size_t removed = 0;
        for (const auto& application : applications) {
            removed += choices.settings.blockedApps.erase(application);
            choices.keepBlockOf(application);
        }
        return removed > 0;
    });
    const auto status = finish(change, console, [&](const Change&) { say(console, "Unblocked."); });
    if (const auto* done = std::get_if<Change>(&change))
        for (const auto& application : applications) noteBlocksLeft(*done, application, console);
    return status;
}

ExitCode setFallback(Fallback fallback, const std::string& word, const Console& console) {
    if (word != "allow" && word != "block")
        return console.report(usage("A fallback is allow or block, not " + word + "."));
    const auto change = changeSettings([&](Choices& choices) {
        auto& field = fallback == Fallback::vpn ? choices.settings.vpnFallback
                                                : choices.settings.directFallback;
        return std::exchange(field, word) != word;
    });
    return finish(change, console, [&](const Change& done) {
        if (fallback == Fallback::vpn)
            say(console, "While the VPN is down, " + vpnDownText(done.after.settings) + ".");
        else
            say(console,
                "Without a physical interface, " + noInterfaceText(done.after.settings) + ".");
    });
}

ExitCode setDirectDatagrams(const std::string& word, const Console& console) {
    if (word != "on" && word != "off")
        return console.report(usage("Direct datagrams are on or off, not " + word + "."));
    const auto change = changeSettings([&](Choices& choices) {
        const bool isOn = word == "on";
        return std::exchange(choices.areDatagramsDirect, isOn) != isOn;
    });
    return finish(change, console, [&](const Change& done) {
        say(console, std::string("The datagrams (UDP) of direct applications go ") +
                         (done.after.areDatagramsDirect ? "directly too, but for name look-ups."
                                                        : "over the system's own route."));
        if (done.after.areDatagramsDirect)
            say(console, "vantryctl status says whether this kernel can carry them.");
    });
}

ExitCode setVPNState(bool isUp, const Console& console) {
    const auto change = changeSettings([&](Choices& choices) {
        const auto before = choices;
        choices.tunnel.isFollowed = false;
        choices.settings.vpnConnected = isUp;
        return choices != before;
    });
    return finish(change, console, [&](const Change& done) {
        console.out << fmt::format("The daemon takes the VPN to be {}.\n", isUp ? "up" : "down");
        say(console,
            "It stays so until you say otherwise, or have it followed: vantryctl vpn follow.");
        if (!isUp) say(console, "While it is down, " + vpnDownText(done.after.settings) + ".");
    });
}

ExitCode followVPN(const std::vector<std::string>& interfaces, const Console& console) {
    const auto change = changeSettings([&](Choices& choices) {
        const vantryhost::TunnelChoice wanted{true, interfaces};
        return std::exchange(choices.tunnel, wanted) != wanted;
    });
    return finish(change, console, [&](const Change&) {
        say(console,
            interfaces.empty()
                ? std::string(
                      "The VPN is up while any tunnel is, and its routes are there. One for "
                      "some networks only does not count beside one that carried all.")
                : fmt::format("The VPN is up while {} is, and its routes are there.",
                              fmt::join(interfaces, " or ")));
    });
}

ExitCode reloadRules(const Console& console) {
    const auto restored = restoreRulesFile();
    if (const auto* failure = failureOf(restored)) return console.report(*failure);
    console.out << "The rules file says what the preferences say.\n";
    for (const auto& note : std::get<Change>(restored).notes) console.note(note);
    return ExitCode::done;
}

}  // namespace vantryctl
