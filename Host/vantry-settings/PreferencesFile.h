// The preferences on the disk, which are the truth, and their last versions. The service alone writes
// them; a person may edit the file by hand, and it is then read again. Whoever wrote the file last, it
// is read: only root and the members of the trusted group may put a file into its folder. One thread.
#pragma once

#include <optional>
#include <string>

#include "Host/settings/Outcome.h"
#include "Platform/Common/JSON.h"

namespace vantrysettings {

class PreferencesFile {
public:
    // How many versions before the present one are kept, for `takeBack`.
    static constexpr std::size_t versionsKept = 10;

    // Makes the folders. A failure says why the preferences cannot be kept.
    static vantryhost::Outcome<> prepare();

    // What the file holds; no value if there is none.
    static vantryhost::Outcome<std::optional<platform::JSONObject>> read();

    // Replaces the file; the document before becomes the newest version. On failure the file is as
    // before.
    static vantryhost::Outcome<> replace(const std::optional<platform::JSONObject>& before,
                                         const platform::JSONObject& document);

    // The newest version, which is no longer kept once `forgetNewestVersion` is called; no value if
    // there is none.
    static vantryhost::Outcome<std::optional<platform::JSONObject>> newestVersion();
    static void forgetNewestVersion();
    // Replaces the file without keeping a version.
    static vantryhost::Outcome<> put(const platform::JSONObject& document);

    // A copy of the document that is in force, for a start at which the file cannot be used. No value where
    // there is none.
    static void keepCopy(const platform::JSONObject& document);
    static std::optional<platform::JSONObject> copy();
};

}  // namespace vantrysettings
