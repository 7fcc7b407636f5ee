#include "Host/vantry-settings/SettingsOwner.h"

#include <algorithm>
#include <charconv>
#include <random>
#include <utility>

#include "Host/settings/DaemonNotice.h"
#include "Host/settings/Places.h"
#include "Host/vantry-settings/DurableFile.h"
#include "Host/vantry-settings/PreferencesFile.h"

namespace vantrysettings {

using platform::JSONArray;
using platform::JSONObject;
using vantryhost::Choices;
using vantryhost::ExitCode;
using vantryhost::Failure;
using vantryhost::failureOf;
using vantryhost::Outcome;
using vantryhost::SecondsSince1970;

namespace {

std::string textOf(const JSONObject& request, std::string_view key) {
    const auto found = request.find(key);
    const auto* text = found == request.end() ? nullptr : found->second.as<std::string>();
    return text == nullptr ? "" : *text;
}

JSONObject failed(const Failure& failure) {
    return {{"failure", JSONObject{{"what", failure.what}, {"advice", failure.advice}}}};
}

JSONArray list(const std::vector<std::string>& texts) { return {texts.begin(), texts.end()}; }

// Every flow takes the system's own route.
vantryhost::Settings settingsWithoutRules() {
    vantryhost::Settings settings;
    settings.directFallback = "allow";
    return settings;
}

// No revision of an earlier run is one of this.
std::uint64_t firstRevision() { return std::uint64_t{std::random_device{}()} << 20; }

// Puts back what was there before the trial.
void takeTrialBack(Choices& choices) {
    auto before = Choices::read(choices.trial->before);
    if (auto* found = std::get_if<std::optional<Choices>>(&before)) {
        auto restored = found->value_or(Choices{});
        restored.takeRuledCommandsFrom(choices);
        choices = std::move(restored);
    }
    choices.trial.reset();
}

}  // namespace

SettingsOwner::SettingsOwner() : revision(firstRevision()) {}

void SettingsOwner::start(SecondsSince1970 now) {
    removeLeftovers(vantryhost::places::rulesFile);
    preferencesTouched(now);
}

// Of preferences that cannot be used when the service starts: the daemon can't use them either, and a boot has
// emptied the rules file.
void SettingsOwner::takeCopy() {
    auto document = PreferencesFile::copy();
    auto found = document ? Choices::read(*document) : Outcome<std::optional<Choices>>{};
    auto* kept = std::get_if<std::optional<Choices>>(&found);
    if (!kept || !*kept) return;
    adopt(*std::move(document), **std::move(kept));
}

// Rules that are in force and that no preferences have: from before this service existed, or before the
// preferences were damaged.
void SettingsOwner::takeOverRulesFile() {
    if (hasSettings || !preferencesProblem.empty()) return;
    auto settings = RulesFile::settingsOfOthers();
    if (!settings) return;
    Choices taken;
    taken.settings = *std::move(settings);
    remember(preferencesProblem,
             store(preferences.value_or(JSONObject{}), std::move(taken), Keeping::version));
}

Outcome<> SettingsOwner::load() {
    auto made = PreferencesFile::prepare();
    if (failureOf(made)) return made;
    auto read = PreferencesFile::read();
    if (auto* failure = std::get_if<Failure>(&read)) return std::move(*failure);
    auto& document = std::get<std::optional<JSONObject>>(read);
    if (!document) {
        isStoringDue = hasSettings;
        if (!hasSettings) preferences.reset();
        return vantryhost::Nothing{};
    }
    auto found = Choices::read(*document);
    if (auto* failure = std::get_if<Failure>(&found)) return std::move(*failure);
    auto& known = std::get<std::optional<Choices>>(found);
    // Settings that someone has taken out of the file are set back, those that never were stay unset.
    const bool areSet = known.has_value() || hasSettings;
    adoptStored(*std::move(document), known ? *std::move(known) : Choices{});
    hasSettings = areSet;
    return vantryhost::Nothing{};
}

void SettingsOwner::adopt(Document document, Choices found) {
    if (preferences != document) ++revision;
    preferences = std::move(document);
    choices = std::move(found);
    hasSettings = true;
}

// What cannot be used leaves the settings in force as they are.
void SettingsOwner::preferencesTouched(SecondsSince1970 now) {
    remember(preferencesProblem, load());
    if (!preferencesProblem.empty()) {
        if (!hasSettings) takeCopy();
        if (hasSettings)
            preferencesProblem +=
                " Until then the last settings that could be used hold; vantryctl undo writes them "
                "there again.";
        collectProblems();
    }
    takeOverRulesFile();
    timePassed(now);
    putInForce();
}

void SettingsOwner::rulesFileTouched() {
    if (!rulesFile.isAsWritten()) putInForce();
}

void SettingsOwner::tunnelChanged(const TunnelView& view) {
    tunnel = view;
    isTunnelKnown = true;
    collectProblems();
    putInForce();
}

std::optional<SecondsSince1970> SettingsOwner::nextEnd() const {
    std::optional<SecondsSince1970> next;
    if (choices.trial) next = choices.trial->until;
    for (const auto& rule : choices.temporaryRules)
        next = next ? std::min(*next, rule.until) : rule.until;
    return next;
}

const std::vector<std::string>* SettingsOwner::followedInterfaces() const {
    return choices.tunnel.isFollowed ? &choices.tunnel.interfaces : nullptr;
}

void SettingsOwner::timePassed(SecondsSince1970 now) {
    if (!preferences) return;
    auto changed = choices;
    if (changed.trial && changed.trial->until <= now) takeTrialBack(changed);
    changed.endTemporaryRules(now);
    const bool anyEnded = changed != choices;
    changeByItself(std::move(changed));
    if (anyEnded) putInForce();
}

void SettingsOwner::clockWasSetBack(SecondsSince1970 seconds) {
    if (!preferences) return;
    auto changed = choices;
    changed.bringEndsForward(seconds);
    changeByItself(std::move(changed));
}

void SettingsOwner::changeByItself(Choices changed) {
    if (changed != choices) {
        auto document = *preferences;
        changed.writeInto(document);
        adopt(std::move(document), std::move(changed));
        isStoringDue = true;
    }
    storeWhatEnded();
}

// It is out of force whether or not it can be stored. A file that a person has edited and that cannot be
// used stays as it is: once it is corrected it is read, and what ends is looked at again.
void SettingsOwner::storeWhatEnded() {
    if (!isStoringDue || !preferencesProblem.empty()) return;
    // What ends by itself is no one's change to take back.
    const auto stored = PreferencesFile::put(*preferences);
    isStoringDue = failureOf(stored) != nullptr;
    remember(storingProblem, stored);
}

Outcome<> SettingsOwner::store(Document document, Choices changed, Keeping keeping) {
    changed.writeInto(document);
    auto replaced = keeping == Keeping::version ? PreferencesFile::replace(preferences, document)
                                                : PreferencesFile::put(document);
    if (failureOf(replaced)) return replaced;
    adoptStored(std::move(document), std::move(changed));
    return replaced;
}

void SettingsOwner::adoptStored(Document document, Choices stored) {
    PreferencesFile::keepCopy(document);
    adopt(std::move(document), std::move(stored));
    isStoringDue = false;
    storingProblem.clear();
    collectProblems();
}

JSONObject SettingsOwner::answer(const JSONObject& request, SecondsSince1970 now) {
    const auto what = textOf(request, "do");
    notes.clear();
    if (what == "put") return put(request, now);
    if (what == "undo") return undo(now);
    if (what == "restore") {
        isPostDue = true;
        putInForce();
    }
    if (what == "get" || what == "restore") {
        if (!preferencesProblem.empty()) return failed({ExitCode::failed, preferencesProblem, ""});
        return report();
    }
    return failed({ExitCode::usage, "The settings service does not know the request " + what + ".",
                   "Restart it after an upgrade: systemctl restart vantry-settings"});
}

JSONObject SettingsOwner::put(const JSONObject& request, SecondsSince1970 now) {
    if (!preferencesProblem.empty()) return failed({ExitCode::failed, preferencesProblem, ""});
    if (textOf(request, "revision") != std::to_string(revision)) return {{"conflict", true}};
    const auto entry = request.find("preferences");
    const auto* document = entry == request.end() ? nullptr : entry->second.as<JSONObject>();
    if (document == nullptr)
        return failed({ExitCode::usage, "The request carries no preferences.", ""});
    auto found = Choices::read(*document);
    if (const auto* failure = std::get_if<Failure>(&found)) return failed(*failure);
    const auto passing = request.find("isPassing");
    const auto* isPassing = passing == request.end() ? nullptr : passing->second.as<bool>();
    const auto stored =
        store(*document, std::get<std::optional<Choices>>(std::move(found)).value_or(Choices{}),
              isPassing != nullptr && *isPassing ? Keeping::noVersion : Keeping::version);
    if (const auto* failure = failureOf(stored)) return failed(*failure);
    timePassed(now);
    putInForce();
    return report();
}

// A version as it would be now.
Outcome<> SettingsOwner::bringUpToDate(JSONObject& version, SecondsSince1970 now) const {
    auto found = Choices::read(version);
    if (auto* failure = std::get_if<Failure>(&found)) return std::move(*failure);
    const auto kept = std::get<std::optional<Choices>>(std::move(found)).value_or(Choices{});
    auto restored = kept;
    // A trial that was decided since does not begin again: it is what is taken back.
    if (restored.trial && !choices.trial) takeTrialBack(restored);
    restored.endTemporaryRules(now);
    restored.takeRuledCommandsFrom(choices);
    if (restored != kept) restored.writeInto(version);
    return vantryhost::Nothing{};
}

// A change that has ended by itself left a version like what there is; those are forgotten on the way.
Outcome<std::optional<JSONObject>> SettingsOwner::newestOtherVersion(SecondsSince1970 now) const {
    for (;;) {
        auto version = PreferencesFile::newestVersion();
        auto* found = std::get_if<std::optional<JSONObject>>(&version);
        if (found == nullptr || !found->has_value()) return version;
        auto updated = bringUpToDate(**found, now);
        if (auto* failure = std::get_if<Failure>(&updated)) return std::move(*failure);
        if (!preferences || **found != *preferences) return version;
        PreferencesFile::forgetNewestVersion();
    }
}

JSONObject SettingsOwner::undo(SecondsSince1970 now) {
    // Of preferences that cannot be used nothing is taken back but what made them so.
    const bool isRepair = !preferencesProblem.empty() && hasSettings;
    auto version = isRepair ? preferences : newestOtherVersion(now);
    if (const auto* failure = failureOf(version)) return failed(*failure);
    auto& document = std::get<std::optional<JSONObject>>(version);
    if (!document)
        return failed({ExitCode::usage, "No earlier version of the settings is kept.", ""});
    auto restored = Choices::read(*document);
    if (const auto* failure = std::get_if<Failure>(&restored)) return failed(*failure);
    const auto replaced = PreferencesFile::put(*document);
    if (const auto* failure = failureOf(replaced)) return failed(*failure);
    if (!isRepair) PreferencesFile::forgetNewestVersion();
    preferencesProblem.clear();
    adoptStored(*std::move(document),
                std::get<std::optional<Choices>>(std::move(restored)).value_or(Choices{}));
    timePassed(now);
    putInForce();
    return report();
}

JSONObject SettingsOwner::report() const {
    JSONObject report{{"revision", std::to_string(revision)},
                      {"preferences", preferences.value_or(JSONObject{})},
                      {"hasSettings", hasSettings},
                      {"tunnel", JSONObject{{"isFollowed", choices.tunnel.isFollowed},
                                            {"isUp", settingsInForce().vpnConnected},
                                            {"carrying", list(tunnel.carrying)},
                                            {"absent", list(tunnel.absent)},
                                            {"split", list(tunnel.split)}}},
                      {"isDaemonListening", vantryhost::isDaemonListening()},
                      {"problems", list(present)},
                      {"notes", list(notes)}};
    if (!rulesFileProblem.empty()) report["notInForce"] = rulesFileProblem;
    return report;
}

vantryhost::Settings SettingsOwner::settingsInForce() const {
    auto settings = choices.isOff ? settingsWithoutRules() : choices.settings;
    if (choices.tunnel.isFollowed && isTunnelKnown) settings.vpnConnected = tunnel.isUp();
    return settings;
}

// Nothing was ever set: nothing is written, so that a first installation changes nothing. Nor is it before the
// first look at a VPN that is followed.
void SettingsOwner::putInForce() {
    if (!hasSettings || (choices.tunnel.isFollowed && !isTunnelKnown)) return;
    auto written = rulesFile.write(settingsInForce(), notes);
    if (const auto* failure = failureOf(written)) {
        isPostDue = true;
        return remember(rulesFileProblem, *failure);
    }
    remember(rulesFileProblem, vantryhost::Nothing{});
    if (std::get<bool>(written) || isPostDue) post();
}

// A daemon that is not there reads the file when it starts.
void SettingsOwner::post() {
    isPostDue = false;
    const auto posted = vantryhost::postRulesChanged();
    const auto* failure = failureOf(posted);
    if (failure != nullptr && failure->code != ExitCode::daemonNotRunning)
        notes.push_back(failure->what);
}

void SettingsOwner::remember(std::string& problem, const Outcome<>& outcome) {
    const auto* failure = failureOf(outcome);
    problem.clear();
    if (failure != nullptr)
        problem = failure->what + (failure->advice.empty() ? "" : " " + failure->advice);
    collectProblems();
}

void SettingsOwner::collectProblems() {
    present.clear();
    for (const auto& problem : {preferencesProblem, storingProblem, rulesFileProblem})
        if (!problem.empty()) present.push_back(problem);
    if (!choices.tunnel.isFollowed) return;
    for (const auto& name : tunnel.absent)
        present.push_back("The VPN's interface " + name +
                          " is not there; until it is, the VPN counts as down.");
}

}  // namespace vantrysettings
