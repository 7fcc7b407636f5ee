// Lists the direct connections: those that are open, with their bytes and age, and with `showsAll` the latest
// ones that are over and how they went.
#pragma once

#include <string>
#include <vector>

#include "Extension/ipc/ActivityLogEntryIPC.h"
#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct SessionsOptions {
    bool showsAll = false;
    bool asJSON = false;
};

// The identifiers of the applications whose direct connections the daemon remembers; none where it cannot be asked.
std::vector<std::string> applicationsWithSessions();

ExitCode showSessions(const SessionsOptions& options, const Console& console);

// Which of the log's direct flows never came up, as far as the daemon remembers: it names none where the
// daemon cannot be asked.
class FailedSessions {
public:
    FailedSessions();
    bool includes(const vantry::ActivityLogEntryIPC& entry) const;

private:
    struct Attempt {
        std::string host;
        std::int64_t port;
        double begun;
        bool hasFailed;
    };
    std::vector<Attempt> attempts;
};

}  // namespace vantryctl
