#include "Host/vantry-notify/Notices.h"

#include "Host/settings/Choices.h"
#include "Host/settings/Documents.h"

namespace vantrynotify {

using platform::Date;
using platform::JSONObject;
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
    for (const auto& entry : entries) add(reasonOf(entry), entry.bundleId, now, notices);
    return notices;
}

std::vector<Notice> Notices::aboutRefusals(const JSONObject& answer, Date since, Date now) {
    std::vector<Notice> notices;
    if (const auto* list = vantryhost::listUnder(answer, "refusals"))
        for (const auto& each : *list)
            if (const auto* refusal = each.as<JSONObject>())
                add(reasonOf(*refusal, since), vantryhost::textUnder(*refusal, "identifier"), now,
                    notices);
    return notices;
}

// Of a command that runs under a rule of its own, that was asked for a moment ago.
void Notices::add(Reason reason, const std::string& application, Date now,
                  std::vector<Notice>& notices) {
    if (reason == Reason::none || vantryhost::isRuledCommand(application)) return;
    if (mayTell(reason, application, now)) notices.push_back(noticeOf(reason, application));
}

Notices::Reason Notices::reasonOf(const JSONObject& refusal, Date since) {
    const auto milliseconds = static_cast<double>(vantryhost::numberUnder(refusal, "at"));
    if (milliseconds / 1000 < since.secondsSince1970()) return Reason::none;
    const auto by = vantryhost::textUnder(refusal, "decidedBy");
    if (by == "block") return Reason::blocked;
    return by == "vpnFallback" ? Reason::vpnDown : Reason::none;
}

Notices::Reason Notices::reasonOf(const ActivityLogEntryIPC& entry) {
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
