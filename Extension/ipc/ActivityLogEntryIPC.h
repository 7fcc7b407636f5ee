// The record of one observed flow. The proxy and the filter make one for each flow that they take
// note of; the activity log keeps them and the host application reads them. A plain value: it owns
// its texts and refers to no provider and no flow. Field names are the keys of its JSON form.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Platform/Common/Date.h"
#include "Platform/Common/JSON.h"
#include "Platform/Common/UUID.h"

namespace vantry {

// How many entries the activity log keeps, the newest ones.
inline constexpr std::size_t maxActivityLogEntries = 500;

struct ActivityLogEntryIPC {
    platform::UUID id;
    platform::Date timestamp;  // when the entry was made
    std::string bundleId;
    std::string appName;                       // the last piece of `bundleId`
    std::string routingDecision;               // the decision word that applied, as it came
    std::optional<std::string> actualRoute;    // "direct", "vpn" or "blocked"
    std::optional<std::string> sourceIp;       // the local IPv4 address, if one was found
    std::optional<std::string> destinationIp;  // the host as the flow gave it, perhaps a name
    std::optional<std::uint16_t> destinationPort;
    std::optional<std::string> protocolType;  // "tcp" or "udp"
    bool isVpnConnected = false;

    // The JSON document; null if a text in it is not valid UTF-8 or the date is not finite.
    std::optional<std::string> encode() const;
    static std::variant<ActivityLogEntryIPC, platform::JSONFailure> decode(
        std::string_view document);

    // Shows each field with its key, in the order of the wire, to a coder of either direction.
    template <class Record, class Coder>
    static void codeFields(Record& record, Coder& coder) {
        coder("id", record.id);
        coder("timestamp", record.timestamp);
        coder("bundleId", record.bundleId);
        coder("appName", record.appName);
        coder("routingDecision", record.routingDecision);
        coder("actualRoute", record.actualRoute);
        coder("sourceIp", record.sourceIp);
        coder("destinationIp", record.destinationIp);
        coder("destinationPort", record.destinationPort);
        coder("protocolType", record.protocolType);
        coder("isVpnConnected", record.isVpnConnected);
    }

    friend bool operator==(const ActivityLogEntryIPC&, const ActivityLogEntryIPC&) = default;
};

}  // namespace vantry
