#include "Host/settings/Settings.h"

#include "Platform/Common/Text.h"

namespace vantryhost {

using platform::JSONArray;
using platform::JSONFailure;
using platform::JSONObject;
using platform::JSONValue;

namespace {

namespace keys {
constexpr std::string_view rules = "rules";
constexpr std::string_view defaultAction = "defaultAction";
constexpr std::string_view vpnFallback = "vpnFallback";
constexpr std::string_view directFallback = "directFallback";
constexpr std::string_view vpnConnected = "vpnConnected";
constexpr std::string_view blockedApps = "blockedApps";
}  // namespace keys

// Goes through the keys of one object and keeps the first thing that does not fit.
class Reader {
public:
    explicit Reader(const JSONObject& toRead) : object(toRead) {}

    template <class T>
    void plain(std::string_view key, T& field, std::string_view expected) {
        const JSONValue* value = find(key);
        if (value == nullptr) return;
        if (const T* typed = value->as<T>())
            field = *typed;
        else
            mismatch(key, expected, *value);
    }

    void table(std::string_view key, decltype(Settings::rules)& field) {
        const JSONValue* value = find(key);
        if (value == nullptr) return;
        if (const auto texts = platform::stringTable(*value))
            field = {texts->begin(), texts->end()};
        else
            mismatch(key, "an object whose values are strings", *value);
    }

    void set(std::string_view key, decltype(Settings::blockedApps)& field) {
        const JSONValue* value = find(key);
        if (value == nullptr) return;
        if (const auto texts = platform::stringArray(*value))
            field = {texts->begin(), texts->end()};
        else
            mismatch(key, "an array of strings", *value);
    }

    std::string problem;

private:
    const JSONValue* find(std::string_view key) const {
        const auto found = object.find(key);
        return found == object.end() ? nullptr : &found->second;
    }
    void mismatch(std::string_view key, std::string_view expected, const JSONValue& found) {
        if (!problem.empty()) return;
        problem = std::string(key) + " is " + std::string(found.typeName()) + ", not " +
                  std::string(expected);
    }

    const JSONObject& object;
};

}  // namespace

std::variant<Settings, JSONFailure> Settings::read(const JSONObject& object) {
    Settings settings;
    Reader reader(object);
    reader.table(keys::rules, settings.rules);
    reader.plain(keys::defaultAction, settings.defaultAction, "a string");
    reader.plain(keys::vpnFallback, settings.vpnFallback, "a string");
    reader.plain(keys::directFallback, settings.directFallback, "a string");
    reader.plain(keys::vpnConnected, settings.vpnConnected, "a boolean");
    reader.set(keys::blockedApps, settings.blockedApps);
    if (!reader.problem.empty()) return JSONFailure{reader.problem};
    return settings;
}

void Settings::writeInto(JSONObject& object) const {
    JSONObject ruleTable;
    for (const auto& [application, word] : rules) ruleTable[application] = word;
    object[std::string(keys::rules)] = std::move(ruleTable);
    object[std::string(keys::defaultAction)] = defaultAction;
    object[std::string(keys::vpnFallback)] = vpnFallback;
    object[std::string(keys::directFallback)] = directFallback;
    object[std::string(keys::vpnConnected)] = vpnConnected;
    object[std::string(keys::blockedApps)] = JSONArray(blockedApps.begin(), blockedApps.end());
}

std::vector<std::string_view> differingKeys(const Settings& a, const Settings& b) {
    std::vector<std::string_view> differing;
    const auto compare = [&](std::string_view key, const auto& mine, const auto& theirs) {
        if (mine != theirs) differing.push_back(key);
    };
    compare(keys::rules, a.rules, b.rules);
    compare(keys::defaultAction, a.defaultAction, b.defaultAction);
    compare(keys::vpnFallback, a.vpnFallback, b.vpnFallback);
    compare(keys::directFallback, a.directFallback, b.directFallback);
    compare(keys::vpnConnected, a.vpnConnected, b.vpnConnected);
    compare(keys::blockedApps, a.blockedApps, b.blockedApps);
    return differing;
}

std::string_view blockThatCovers(const Settings& settings, std::string_view application) {
    std::string_view covering;
    platform::anyDottedPrefix(application, [&](std::string_view name) {
        const auto found = settings.blockedApps.find(name);
        if (found == settings.blockedApps.end()) return false;
        covering = *found;
        return true;
    });
    return covering;
}

}  // namespace vantryhost
