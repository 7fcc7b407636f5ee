// Whose connections there are and how much they carry, from what the daemon tells again and again. A connection
// that is over keeps counting to the totals of its application. Plain values; one thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Platform/Common/JSON.h"

namespace vantryctl {

struct ApplicationTraffic {
    std::string identifier;  // empty: programs of the system
    std::string rule;        // the word of the rule that matched; empty without one
    std::string route;       // "direct", "system" or "blocked"; empty where none is asked for
    std::string decidedBy;
    std::size_t connections = 0;
    std::size_t direct = 0;  // of these
    double sentRate = 0;     // bytes a second since the answer before
    double receivedRate = 0;
    std::uint64_t sent = 0;  // since the first answer, or since the connections began that it found
    std::uint64_t received = 0;
};

class TrafficModel {
public:
    // The daemon's answer to "applications", that many seconds after the one before.
    void take(const platform::JSONObject& answer, double secondsSince);

    // What the rules mean for new connections of an application that has none now, from an answer to "why".
    void explain(const std::string& identifier, const platform::JSONObject& answer);

    // Those with the highest rate first, then those with the most bytes; only those whose name holds `filter`.
    std::vector<ApplicationTraffic> applications(const std::string& filter = "") const;

private:
    struct Bytes {
        std::uint64_t sent = 0;
        std::uint64_t received = 0;
    };
    void takeApplication(const platform::JSONObject& document, double secondsSince,
                         std::map<std::string, Bytes>& present);

    std::map<std::string, ApplicationTraffic> traffic;  // by identifier
    std::map<std::string, Bytes> connections;           // by number, as they were last told
};

}  // namespace vantryctl
