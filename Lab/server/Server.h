#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Lab/server/DatagramService.h"
#include "Lab/server/Ledger.h"
#include "Lab/server/StreamChannel.h"
#include "Lab/sockets/Descriptor.h"

namespace lab {

// The far end of the throw-away network: stream and datagram ports on every address of its
// namespace, and a control socket that hands out the ledger to whoever connects. One thread runs
// it, over one epoll set. It owns all its sockets.
class Server {
public:
    // Each answers false, with errno set, when the place cannot be had.
    bool open();
    bool listenForStreams(uint16_t port);
    bool listenForDatagrams(uint16_t port);
    bool listenForControl(const std::string& path);

    // Serves until the process ends.
    void run();

private:
    using Handler = std::function<void(uint32_t events)>;

    bool watch(int descriptor, uint32_t events, Handler handler);
    void acceptStream(int listener);
    void acceptControl(int listener);
    void serve(int descriptor, uint32_t events);
    void settle(int descriptor, bool livesOn);
    void tickStreams();

    Descriptor epoll_;
    Ledger ledger_;
    std::vector<Descriptor> listeners_;
    std::vector<std::unique_ptr<DatagramService>> datagramServices_;
    std::map<int, std::unique_ptr<StreamChannel>> channels_;
    std::map<int, Handler> handlers_;
};

}  // namespace lab
