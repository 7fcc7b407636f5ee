#include "Host/vantryctl/SettingsCommands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <utility>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Duration.h"
#include "Host/vantryctl/SettingsClient.h"

namespace vantryctl {

using platform::JSONFailure;
using platform::JSONObject;
using vantryhost::Choices;
using vantryhost::Settings;

namespace {

// The settings without what is only of the moment: what ends by itself, a trial, the VPN's state.
Settings lastingSettings(Choices choices) {
    choices.endTemporaryRules(std::numeric_limits<vantryhost::SecondsSince1970>::max());
    return std::move(choices.settings);
}

JSONObject lastingDocument(const Choices& choices) {
    JSONObject document;
    lastingSettings(choices).writeInto(document);
    JSONObject lasting;
    for (auto& [key, value] : document)
        if (key != "vpnConnected") lasting[key] = std::move(value);
    return lasting;
}

void line(std::string& text, char sign, std::string_view what) {
    text += fmt::format("{} {}\n", sign, printable(what));
}

void compareWords(std::string& text, std::string_view name, const std::string& before,
                  const std::string& after) {
    if (before == after) return;
    line(text, '-', fmt::format("{}: {}", name, before));
    line(text, '+', fmt::format("{}: {}", name, after));
}

std::string ruleOf(const Settings& settings, const std::string& application) {
    const auto rule = settings.rules.find(application);
    return rule == settings.rules.end() ? "" : rule->second;
}

// What changes from one to the other, a line each, as `diff` shows it.
std::string difference(const Settings& before, const Settings& after) {
    std::string text;
    std::set<std::string> applications;
    for (const auto* settings : {&before, &after})
        for (const auto& [application, word] : settings->rules) applications.insert(application);
    for (const auto& application : applications) {
        const auto old = ruleOf(before, application);
        const auto now = ruleOf(after, application);
        if (old == now) continue;
        if (!old.empty()) line(text, '-', fmt::format("rule {}: {}", application, old));
        if (!now.empty()) line(text, '+', fmt::format("rule {}: {}", application, now));
    }
    for (const auto& application : before.blockedApps)
        if (!after.blockedApps.contains(application)) line(text, '-', "block " + application);
    for (const auto& application : after.blockedApps)
        if (!before.blockedApps.contains(application)) line(text, '+', "block " + application);
    compareWords(text, "default", before.defaultAction, after.defaultAction);
    compareWords(text, "fallback vpn", before.vpnFallback, after.vpnFallback);
    compareWords(text, "fallback direct", before.directFallback, after.directFallback);
    return text;
}

std::string vpnText(const vantryhost::TunnelChoice& tunnel) {
    if (!tunnel.isFollowed) return "by hand";
    return tunnel.interfaces.empty() ? "any tunnel"
                                     : fmt::format("{}", fmt::join(tunnel.interfaces, " "));
}

std::string difference(const Choices& before, const Choices& after) {
    auto text = difference(before.settings, after.settings);
    compareWords(text, "vpn", vpnText(before.tunnel), vpnText(after.tunnel));
    const auto word = [](bool isOn) { return std::string(isOn ? "on" : "off"); };
    compareWords(text, "datagrams direct", word(before.areDatagramsDirect),
                 word(after.areDatagramsDirect));
    compareWords(text, "rules", word(!before.isOff), word(!after.isOff));
    return text;
}

Outcome<Settings> settingsInFile(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        return Failure{ExitCode::failed, path + " cannot be read.",
                       "Make one with: vantryctl export > FILE"};
    std::ostringstream content;
    content << file.rdbuf();
    auto document = vantryhost::objectFrom(path, content.str());
    if (auto* failure = std::get_if<Failure>(&document)) return std::move(*failure);
    auto settings = Settings::read(std::get<JSONObject>(document));
    if (const auto* problem = std::get_if<JSONFailure>(&settings))
        return Failure{ExitCode::failed, path + ": " + problem->description + ".", ""};
    return std::get<Settings>(std::move(settings));
}

bool agrees(const Console& console) {
    if (isatty(STDIN_FILENO) == 0) return false;
    console.out << "Do it? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

ExitCode finish(const Outcome<Change>& outcome, const Console& console, std::string_view done,
                std::string_view nothing) {
    if (const auto* failure = failureOf(outcome)) return console.report(*failure);
    const auto& change = std::get<Change>(outcome);
    console.out << (change.isStored ? done : nothing) << '\n';
    for (const auto& note : change.notes) console.note(note);
    return ExitCode::done;
}

}  // namespace

ExitCode tryCommand(const std::vector<std::string>& arguments, std::chrono::seconds time,
                    const Console& console) {
    const TrialOfChanges trial(time);
    const int status = run(arguments, console);
    if (trial.hasBegun())
        console.out << fmt::format(
            "On trial: taken back in {} unless you keep it with: vantryctl confirm\n",
            durationText(time.count()));
    else if (status == 0)
        console.out << "This changed nothing that would be taken back.\n";
    return static_cast<ExitCode>(status);
}

ExitCode confirmTrial(const Console& console) {
    const auto change = changeSettings(
        [](Choices& choices) { return std::exchange(choices.trial, std::nullopt).has_value(); });
    return finish(change, console, "It is kept.", "Nothing is on trial.");
}

ExitCode switchRules(bool areOn, const Console& console) {
    const auto change = changeSettings(
        [&](Choices& choices) { return std::exchange(choices.isOff, !areOn) == areOn; });
    return finish(change, console,
                  areOn ? "The rules hold again."
                        : "Traffic goes as if there were no rules, also after the next boot.",
                  "Nothing to change.");
}

ExitCode undo(const Console& console) {
    const auto outcome = undoChange();
    const auto status = finish(outcome, console, "The newest change is taken back:",
                               "The newest change is taken back; nothing that is shown differs.");
    if (const auto* change = std::get_if<Change>(&outcome))
        console.out << difference(change->before, change->after);
    return status;
}

ExitCode exportSettings(const Console& console) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return console.report(*failure);
    console.out << vantryhost::prettyDocumentOf(
        lastingDocument(std::get<StoredSettings>(loaded).choices));
    return ExitCode::done;
}

ExitCode importSettings(const ImportOptions& options, const Console& console) {
    auto read = settingsInFile(options.file);
    if (const auto* failure = failureOf(read)) return console.report(*failure);
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return console.report(*failure);
    auto& wanted = std::get<Settings>(read);
    const auto text = difference(lastingSettings(std::get<StoredSettings>(loaded).choices), wanted);
    if (text.empty()) {
        console.out << "Nothing to change.\n";
        return ExitCode::done;
    }
    console.out << text;
    if (options.isDryRun) return ExitCode::done;
    if (!options.isAgreed && !agrees(console)) {
        console.out << "Nothing was changed. Add --yes to do it without asking.\n";
        return ExitCode::failed;
    }
    const auto change = changeSettings([&](Choices& choices) {
        const auto before = choices;
        wanted.vpnConnected = choices.settings.vpnConnected;
        choices.settings = wanted;
        choices.temporaryRules.clear();
        choices.takeRuledCommandsFrom(before);
        return choices.settings != before.settings;
    });
    return finish(change, console, "The settings are those of the file.", "Nothing to change.");
}

}  // namespace vantryctl
