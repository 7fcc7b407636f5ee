#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace lab {

// What became of one attempt to use the network, as an application would notice it. Every mode of
// the demo client fills one and prints it as one line of JSON, which people and tests read.
struct Report {
    std::string mode;
    std::string outcome = "failed";
    // The call that failed: "socket", "bind", "connect", "send" or "receive".
    std::string phase;
    // The symbolic name of the error, "EOF" where the peer ended the stream; empty on success.
    std::string error;
    std::string serverSaw;
    std::string localAddress;
    uint64_t bytesSent = 0;
    uint64_t bytesReceived = 0;
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();

    Report& failedAt(const std::string& failedPhase, int number);

    // One line on standard output, at once, with the time since the start and the time of day of
    // the machine's steady clock, by which a test can place it beside its own events.
    void print() const;
};

}  // namespace lab
