// All that a person has chosen, and how it stands in the preferences document. The six keys of the rules
// are where the daemon looks for them, `protocolConfiguration.providerConfiguration`; what only the
// settings service needs are keys of its own at the top. Every other key stays as it is and where it is.
// Plain values and pure functions.
//
//   "tunnel": {"isFollowed": true, "interfaces": ["wg0"]}
//   "temporaryRules": [{"application": "curl", "until": 1790000000, "ruleBefore": "vpn", "wasBlocked": false}]
//   "trial": {"until": 1790000000, "before": {... the document's keys before the trial ...}}
//   "directDatagrams": true
//   "off": true
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Host/settings/Outcome.h"
#include "Host/settings/Settings.h"
#include "Platform/Common/JSON.h"

namespace vantryhost {

using SecondsSince1970 = std::int64_t;

// Whether the service says if the VPN is up, and by which interfaces; every tunnel if none is named.
// While it does, the preferences carry no `vpnConnected`: a state is no setting.
struct TunnelChoice {
    bool isFollowed = true;
    std::vector<std::string> interfaces;

    friend bool operator==(const TunnelChoice&, const TunnelChoice&) = default;
};

// A rule or a block that ends by itself, and what it stands in for.
struct TemporaryRule {
    std::string application;
    SecondsSince1970 until = 0;
    std::optional<std::string> ruleBefore;
    bool wasBlocked = false;

    friend bool operator==(const TemporaryRule&, const TemporaryRule&) = default;
};

// Whether this is a command that `vantryctl run` or `verify` made a control group for.
bool isRuledCommand(std::string_view identifier);

// Choices that are taken back unless somebody confirms them in time.
struct Trial {
    SecondsSince1970 until = 0;
    platform::JSONObject before;  // as `writeInto` makes it

    friend bool operator==(const Trial&, const Trial&) = default;
};

struct Choices {
    Settings settings;
    TunnelChoice tunnel;
    std::vector<TemporaryRule> temporaryRules;
    std::optional<Trial> trial;
    // The datagrams of direct applications go directly too.
    bool areDatagramsDirect = false;
    // Everything is as if no rule had ever been set, and stays so until it is switched on again.
    bool isOff = false;

    // What the preferences document holds; no value if it holds no settings. A key of another type is a
    // failure that names it: it is not ours to replace.
    static Outcome<std::optional<Choices>> read(const platform::JSONObject& preferences);
    void writeInto(platform::JSONObject& preferences) const;

    // The rule and block of `application` as they are, to be put back at `until`; one that is temporary
    // already keeps what it stood in for.
    void makeTemporary(const std::string& application, SecondsSince1970 until);
    // Puts back what ended at or before `now`; true if anything did.
    bool endTemporaryRules(SecondsSince1970 now);
    // What ends, ends as much earlier: the clock was set back.
    void bringEndsForward(SecondsSince1970 seconds);
    // The rule, or the block, that the application has now it also has once what is temporary has ended.
    void keepRuleOf(const std::string& application);
    void keepBlockOf(const std::string& application);
    // The rules and blocks of commands that run under one of their own are those of `present`: they come
    // and go with the command, whatever version of the settings holds.
    void takeRuledCommandsFrom(const Choices& present);

    friend bool operator==(const Choices&, const Choices&) = default;

private:
    TemporaryRule presentOf(const std::string& application, SecondsSince1970 until) const;
    void forgetTemporaryRulesWithoutEffect();
};

}  // namespace vantryhost
