// Documents at the sizes that matter: a full activity log is encoded on the way of a flow, and a
// large rules file is read while flows go on.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>

#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Extension/ipc/ExtensionMessage.h"
#include "Platform/Common/JSON.h"

namespace vantry {
namespace {

ActivityLogResponseIPC activityLog(std::size_t size) {
    ActivityLogResponseIPC log;
    std::mt19937_64 random(1);
    for (std::size_t i = 0; i < size; ++i) {
        platform::UUID::Bytes bytes;
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
        const auto application = "application" + std::to_string(random() % 50);
        log.entries.push_back({
            .id = platform::UUID::randomFrom(bytes),
            .timestamp = platform::Date::sinceReferenceDate(
                785164320.0 + static_cast<double>(random() % 1'000'000'000) / 1e6),
            .bundleId = "com.example." + application,
            .appName = application,
            .routingDecision = "direct",
            .actualRoute = "direct",
            .sourceIp = "192.168.1.20",
            .destinationIp = "203.0.113." + std::to_string(random() % 256),
            .destinationPort = static_cast<std::uint16_t>(443),
            .protocolType = "tcp",
            .isVpnConnected = true,
        });
    }
    return log;
}

// In no order, as the host application's table has none.
std::string rulesDocument(std::size_t size) {
    std::vector<std::string> identifiers;
    for (std::size_t i = 0; i < size; ++i)
        identifiers.push_back("com.example.vendor" + std::to_string(i % 997) + ".application" +
                              std::to_string(i));
    std::shuffle(identifiers.begin(), identifiers.end(), std::mt19937_64(1));
    platform::JSONWriter writer;
    writer.beginObject();
    writer.key("type");
    writer.string("reload");
    writer.key("rules");
    writer.beginObject();
    for (const auto& identifier : identifiers) {
        writer.key(identifier);
        writer.string(identifier.size() % 2 == 0 ? "direct" : "vpn");
    }
    writer.endObject();
    writer.key("vpnConnected");
    writer.boolean(true);
    writer.endObject();
    return writer.finish().value();
}

void encodeActivityLog(benchmark::State& state) {
    const auto log = activityLog(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(log.encode());
    state.counters["bytes"] = static_cast<double>(log.encode()->size());
}
BENCHMARK(encodeActivityLog)->Arg(1)->Arg(500)->Unit(benchmark::kMicrosecond);

// Many rules as a message of the host application: from its bytes to the table that decisions are looked
// up in.
void decodeReloadMessage(benchmark::State& state) {
    const auto document = rulesDocument(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(ExtensionMessage::decode(document));
}
BENCHMARK(decodeReloadMessage)->Arg(10)->Arg(100'000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vantry
