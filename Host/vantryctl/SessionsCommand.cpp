#include "Host/vantryctl/SessionsCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <utility>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Amount.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Destination.h"
#include "Host/vantryctl/Duration.h"

namespace vantryctl {

using platform::JSONObject;
using vantryhost::numberUnder;
using vantryhost::textUnder;

namespace {

// Between a connection's beginning and its entry in the log there is a moment.
constexpr double longestMoment = 2;

double secondsUnder(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    const auto* seconds = found == object.end() ? nullptr : found->second.as<double>();
    return seconds ? *seconds : static_cast<double>(numberUnder(object, key));
}

bool isOpen(const JSONObject& session) {
    const auto phase = textUnder(session, "phase");
    return phase == "begun" || phase == "open";
}

Outcome<std::vector<JSONObject>> sessionsOfDaemon() {
    const auto answer = askPlatform({{"question", "sessions"}});
    if (const auto* failure = failureOf(answer)) return *failure;
    std::vector<JSONObject> sessions;
    if (const auto* list = vantryhost::listUnder(std::get<JSONObject>(answer), "sessions"))
        for (const auto& each : *list)
            if (const auto* session = each.as<JSONObject>()) sessions.push_back(*session);
    std::ranges::stable_sort(sessions, {},
                             [](const auto& session) { return secondsUnder(session, "begun"); });
    return sessions;
}

std::string stateText(const JSONObject& session) {
    const auto phase = textUnder(session, "phase");
    if (phase == "begun") return "connecting";
    const auto error = textUnder(session, "error");
    return phase == "failed" && !error.empty() ? "failed: " + error : phase;
}

std::string endText(const JSONObject& session) {
    return textOf(
        {textUnder(session, "host"), static_cast<std::uint16_t>(numberUnder(session, "port"))});
}

std::vector<std::string> rowOf(const JSONObject& session, std::int64_t now) {
    const bool hasBytes = session.find("sent") != session.end();
    const auto pid = numberUnder(session, "pid");
    return {textUnder(session, "identifier"),
            pid > 0 ? std::to_string(pid) : "",
            endText(session),
            hasBytes ? bytesText(static_cast<double>(numberUnder(session, "sent"))) : "",
            hasBytes ? bytesText(static_cast<double>(numberUnder(session, "received"))) : "",
            durationText(now - static_cast<std::int64_t>(secondsUnder(session, "begun"))),
            stateText(session)};
}

}  // namespace

std::vector<std::string> applicationsWithSessions() {
    std::vector<std::string> applications;
    const auto sessions = sessionsOfDaemon();
    if (const auto* known = std::get_if<std::vector<JSONObject>>(&sessions))
        for (const auto& session : *known) applications.push_back(textUnder(session, "identifier"));
    return applications;
}

ExitCode showSessions(const SessionsOptions& options, const Console& console) {
    auto answer = sessionsOfDaemon();
    if (const auto* failure = failureOf(answer)) return console.report(*failure);
    auto& sessions = std::get<std::vector<JSONObject>>(answer);
    if (!options.showsAll) std::erase_if(sessions, [](const auto& each) { return !isOpen(each); });
    if (options.asJSON) {
        console.out << documentOf(
            {{"sessions", platform::JSONArray(sessions.begin(), sessions.end())}});
        return ExitCode::done;
    }
    if (sessions.empty()) {
        console.out << "No direct connection is open.\n";
        return ExitCode::done;
    }
    Table table({{"APPLICATION", true},
                 {"PID", false, true},
                 {"TO", true},
                 {"SENT", false, true},
                 {"RECEIVED", false, true},
                 {"AGE", false, true},
                 {"STATE", true}});
    for (const auto& session : sessions) table.add(rowOf(session, std::time(nullptr)));
    console.out << table.text(console.width);
    return ExitCode::done;
}

FailedSessions::FailedSessions() {
    const auto answer = sessionsOfDaemon();
    if (failureOf(answer)) return;
    for (const auto& session : std::get<std::vector<JSONObject>>(answer))
        attempts.push_back({textUnder(session, "host"), numberUnder(session, "port"),
                            secondsUnder(session, "begun"),
                            textUnder(session, "phase") == "failed"});
}

bool FailedSessions::includes(const vantry::ActivityLogEntryIPC& entry) const {
    if (entry.actualRoute != "direct" || entry.routingDecision != "direct") return false;
    const Attempt* nearest = nullptr;
    const auto distance = [&](const Attempt& attempt) {
        return std::abs(attempt.begun - entry.timestamp.secondsSince1970());
    };
    for (const auto& attempt : attempts)
        if (attempt.host == entry.destinationIp && attempt.port == entry.destinationPort &&
            distance(attempt) < longestMoment &&
            (!nearest || distance(attempt) < distance(*nearest)))
            nearest = &attempt;
    return nearest && nearest->hasFailed;
}

}  // namespace vantryctl
