#include "Lab/server/Ledger.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace lab {
namespace {

bool samePlace(const Address& left, const Address& right) {
    return left.port() == right.port() && left.host() == right.host();
}

nlohmann::json endpoints(const Observation& observation) {
    return {{"client", observation.client.host()},
            {"clientPort", observation.client.port()},
            {"server", observation.server.host()},
            {"serverPort", observation.server.port()},
            {"protocol", observation.protocol}};
}

}  // namespace

Observation& Ledger::append(std::string protocol, const Address& client, const Address& server) {
    auto& observation = observations_.emplace_back();
    observation.number = observations_.size();
    observation.protocol = std::move(protocol);
    observation.client = client;
    observation.server = server;
    return observation;
}

Observation& Ledger::connectionOpened(const Address& client, const Address& server) {
    return append("tcp", client, server);
}

Observation& Ledger::datagramArrived(const Address& client, const Address& server) {
    const auto known = std::find_if(
        observations_.rbegin(), observations_.rend(), [&](const Observation& observation) {
            return observation.protocol == "udp" && samePlace(observation.client, client) &&
                   samePlace(observation.server, server);
        });
    return known != observations_.rend() ? *known : append("udp", client, server);
}

std::string Ledger::asJson() const {
    auto list = nlohmann::json::array();
    for (const auto& observation : observations_) {
        auto entry = endpoints(observation);
        entry["number"] = observation.number;
        entry["bytesReceived"] = observation.bytesReceived;
        entry["bytesSent"] = observation.bytesSent;
        entry["state"] = observation.state;
        list.push_back(std::move(entry));
    }
    return list.dump();
}

std::string greeting(const Observation& observation) {
    return endpoints(observation).dump() + "\n";
}

}  // namespace lab
