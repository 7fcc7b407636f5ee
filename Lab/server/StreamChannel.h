#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Lab/server/Ledger.h"
#include "Lab/sockets/Descriptor.h"

namespace lab {

// One accepted connection: greets the client with how it was seen, reads the first line as the name
// of a service, and serves that until either side ends. The server's one thread calls it. It owns
// the socket and writes what happens into the observation that it was given.
//
// Services: `echo` sends back what comes, `upload` only counts it, `slow` sends a line ten times a
// second, `download N` sends N bytes and then ends, `tally` counts and tells the number after the client's
// end, `reset` ends the connection with a reset.
class StreamChannel {
public:
    StreamChannel(Descriptor socket, Observation& observation);

    // Each answers whether the connection lives on.
    bool readable();
    bool writable();
    bool tick();

    // An echo that its client does not read holds back the reading.
    bool wantsToRead() const { return outgoing_.size() < outgoingLimit; }
    bool wantsToWrite() const { return !outgoing_.empty() || downloadRemaining_ > 0; }
    int descriptor() const { return socket_.number(); }

private:
    enum class Service { unnamed, echo, upload, slow, download, tally };
    static constexpr size_t outgoingLimit = 256 * 1024;

    bool consume(std::string_view bytes);
    bool choose(const std::string& line);
    bool flush();
    bool endedByClient(int error);
    bool tellTally();
    bool endWithReset();

    Descriptor socket_;
    Observation& observation_;
    Service service_ = Service::unnamed;
    std::string firstLine_;
    std::string outgoing_;
    uint64_t downloadRemaining_ = 0;
};

}  // namespace lab
