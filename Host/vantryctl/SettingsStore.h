// Where the settings are kept: in the platform preferences, which last, and in the rules file, which
// the daemon reads at a change and which goes with /tmp. Both say the same after every change. Two
// tools at once take turns. Keys that the tool does not know stay as they are, in both files.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Host/vantryctl/Outcome.h"
#include "Host/vantryctl/Settings.h"
#include "Platform/Common/JSON.h"

namespace vantryctl {

// What both files hold at one moment.
struct StoredSettings {
    Settings settings;  // the preferences', else the rules file's, else the defaults
    bool areInPreferences = false;
    std::optional<Settings> rulesFile;  // what the rules file holds, if it can be used
    std::string rulesFileProblem;       // why it can't be used, if it is there and can't

    // Nothing was ever set.
    bool areDefaults() const { return !areInPreferences && !rulesFile; }
    bool isRulesFileCurrent() const { return areDefaults() || rulesFile == settings; }
};

Outcome<StoredSettings> loadSettings();

// Changes settings in place; false leaves everything as it is.
using Edit = std::function<bool(Settings&)>;

struct Change {
    Settings before;
    Settings after;
    bool isStored = false;           // false if the edit left everything as it was
    std::vector<std::string> notes;  // what the user should know about the files
};

// Stores the settings as `edit` leaves them, in both files, and tells the daemon. A daemon that is not
// running is no failure: it will read the files at its start. On failure both files are as before.
Outcome<Change> changeSettings(const Edit& edit);

// Writes the rules file anew from the preferences where the two differ, and tells the daemon either
// way. Preferences without settings leave the rules file alone.
Outcome<Change> restoreRulesFile();

}  // namespace vantryctl
