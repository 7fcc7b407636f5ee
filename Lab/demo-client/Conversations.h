#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "Lab/demo-client/Report.h"
#include "Lab/sockets/Address.h"

namespace lab {

// Where to go, and how. Filled from the command line of the demo client.
struct Destination {
    Address address;
    std::string bindDevice;
    std::string unicastInterface;   // where to send from, without being bound to it
    std::string datagramInterface;  // the same, said with the datagram
    uint16_t sourcePort = 0;        // 0: the system chooses
    bool isMapped = false;
    bool isUnconnected = false;
    std::chrono::milliseconds patience{5000};
    std::chrono::milliseconds pace{20};        // between two things sent
    std::chrono::milliseconds repeatAfter{0};  // of a question without an answer; 0: not at all
};

// The things that an application does with a network, each in the calling thread from start to end,
// each returning what became of it. What goes on for a time ends before it when standard input, a
// pipe, has ended. `connectOnce` takes the server's greeting and leaves. `keepUploading` sends a
// small chunk every few milliseconds for the given time, printing a first report when it is under
// way. `echo` sends bytes and compares what comes back. `tally` sends them, ends its
// sending, and takes the server's answer, which is their number. `askOnce` sends one datagram and waits for
// the answer; `resolve` asks for a name; `keepAsking` sends a datagram every few milliseconds on
// one socket. `crowd` opens many connections, prints a first report, keeps them idle for the time,
// and then has every one of them echo a byte. `chatter` has all of theirs echo bytes for the time, and says
// when the last byte came and when each of them was ended. `hoard` opens as many, prints a first report, asks
// for a download on each after a line of standard input, prints a second report, and reads none of
// them until that input ends. `giveAway` passes a socket, connected or not, to the process that
// waits at the path with `takeOver`, which connects it where that is still to be done, and uploads.
Report connectOnce(const Destination& destination);
Report keepUploading(const Destination& destination, std::chrono::milliseconds duration);
Report keepReading(const Destination& destination, std::chrono::milliseconds duration);
Report echo(const Destination& destination, uint64_t bytes);
Report tally(const Destination& destination, uint64_t bytes);
Report askOnce(const Destination& destination);
Report resolve(const Destination& destination);
Report crowd(const Destination& destination, uint64_t count, std::chrono::milliseconds duration);
Report chatter(const Destination& destination, uint64_t count, std::chrono::milliseconds duration);
Report hoard(const Destination& destination, uint64_t count, uint64_t bytes);
Report giveAway(const Destination& destination, const std::string& path, bool isConnected);
Report takeOver(const Destination& destination, const std::string& path,
                std::chrono::milliseconds duration);
Report keepAsking(const Destination& destination, std::chrono::milliseconds duration);

}  // namespace lab
