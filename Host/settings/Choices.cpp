#include "Host/settings/Choices.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Host/settings/Places.h"

namespace vantryhost {

using platform::JSONArray;
using platform::JSONFailure;
using platform::JSONObject;
using platform::JSONValue;

namespace {

namespace documentKeys {
constexpr std::string_view protocol = "protocolConfiguration";
constexpr std::string_view provider = "providerConfiguration";
constexpr std::string_view vpnConnected = "vpnConnected";
constexpr std::string_view tunnel = "tunnel";
constexpr std::string_view temporaryRules = "temporaryRules";
constexpr std::string_view trial = "trial";
constexpr std::string_view directDatagrams = "directDatagrams";
constexpr std::string_view off = "off";
}  // namespace documentKeys

Failure unexpected(std::string_view key, std::string_view found, std::string_view expected) {
    return {ExitCode::failed,
            std::string(places::preferencesFile) + ": " + std::string(key) + " is " +
                std::string(found) + ", not " + std::string(expected) + ". It was left as it is.",
            "Correct the file, or move it away."};
}

const JSONValue* member(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &found->second;
}

// The value under `key`, or null if the key is missing. Another type there is a failure.
template <class T>
Outcome<const T*> typed(const JSONObject& object, std::string_view key, std::string_view expected) {
    const auto* value = member(object, key);
    if (value == nullptr) return nullptr;
    if (const auto* found = value->as<T>()) return found;
    return unexpected(key, value->typeName(), expected);
}

Outcome<const JSONObject*> objectUnder(const JSONObject& object, std::string_view key) {
    return typed<JSONObject>(object, key, "an object");
}

JSONObject& madeObjectUnder(JSONObject& object, std::string_view key) {
    auto& value = object[std::string(key)];
    if (value.as<JSONObject>() == nullptr) value = JSONObject{};
    return std::get<JSONObject>(value.value);
}

void removeFrom(JSONObject& object, std::string_view key) {
    if (member(object, key) == nullptr) return;
    JSONObject others;
    for (auto& [name, value] : object)
        if (name != key) others[name] = std::move(value);
    object = std::move(others);
}

template <class T>
T valueOr(const JSONObject& object, std::string_view key, T otherwise) {
    const auto* value = member(object, key);
    const auto* found = value == nullptr ? nullptr : value->as<T>();
    return found == nullptr ? otherwise : *found;
}

Outcome<TunnelChoice> tunnelIn(const JSONObject& preferences) {
    const auto found = objectUnder(preferences, documentKeys::tunnel);
    if (const auto* failure = failureOf(found)) return *failure;
    TunnelChoice choice;
    const auto* object = std::get<const JSONObject*>(found);
    if (object == nullptr) return choice;
    choice.isFollowed = valueOr(*object, "isFollowed", true);
    if (const auto* names = member(*object, "interfaces")) {
        auto texts = platform::stringArray(*names);
        if (!texts)
            return unexpected("tunnel.interfaces", names->typeName(), "an array of strings");
        choice.interfaces = *std::move(texts);
    }
    return choice;
}

std::optional<TemporaryRule> temporaryRuleIn(const JSONValue& value) {
    const auto* object = value.as<JSONObject>();
    if (object == nullptr) return std::nullopt;
    TemporaryRule rule{valueOr<std::string>(*object, "application", ""),
                       valueOr<std::int64_t>(*object, "until", 0), std::nullopt,
                       valueOr(*object, "wasBlocked", false)};
    if (rule.application.empty()) return std::nullopt;
    if (const auto* before = member(*object, "ruleBefore"))
        if (const auto* word = before->as<std::string>()) rule.ruleBefore = *word;
    return rule;
}

Outcome<std::vector<TemporaryRule>> temporaryRulesIn(const JSONObject& preferences) {
    const auto found = typed<JSONArray>(preferences, documentKeys::temporaryRules, "an array");
    if (const auto* failure = failureOf(found)) return *failure;
    std::vector<TemporaryRule> rules;
    const auto* list = std::get<const JSONArray*>(found);
    if (list == nullptr) return rules;
    for (const auto& each : *list) {
        auto rule = temporaryRuleIn(each);
        if (!rule)
            return unexpected(documentKeys::temporaryRules, "a list with something else in it",
                              "a list of temporary rules");
        rules.push_back(*std::move(rule));
    }
    return rules;
}

Outcome<std::optional<Trial>> trialIn(const JSONObject& preferences) {
    const auto found = objectUnder(preferences, documentKeys::trial);
    if (const auto* failure = failureOf(found)) return *failure;
    const auto* object = std::get<const JSONObject*>(found);
    if (object == nullptr) return std::nullopt;
    return Trial{valueOr<std::int64_t>(*object, "until", 0),
                 valueOr(*object, "before", JSONObject{})};
}

Outcome<std::optional<Settings>> settingsIn(const JSONObject& preferences) {
    const auto protocol = objectUnder(preferences, documentKeys::protocol);
    if (const auto* failure = failureOf(protocol)) return *failure;
    const auto* outer = std::get<const JSONObject*>(protocol);
    if (outer == nullptr) return std::nullopt;
    const auto provider = objectUnder(*outer, documentKeys::provider);
    if (const auto* failure = failureOf(provider)) return *failure;
    const auto* inner = std::get<const JSONObject*>(provider);
    if (inner == nullptr) return std::nullopt;
    auto settings = Settings::read(*inner);
    if (const auto* failure = std::get_if<JSONFailure>(&settings))
        return Failure{ExitCode::failed,
                       std::string(places::preferencesFile) + " is not what it should be: " +
                           failure->description + ". It was left as it is.",
                       "Correct the file, or move it away."};
    return std::get<Settings>(std::move(settings));
}

JSONObject documentOfRule(const TemporaryRule& rule) {
    JSONObject object{{"application", rule.application}, {"until", rule.until}};
    if (rule.ruleBefore) object["ruleBefore"] = *rule.ruleBefore;
    object["wasBlocked"] = rule.wasBlocked;
    return object;
}

}  // namespace

bool isRuledCommand(std::string_view identifier) {
    const auto number = identifier.substr(identifier.rfind('.') + 1);
    return (identifier.starts_with("run.") || identifier.starts_with("verify.")) &&
           std::ranges::all_of(number, [](char letter) { return letter >= '0' && letter <= '9'; });
}

Outcome<std::optional<Choices>> Choices::read(const JSONObject& preferences) {
    auto settings = settingsIn(preferences);
    if (auto* failure = std::get_if<Failure>(&settings)) return std::move(*failure);
    auto tunnel = tunnelIn(preferences);
    if (auto* failure = std::get_if<Failure>(&tunnel)) return std::move(*failure);
    auto temporary = temporaryRulesIn(preferences);
    if (auto* failure = std::get_if<Failure>(&temporary)) return std::move(*failure);
    auto trial = trialIn(preferences);
    if (auto* failure = std::get_if<Failure>(&trial)) return std::move(*failure);
    auto& found = std::get<std::optional<Settings>>(settings);
    auto tunnelChoice = std::get<TunnelChoice>(std::move(tunnel));
    const bool areDatagramsDirect = valueOr(preferences, documentKeys::directDatagrams, false);
    const bool isOff = valueOr(preferences, documentKeys::off, false);
    if (!found && tunnelChoice == TunnelChoice{} && !areDatagramsDirect && !isOff)
        return std::nullopt;
    return Choices{found ? *std::move(found) : Settings{},
                   std::move(tunnelChoice),
                   std::get<std::vector<TemporaryRule>>(std::move(temporary)),
                   std::get<std::optional<Trial>>(std::move(trial)),
                   areDatagramsDirect,
                   isOff};
}

void Choices::writeInto(JSONObject& preferences) const {
    auto& provider = madeObjectUnder(madeObjectUnder(preferences, documentKeys::protocol),
                                     documentKeys::provider);
    settings.writeInto(provider);
    if (tunnel.isFollowed) removeFrom(provider, documentKeys::vpnConnected);

    if (tunnel == TunnelChoice{})
        removeFrom(preferences, documentKeys::tunnel);
    else
        preferences[std::string(documentKeys::tunnel)] = JSONObject{
            {"isFollowed", tunnel.isFollowed},
            {"interfaces", JSONArray(tunnel.interfaces.begin(), tunnel.interfaces.end())}};
    removeFrom(preferences, documentKeys::temporaryRules);
    if (!temporaryRules.empty()) {
        JSONArray list;
        for (const auto& rule : temporaryRules) list.emplace_back(documentOfRule(rule));
        preferences[std::string(documentKeys::temporaryRules)] = std::move(list);
    }
    removeFrom(preferences, documentKeys::directDatagrams);
    if (areDatagramsDirect) preferences[std::string(documentKeys::directDatagrams)] = true;
    removeFrom(preferences, documentKeys::off);
    if (isOff) preferences[std::string(documentKeys::off)] = true;
    removeFrom(preferences, documentKeys::trial);
    if (trial)
        preferences[std::string(documentKeys::trial)] =
            JSONObject{{"until", trial->until}, {"before", trial->before}};
}

TemporaryRule Choices::presentOf(const std::string& application, SecondsSince1970 until) const {
    const auto rule = settings.rules.find(application);
    return {application, until,
            rule == settings.rules.end() ? std::nullopt : std::optional(rule->second),
            settings.blockedApps.contains(application)};
}

void Choices::makeTemporary(const std::string& application, SecondsSince1970 until) {
    const auto known = std::ranges::find(temporaryRules, application, &TemporaryRule::application);
    if (known == temporaryRules.end())
        temporaryRules.push_back(presentOf(application, until));
    else
        known->until = until;
}

bool Choices::endTemporaryRules(SecondsSince1970 now) {
    const auto firstEnded =
        std::stable_partition(temporaryRules.begin(), temporaryRules.end(),
                              [&](const TemporaryRule& rule) { return rule.until > now; });
    const bool anyEnded = firstEnded != temporaryRules.end();
    for (auto rule = firstEnded; rule != temporaryRules.end(); ++rule) {
        if (rule->ruleBefore)
            settings.rules[rule->application] = *rule->ruleBefore;
        else
            settings.rules.erase(rule->application);
        if (rule->wasBlocked)
            settings.blockedApps.insert(rule->application);
        else
            settings.blockedApps.erase(rule->application);
    }
    temporaryRules.erase(firstEnded, temporaryRules.end());
    return anyEnded;
}

void Choices::bringEndsForward(SecondsSince1970 seconds) {
    for (auto& rule : temporaryRules) rule.until -= seconds;
    if (!trial) return;
    trial->until -= seconds;
    auto before = Choices::read(trial->before);
    auto* found = std::get_if<std::optional<Choices>>(&before);
    if (found == nullptr || !found->has_value()) return;
    (*found)->bringEndsForward(seconds);
    (*found)->writeInto(trial->before);
}

void Choices::keepRuleOf(const std::string& application) {
    for (auto& rule : temporaryRules)
        if (rule.application == application)
            rule.ruleBefore = presentOf(application, rule.until).ruleBefore;
    forgetTemporaryRulesWithoutEffect();
}

void Choices::keepBlockOf(const std::string& application) {
    for (auto& rule : temporaryRules)
        if (rule.application == application)
            rule.wasBlocked = settings.blockedApps.contains(application);
    forgetTemporaryRulesWithoutEffect();
}

void Choices::takeRuledCommandsFrom(const Choices& present) {
    const auto isOfCommand = [](const TemporaryRule& rule) {
        return isRuledCommand(rule.application);
    };
    std::erase_if(settings.rules, [](const auto& rule) { return isRuledCommand(rule.first); });
    std::erase_if(settings.blockedApps, isRuledCommand);
    std::erase_if(temporaryRules, isOfCommand);
    for (const auto& rule : present.settings.rules)
        if (isRuledCommand(rule.first)) settings.rules.insert(rule);
    std::ranges::copy_if(present.settings.blockedApps,
                         std::inserter(settings.blockedApps, settings.blockedApps.end()),
                         isRuledCommand);
    std::ranges::copy_if(present.temporaryRules, std::back_inserter(temporaryRules), isOfCommand);
}

// Those whose end changes nothing.
void Choices::forgetTemporaryRulesWithoutEffect() {
    std::erase_if(temporaryRules, [&](const TemporaryRule& rule) {
        return rule == presentOf(rule.application, rule.until);
    });
}

}  // namespace vantryhost
