#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "Lab/sockets/Address.h"

namespace lab {

// What the server saw of one connection, or of one client's datagrams to one place.
struct Observation {
    uint64_t number = 0;
    std::string protocol;
    Address client;
    Address server;
    uint64_t bytesReceived = 0;
    uint64_t bytesSent = 0;
    std::string state = "open";
};

// The list of everything that reached the server, oldest first, which tests ask for to judge from
// outside. The server's one thread writes and reads it. Entries keep their place in memory, so a
// connection holds a reference to its own for as long as it lives.
class Ledger {
public:
    Observation& connectionOpened(const Address& client, const Address& server);

    // All datagrams of one client socket to one server address count as one observation.
    Observation& datagramArrived(const Address& client, const Address& server);

    std::string asJson() const;

private:
    Observation& append(std::string protocol, const Address& client, const Address& server);

    std::deque<Observation> observations_;
};

// The line that tells a client how it was seen.
std::string greeting(const Observation& observation);

}  // namespace lab
