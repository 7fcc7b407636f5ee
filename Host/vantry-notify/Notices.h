// What a person at the desktop is told of the log's new entries: an application that was blocked for the first
// time, a direct connection that found no interface, an application that is stopped because the VPN is down.
// Each application at most once an hour for each reason, and no more than three notices in ten seconds. Plain
// values; one thread.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Extension/ipc/ActivityLogEntryIPC.h"

namespace vantrynotify {

struct Notice {
    std::string title;
    std::string body;
    std::string button;                // what a button is called that changes it, and
    std::vector<std::string> command;  // the words for vantryctl that do
};

class Notices {
public:
    // The notices that these entries, which are new, give at `now`.
    std::vector<Notice> about(const std::vector<vantry::ActivityLogEntryIPC>& entries,
                              platform::Date now);
    // The same for the daemon's answer to "refusals", of those after `since`.
    std::vector<Notice> aboutRefusals(const platform::JSONObject& answer, platform::Date since,
                                      platform::Date now);

private:
    enum class Reason { blocked, noInterface, vpnDown, none };

    static Reason reasonOf(const vantry::ActivityLogEntryIPC& entry);
    static Reason reasonOf(const platform::JSONObject& refusal, platform::Date since);
    void add(Reason reason, const std::string& application, platform::Date now,
             std::vector<Notice>& notices);
    static Notice noticeOf(Reason reason, const std::string& application);
    bool mayTell(Reason reason, const std::string& application, platform::Date now);

    std::map<std::pair<Reason, std::string>, platform::Date> told;
    std::deque<platform::Date> latest;
};

}  // namespace vantrynotify
