#include "Host/vantry-notify/Notices.h"

#include "Host/vantryctl/RuledCommand.h"

namespace vantrynotify {

using platform::Date;
using vantry::ActivityLogEntryIPC;

namespace {

constexpr double secondsBetweenTheSame = 3600;
constexpr double secondsOfBurst = 10;
constexpr std::size_t mostInBurst = 3;
// Programs come and go; what was told of so many others is forgotten.
constexpr std::size_t mostRemembered = 1000;

}  // namespace

std::vector<Notice> Notices::about(const std::vector<ActivityLogEntryIPC>& entries, Date now) {
    std::vector<Notice> notices;
    for (const auto& entry : entries) {
        const auto reason = reasonOf(entry);
        if (reason != Reason::none && mayTell(reason, entry.bundleId, now))
            notices.push_back(noticeOf(reason, entry.bundleId));
    }
    return notices;
}

Notices::Reason Notices::reasonOf(const ActivityLogEntryIPC& entry) {
    // Its rule was asked for on a command line a moment ago.
    if (vantryctl::isRuledCommand(entry.bundleId)) return Reason::none;
    const auto route = entry.actualRoute.value_or("");
    if (route == "blocked")
        return entry.routingDecision == "block" ? Reason::blocked : Reason::vpnDown;
    return entry.routingDecision == "direct" && route == "vpn" ? Reason::noInterface : Reason::none;
}

Notice Notices::noticeOf(Reason reason, const std::string& application) {
    switch (reason) {
        case Reason::blocked:
            return {
                application + " was blocked",
                "It tried to reach the network. To let it: vantryctl rules unblock " + application,
                "Unblock",
                {"rules", "unblock", application}};
        case Reason::noInterface:
            return {
                application + " could not go directly",
                "No Wi-Fi or wired interface was there, so it took the system's own route. To have "
                "it take the VPN always: vantryctl rules set " +
                    application + " vpn",
                "Over the VPN",
                {"rules", "set", application, "vpn"}};
        case Reason::vpnDown:
            return {application + " waits for the VPN",
                    "The VPN is down, and what has a rule for it is stopped. To let it go on: "
                    "vantryctl rules fallback vpn allow",
                    "Go on without the VPN",
                    {"rules", "fallback", "vpn", "allow"}};
        case Reason::none:
            break;
    }
    return {};
}

bool Notices::mayTell(Reason reason, const std::string& application, Date now) {
    while (!latest.empty() && now.timeIntervalSince(latest.front()) > secondsOfBurst)
        latest.pop_front();
    if (latest.size() >= mostInBurst) return false;
    if (told.size() >= mostRemembered) told.clear();
    const auto [known, isNew] = told.try_emplace({reason, application}, now);
    if (!isNew && now.timeIntervalSince(known->second) < secondsBetweenTheSame) return false;
    known->second = now;
    latest.push_back(now);
    return true;
}

}  // namespace vantrynotify
