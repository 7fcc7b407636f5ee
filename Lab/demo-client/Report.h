#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace lab {

// What became of one attempt to use the network, as an application would notice it. Every mode of
// the demo client fills one and prints it as one line of JSON, which people and tests read.
struct Report {
    using Clock = std::chrono::steady_clock;

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
    // Of many connections at once: when the last byte came on any, and when each of them ended.
    Clock::time_point lastByte;
    std::vector<Clock::time_point> ends;
    Clock::time_point started = Clock::now();

    Report& failedAt(const std::string& failedPhase, int number);

    // One line on standard output, at once, with the time since the start and the time of day of
    // the machine's steady clock, by which a test can place it beside its own events.
    void print() const;
};

}  // namespace lab
