#include "Host/vantryctl/Daemon.h"

#include <cstring>
#include <utility>

#include "Host/settings/DaemonNotice.h"
#include "Host/settings/Documents.h"
#include "Host/settings/Places.h"
#include "Host/settings/UnixExchange.h"
#include "Platform/Linux/Health/Health.h"

namespace vantryctl {

using platform::JSONFailure;
using platform::JSONObject;
using platform::JSONValue;
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

Outcome<std::string> exchange(std::string_view request,
                              const char* socketPath = places::messageSocket,
                              std::chrono::seconds longestWait = vantryhost::usualWait) {
    auto reply = vantryhost::exchange(socketPath, request, longestWait);
    if (const auto* failure = std::get_if<vantryhost::ExchangeFailure>(&reply))
        return failureFor(*failure);
    auto& document = std::get<std::string>(reply);
    if (document.empty()) return Failure{ExitCode::failed, "The daemon gave no answer.", ""};
    return std::move(document);
}

// The reply as the record that was asked for, or as the error that came in its place.
template <class Record>
Outcome<Record> ask(MessageType type) {
    const auto reply = exchange(ExtensionMessage{type, {}, {}}.encode().value_or(""));
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

std::optional<HealthItem> healthItemOf(const JSONValue& value) {
    const auto* const object = value.as<JSONObject>();
    if (object == nullptr) return std::nullopt;
    const auto find = [&](std::string_view key) {
        const auto found = object->find(key);
        return found == object->end() ? nullptr : &found->second;
    };
    const auto *const key = find("key"), *const label = find("label"), *const worth = find("value"),
                      *const problem = find("isProblem");
    if (!key || !label || !worth || !problem) return std::nullopt;
    const auto* const keyText = key->as<std::string>();
    const auto* const labelText = label->as<std::string>();
    const auto* const isProblem = problem->as<bool>();
    if (!keyText || !labelText || !isProblem) return std::nullopt;
    return HealthItem{*keyText, *labelText, *worth, *isProblem};
}
}  // namespace

Outcome<vantry::ExtensionStatus> askForStatus() {
    return ask<vantry::ExtensionStatus>(MessageType::getStatus);
}

Outcome<vantry::ActiveAppsResponse> askForActiveApps() {
    return ask<vantry::ActiveAppsResponse>(MessageType::getActiveApps);
}

Outcome<std::vector<HealthItem>> askForHealth() {
    const Failure notUnderstood{ExitCode::failed, "The daemon does not tell how it does.",
                                "It may be of another version: systemctl restart vantryd."};
    const auto reply = exchange(platform::health::reportRequest);
    if (const auto* failure = std::get_if<Failure>(&reply)) return *failure;
    const auto document = platform::parseJSON(std::get<std::string>(reply));
    const auto* const value = std::get_if<JSONValue>(&document);
    const auto* const object = value ? value->as<JSONObject>() : nullptr;
    if (!object || object->find("health") == object->end()) return notUnderstood;
    const auto* const list = object->find("health")->second.as<platform::JSONArray>();
    if (!list) return notUnderstood;
    std::vector<HealthItem> items;
    for (const JSONValue& each : *list)
        if (auto item = healthItemOf(each)) items.push_back(std::move(*item));
    return items;
}

Outcome<JSONObject> askPlatform(const JSONObject& question, std::chrono::seconds longestWait) {
    const auto reply =
        exchange(vantryhost::documentOf(question), places::questionSocket, longestWait);
    if (const auto* failure = std::get_if<Failure>(&reply)) return *failure;
    auto answer = vantryhost::objectFrom("The daemon's answer", std::get<std::string>(reply));
    if (const auto* failure = std::get_if<Failure>(&answer)) return *failure;
    auto& document = std::get<JSONObject>(answer);
    const auto error = vantryhost::textUnder(document, "error");
    if (!error.empty()) return Failure{ExitCode::failed, error, ""};
    return std::move(document);
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
