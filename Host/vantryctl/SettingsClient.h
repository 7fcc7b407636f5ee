// The settings, as the settings service has them: it owns them, and the tool asks it to change them. A
// service that does not run is a failure that says how to start it. Any thread; each call waits for the
// service's answer, for a bounded time.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Host/settings/Choices.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

// What the service sees of the VPN.
struct TunnelReport {
    bool isFollowed = true;
    bool isUp = true;
    std::vector<std::string> carrying;  // the interfaces, while it is up
    std::vector<std::string> absent;    // interfaces that were named and are not there
    std::vector<std::string> split;     // tunnels for some networks only, not taken for the VPN
};

// While the VPN is down and other tunnels are up: that they are not the VPN, and how to say otherwise. Else empty.
std::string splitTunnelsText(const TunnelReport& tunnel);

// The settings at one moment.
struct StoredSettings {
    vantryhost::Choices choices;
    bool hasSettings = false;  // false while nothing was ever set: the defaults hold
    TunnelReport tunnel;
    bool isDaemonListening = false;
    std::vector<std::string> problems;  // what the service cannot do at present
};

vantryhost::Outcome<StoredSettings> loadSettings();

// Changes choices in place; false leaves everything as it is. May be called again with other choices:
// newer ones, where another tool came first, and those that a trial under way goes back to.
using Edit = std::function<bool(vantryhost::Choices&)>;

struct Change {
    vantryhost::Choices before;
    vantryhost::Choices after;
    bool isStored = false;  // false if the edit left everything as it was
    bool isInForce = true;  // false without a daemon that has taken it, and where all is off
    bool isRepair = false;  // the preferences could not be used before
    std::vector<std::string> notes;  // what the user should know
};

// Stores the choices as `edit` leaves them; they are in force when it returns, or a note says why not. On
// failure everything is as before. While a `TrialOfChanges` lives, the change is taken back after its time unless it is confirmed.
vantryhost::Outcome<Change> changeSettings(const Edit& edit);

// The same, for what is no setting of the user's: it is not on trial, and cannot be undone.
vantryhost::Outcome<Change> changeInPassing(const Edit& edit);

// Takes the newest change back.
vantryhost::Outcome<Change> undoChange();

// Has the rules file looked at, and written again if need be; the daemon is told where it was.
vantryhost::Outcome<Change> restoreRulesFile();

class TrialOfChanges {
public:
    explicit TrialOfChanges(std::chrono::seconds time);
    ~TrialOfChanges();
    TrialOfChanges(const TrialOfChanges&) = delete;
    TrialOfChanges& operator=(const TrialOfChanges&) = delete;

    // When what was put on trial since is taken back; null where nothing was. That is earlier than asked where
    // something was on trial before, as both end together.
    std::optional<vantryhost::SecondsSince1970> end() const;
};

}  // namespace vantryctl
