#include "Host/vantryctl/Daemon.h"

#include <cstring>
#include <utility>

#include "Host/settings/DaemonNotice.h"
#include "Host/settings/Places.h"
#include "Host/settings/UnixExchange.h"

namespace vantryctl {

using platform::JSONFailure;
using vantry::ExtensionMessage;
using vantry::ExtensionResponse;
using vantry::MessageType;

namespace {

// What a failed exchange with the daemon means for a person.
Failure failureFor(const vantryhost::ExchangeFailure& failure) {
    using Step = vantryhost::ExchangeFailure::Step;
    if (failure.isNotRunning()) return vantryhost::daemonNotRunning();
    if (failure.isNotPermitted()) return vantryhost::daemonNotPermitted();
    const char* what = failure.step == Step::connect ? "The daemon cannot be reached"
                       : failure.step == Step::send  ? "The daemon took no message"
                                                     : "The daemon gave no answer";
    return {ExitCode::failed, std::string(what) + ": " + std::strerror(failure.error) + ".", ""};
}

Outcome<std::string> exchange(MessageType type) {
    const auto request = ExtensionMessage{type, {}, {}}.encode();
    auto reply = vantryhost::exchange(places::messageSocket, request.value_or(""));
    if (const auto* failure = std::get_if<vantryhost::ExchangeFailure>(&reply))
        return failureFor(*failure);
    auto& document = std::get<std::string>(reply);
    if (document.empty()) return Failure{ExitCode::failed, "The daemon gave no answer.", ""};
    return std::move(document);
}

// The reply as the record that was asked for, or as the error that came in its place.
template <class Record>
Outcome<Record> ask(MessageType type) {
    const auto reply = exchange(type);
    if (const auto* failure = std::get_if<Failure>(&reply)) return *failure;
    const auto& document = std::get<std::string>(reply);
    auto record = Record::decode(document);
    if (auto* decoded = std::get_if<Record>(&record)) return std::move(*decoded);
    const auto response = ExtensionResponse::decode(document);
    if (const auto* decoded = std::get_if<ExtensionResponse>(&response))
        if (const auto* error = std::get_if<ExtensionResponse::Error>(&decoded->alternative))
            return Failure{ExitCode::failed, "The daemon refused: " + error->message, ""};
    return Failure{
        ExitCode::failed,
        "The daemon's answer is not understood: " + std::get<JSONFailure>(record).description, ""};
}

}  // namespace

Outcome<vantry::ExtensionStatus> askForStatus() {
    return ask<vantry::ExtensionStatus>(MessageType::getStatus);
}

Outcome<vantry::ActiveAppsResponse> askForActiveApps() {
    return ask<vantry::ActiveAppsResponse>(MessageType::getActiveApps);
}

Outcome<> askToClearActivityLog() {
    const auto response = ask<ExtensionResponse>(MessageType::clearActivityLog);
    if (const auto* failure = failureOf(response)) return *failure;
    const auto& alternative = std::get<ExtensionResponse>(response).alternative;
    if (const auto* error = std::get_if<ExtensionResponse::Error>(&alternative))
        return Failure{ExitCode::failed, "The daemon refused: " + error->message, ""};
    return Nothing{};
}

}  // namespace vantryctl
