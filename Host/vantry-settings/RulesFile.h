// The rules file in /tmp, which the daemon reads: written from the preferences, and kept against whatever
// other users put in its place, be it a file, a link or a folder. What stood there and was not ours is
// moved aside under a name of its own, so that nothing is lost. One thread.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "Host/settings/Outcome.h"
#include "Host/settings/Settings.h"

namespace vantrysettings {

class RulesFile {
public:
    // Makes the file say `settings`. True if it had to be written; notes say what was in the way. After a
    // failure nothing counts as written.
    vantryhost::Outcome<bool> write(const vantryhost::Settings& settings,
                                    std::vector<std::string>& notes);

    // Whether what stands at the path is, untouched, what `write` left there.
    bool isAsWritten() const;

    // The settings in a file that somebody trusted wrote before there were preferences; no value if there
    // is none that can be used.
    static std::optional<vantryhost::Settings> settingsOfOthers();

private:
    static std::optional<vantryhost::Failure> clearTheWay(std::vector<std::string>& notes);
    void rememberFile();

    std::optional<struct stat> written;
};

}  // namespace vantrysettings
