// The choices that the tool keeps for its user, under the six keys that the rules file and the
// provider configuration share. A plain value. What a document does not say has the value that the
// daemon starts with.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Platform/Common/JSON.h"

namespace vantryhost {

struct Settings {
    std::map<std::string, std::string, std::less<>> rules;  // application to "vpn" or "direct"
    std::string defaultAction = "vpn";                      // for applications without a rule
    std::string vpnFallback = "allow";
    std::string directFallback = "block";
    bool vpnConnected = true;
    std::set<std::string, std::less<>> blockedApps;

    // Reads the six keys, all optional. A key of another type is a failure that names it.
    static std::variant<Settings, platform::JSONFailure> read(const platform::JSONObject& object);
    // Writes all six keys and leaves every other key of the object as it is.
    void writeInto(platform::JSONObject& object) const;

    friend bool operator==(const Settings&, const Settings&) = default;
};

// The keys under which two settings differ, in the order of the fields.
std::vector<std::string_view> differingKeys(const Settings& a, const Settings& b);

// The application that `application` is known as to the blocks: itself or the nearest name above it
// that is blocked. Empty if none is.
std::string_view blockThatCovers(const Settings& settings, std::string_view application);

}  // namespace vantryhost
