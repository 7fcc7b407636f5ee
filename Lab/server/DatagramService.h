#pragma once

#include <cstdint>

#include "Lab/server/Ledger.h"
#include "Lab/sockets/Descriptor.h"

namespace lab {

// One datagram port of the server. Every datagram is answered from the address that it was sent to,
// with how its sender was seen; on port 53 the answer is a name server's, whose one record holds
// the sender's address. The server's one thread calls it. It owns its socket.
class DatagramService {
public:
    DatagramService(Descriptor socket, uint16_t port, Ledger& ledger);

    void readable();
    int descriptor() const { return socket_.number(); }

private:
    Descriptor socket_;
    uint16_t port_;
    Ledger& ledger_;
};

}  // namespace lab
