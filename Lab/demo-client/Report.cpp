#include "Lab/demo-client/Report.h"

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace lab {
namespace {

double seconds(std::chrono::steady_clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

}  // namespace

Report& Report::failedAt(const std::string& failedPhase, int number) {
    outcome = "failed";
    phase = failedPhase;
    const auto* name = number == 0 ? "EOF" : strerrorname_np(number);
    error = name != nullptr ? name : std::to_string(number);
    return *this;
}

void Report::print() const {
    const auto now = std::chrono::steady_clock::now();
    nlohmann::json line{{"mode", mode},
                        {"outcome", outcome},
                        {"phase", phase},
                        {"error", error},
                        {"serverSaw", serverSaw},
                        {"localAddress", localAddress},
                        {"bytesSent", bytesSent},
                        {"bytesReceived", bytesReceived},
                        {"milliseconds", seconds(now - started) * 1000},
                        {"at", seconds(now.time_since_epoch())}};
    if (!ends.empty()) line["lastByte"] = seconds(lastByte.time_since_epoch());
    for (const auto& end : ends) line["ends"].push_back(seconds(end.time_since_epoch()));
    std::puts(line.dump().c_str());
    std::fflush(stdout);
}

}  // namespace lab
