#include "Host/vantryctl/SettingsCommands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

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

const std::vector<std::string> routeWords{"vpn", "direct", "block"};
const std::vector<std::string> fallbackWords{"allow", "block"};

bool isOneOf(const std::string& word, const std::vector<std::string>& words) {
    return std::ranges::find(words, word) != words.end();
}

// Words that an edit by hand has brought in, as what they count for: `import` knows no others.
Settings inKnownWords(Settings settings, const Console& console) {
    const auto replace = [&](std::string_view what, std::string& word, const auto& words) {
        if (isOneOf(word, words)) return;
        console.note(fmt::format("{} is \"{}\", which counts as {}: printed as that.", what, word,
                                 words[0]));
        word = words[0];
    };
    replace("defaultAction", settings.defaultAction, routeWords);
    replace("vpnFallback", settings.vpnFallback, fallbackWords);
    replace("directFallback", settings.directFallback, fallbackWords);
    for (auto& [application, word] : settings.rules)
        replace(fmt::format("the rule of {}", application), word, routeWords);
    return settings;
}

JSONObject lastingDocument(const Settings& settings) {
    JSONObject document;
    settings.writeInto(document);
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

std::string mistakenWord(std::string_view what, const std::string& word,
                         const std::vector<std::string>& words) {
    if (isOneOf(word, words)) return "";
    return fmt::format("{} is \"{}\", not {}", what, printable(word), fmt::join(words, " or "));
}

// What the daemon would pass over, taking its own choice instead; empty if there is nothing.
std::string mistakeIn(const JSONObject& document, const Settings& settings) {
    JSONObject known;
    settings.writeInto(known);
    for (const auto& [key, value] : document)
        if (known.find(key) == known.end())
            return fmt::format("no setting is called {}", printable(key));
    std::vector mistakes{mistakenWord("defaultAction", settings.defaultAction, routeWords),
                         mistakenWord("vpnFallback", settings.vpnFallback, fallbackWords),
                         mistakenWord("directFallback", settings.directFallback, fallbackWords)};
    for (const auto& [application, word] : settings.rules)
        mistakes.push_back(
            mistakenWord(fmt::format("the rule of {}", printable(application)), word, routeWords));
    const auto first =
        std::ranges::find_if(mistakes, [](const auto& each) { return !each.empty(); });
    return first == mistakes.end() ? "" : *first;
}

// Such a rule counts as one for the VPN, whatever its writer may have meant.
void noteWhatBlocksNothing(const Settings& settings, const Console& console) {
    for (const auto& [application, word] : settings.rules)
        if (word == "block" && blockThatCovers(settings, application).empty())
            console.note(
                fmt::format("A rule \"block\" blocks nothing. To block it: vantryctl rules "
                            "block {}",
                            application));
    if (settings.defaultAction == "block")
        console.note(
            "\"block\" as the default blocks nothing: block applications one by one, with "
            "vantryctl rules block APPLICATION");
}

Outcome<Settings> settingsInFile(const std::string& path) {
    const auto unusable = [](const std::string& what) {
        return Failure{ExitCode::failed, what, "Make one with: vantryctl export > FILE"};
    };
    std::ifstream file(path);
    if (!file) return unusable(path + " cannot be read.");
    std::ostringstream content;
    content << file.rdbuf();
    const auto document = vantryhost::objectFrom(path, content.str());
    if (const auto* failure = failureOf(document)) return unusable(failure->what);
    const auto& object = std::get<JSONObject>(document);
    auto settings = Settings::read(object);
    if (const auto* problem = std::get_if<JSONFailure>(&settings))
        return unusable(path + ": " + problem->description + ".");
    auto& found = std::get<Settings>(settings);
    const auto mistake = mistakeIn(object, found);
    if (!mistake.empty())
        return Failure{ExitCode::failed, path + ": " + mistake + ".",
                       "Correct it in the file; man vantry-rules says what each setting takes."};
    return std::move(found);
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
    if (arguments.empty())
        return console.report({ExitCode::usage, "There is no command to try.",
                               "vantryctl try --help says what it takes."});
    const TrialOfChanges trial(time);
    const int status = run(arguments, console);
    if (const auto end = trial.end())
        console.out << fmt::format(
            "On trial: taken back in {} unless you keep it with: vantryctl confirm\n",
            durationText(*end - std::time(nullptr)));
    else if (status == 0)
        console.out << "This changed nothing that would be taken back.\n";
    return static_cast<ExitCode>(status);
}

ExitCode confirmTrial(const Console& console) {
    const auto change = changeSettings(
        [](Choices& choices) { return std::exchange(choices.trial, std::nullopt).has_value(); });
    if (const auto* done = std::get_if<Change>(&change); done != nullptr && !done->isStored)
        return console.report(
            {ExitCode::failed, "Nothing is on trial.",
             "A trial whose time is over was taken back: make the change again."});
    return finish(change, console, "It is kept.", "");
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
    if (const auto* change = std::get_if<Change>(&outcome); change && change->isRepair)
        return finish(outcome, console,
                      "The preferences can be used again, with the last settings that could be.",
                      "");
    const auto status = finish(outcome, console, "The newest change is taken back:",
                               "The newest change is taken back; nothing that is shown differs.");
    if (const auto* change = std::get_if<Change>(&outcome))
        console.out << difference(change->before, change->after);
    return status;
}

ExitCode exportSettings(const Console& console) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return console.report(*failure);
    console.out << vantryhost::prettyDocumentOf(lastingDocument(
        inKnownWords(lastingSettings(std::get<StoredSettings>(loaded).choices), console)));
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
    noteWhatBlocksNothing(wanted, console);
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
