#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Lab/server/Server.h"

namespace {

// The port that the whole text names, or 0.
uint16_t portOf(const std::string& text) {
    uint16_t port = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), port);
    return result.ec == std::errc{} && result.ptr == text.data() + text.size() ? port : uint16_t{0};
}

bool listenAt(lab::Server& server, const std::string& place) {
    const auto port = place.size() > 4 ? portOf(place.substr(4)) : uint16_t{0};
    if (place.starts_with("tcp:") && port != 0) return server.listenForStreams(port);
    if (place.starts_with("udp:") && port != 0) return server.listenForDatagrams(port);
    errno = EINVAL;
    return false;
}

}  // namespace

// lab-server CONTROL-SOCKET tcp:PORT udp:PORT ...
int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    lab::Server server;
    if (arguments.empty() || !server.open()) return 2;
    for (size_t index = 1; index < arguments.size(); ++index) {
        if (listenAt(server, arguments[index])) continue;
        std::fprintf(stderr, "lab-server: %s: %s\n", arguments[index].c_str(),
                     std::strerror(errno));
        return 1;
    }
    // The control socket comes last: once it is there, everything is.
    if (!server.listenForControl(arguments[0])) {
        std::fprintf(stderr, "lab-server: %s: %s\n", arguments[0].c_str(), std::strerror(errno));
        return 1;
    }
    server.run();
}
