#include "Host/vantryctl/TrafficModel.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "Host/settings/Documents.h"

namespace vantryctl {

using platform::JSONObject;
using vantryhost::listUnder;
using vantryhost::textUnder;

namespace {

std::uint64_t bytesUnder(const JSONObject& object, std::string_view key) {
    return static_cast<std::uint64_t>(
        std::max<std::int64_t>(vantryhost::numberUnder(object, key), 0));
}

double rateOf(std::uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
}

}  // namespace

void TrafficModel::take(const JSONObject& answer, double secondsSince) {
    for (auto& [identifier, application] : traffic) {
        application.connections = application.direct = 0;
        application.sentRate = application.receivedRate = 0;
    }
    std::map<std::string, Bytes> present;
    if (const auto* list = listUnder(answer, "applications"))
        for (const auto& each : *list)
            if (const auto* document = each.as<JSONObject>())
                takeApplication(*document, secondsSince, present);
    connections = std::move(present);
}

void TrafficModel::takeApplication(const JSONObject& document, double secondsSince,
                                   std::map<std::string, Bytes>& present) {
    auto& application = traffic[textUnder(document, "identifier")];
    application.identifier = textUnder(document, "identifier");
    application.rule = textUnder(document, "rule");
    application.route = textUnder(document, "route");
    application.decidedBy = textUnder(document, "decidedBy");
    const auto* list = listUnder(document, "connections");
    if (list == nullptr) return;
    Bytes grown;
    for (const auto& each : *list) {
        const auto* connection = each.as<JSONObject>();
        if (connection == nullptr) continue;
        ++application.connections;
        if (vantryhost::flagUnder(*connection, "isDirect")) ++application.direct;
        const auto number = textUnder(*connection, "id");
        const Bytes now{bytesUnder(*connection, "sent"), bytesUnder(*connection, "received")};
        const auto before = connections[number];
        grown.sent += now.sent - std::min(now.sent, before.sent);
        grown.received += now.received - std::min(now.received, before.received);
        present[number] = now;
    }
    application.sent += grown.sent;
    application.received += grown.received;
    application.sentRate = rateOf(grown.sent, secondsSince);
    application.receivedRate = rateOf(grown.received, secondsSince);
}

void TrafficModel::explain(const std::string& identifier, const JSONObject& answer) {
    const auto known = traffic.find(identifier);
    const auto* explanation = vantryhost::objectUnder(answer, "explanation");
    if (known == traffic.end() || explanation == nullptr) return;
    known->second.rule = textUnder(*explanation, "rule");
    known->second.route = textUnder(*explanation, "route");
    known->second.decidedBy = textUnder(*explanation, "decidedBy");
}

std::vector<ApplicationTraffic> TrafficModel::applications(const std::string& filter) const {
    std::vector<ApplicationTraffic> list;
    for (const auto& [identifier, application] : traffic)
        if (identifier.find(filter) != std::string::npos) list.push_back(application);
    std::ranges::stable_sort(list, std::greater<>(), [](const auto& each) {
        return std::tuple(each.sentRate + each.receivedRate, each.sent + each.received);
    });
    return list;
}

}  // namespace vantryctl
