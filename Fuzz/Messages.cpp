// Clients of the message socket, several at once, a sequence of actions: each connects, sends pieces, ends
// its request, takes the reply or leaves. A request that was ended has exactly its own reply, and one that
// was too long has none.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Fuzz/Input.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/MessageSocket.h"

namespace {

using platform::Data;
using platform::FileDescriptor;

constexpr std::size_t longestRequest = 3000;

// What the request "x..." is answered with, by its first byte.
std::optional<std::string> replyTo(const std::string& request) {
    if (request.starts_with('n')) return std::nullopt;
    return "<" + request + ">";
}

void answer(const Data& request, platform::Completion<std::optional<Data>> completion) {
    const std::string text(request.bytes().value_or(""));
    if (text.starts_with('d')) return;
    const auto reply = replyTo(text);
    auto data = reply ? std::optional(Data(*reply)) : std::nullopt;
    if (!text.starts_with('l')) return completion(std::move(data));
    std::thread([completion = std::move(completion), data = std::move(data)]() mutable {
        completion(std::move(data));
    }).detach();
}

std::string socketPath() {
    static const std::string path = [] {
        std::string folder = "/tmp/fuzz-messages-XXXXXX";
        fuzz::require(mkdtemp(folder.data()) != nullptr, "no folder for the socket");
        return folder + "/socket";
    }();
    return path;
}

// One socket serves all inputs, and goes with its folder at the end.
struct Server {
    Server() {
        socket = std::make_unique<platform::MessageSocket>(
            socketPath(), [] { return platform::Result<>(); }, answer,
            platform::MessageSocket::Limits{.requestBytes = longestRequest});
    }
    ~Server() {
        socket.reset();
        rmdir(socketPath().substr(0, socketPath().rfind('/')).c_str());
    }
    std::unique_ptr<platform::MessageSocket> socket;
};

class Client {
public:
    void connect() {
        if (socket) return;
        socket = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socketPath().copy(address.sun_path, sizeof address.sun_path - 1);
        // The fuzzer's clock interrupts calls.
        const auto connected = TEMP_FAILURE_RETRY(
            ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
        fuzz::require(connected == 0, "the socket takes no client");
        // Far more than a reply takes: what stays out fails instead of hanging.
        const timeval limit{30, 0};
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        request.clear();
        hasEnded = false;
    }

    void send(const std::string& piece) {
        if (!socket || hasEnded || piece.empty()) return;
        const auto sent =
            TEMP_FAILURE_RETRY(::send(socket.get(), piece.data(), piece.size(), MSG_NOSIGNAL));
        // Only a request that has grown too long is cut off.
        request += piece;
        fuzz::require(sent == static_cast<ssize_t>(piece.size()) || isTooLong(), "cut off");
    }

    void end() {
        if (!socket || hasEnded) return;
        shutdown(socket.get(), SHUT_WR);
        hasEnded = true;
    }

    void takeReply() {
        if (!socket || !hasEnded) return;
        std::string reply;
        std::array<char, 4096> buffer;
        ssize_t length = 0;
        while ((length = TEMP_FAILURE_RETRY(recv(socket.get(), buffer.data(), buffer.size(), 0))) >
               0)
            reply.append(buffer.data(), static_cast<std::size_t>(length));
        fuzz::require(length == 0 || (isTooLong() && errno == ECONNRESET), "no end of the reply",
                      request);
        const bool hasReply = !isTooLong() && !request.starts_with('d');
        fuzz::require(reply == (hasReply ? replyTo(request).value_or("") : ""), "another reply",
                      request + "\n" + reply);
        leave();
    }

    void leave() { socket = FileDescriptor(); }

private:
    bool isTooLong() const { return request.size() > longestRequest; }

    FileDescriptor socket;
    std::string request;
    bool hasEnded = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Server server;
    static constexpr std::string_view pieces[] = {"n", "d", "l", "e", "{\"type\":\"getStatus\"}",
                                                  ""};
    fuzz::Input input({data, size});
    std::array<Client, 4> clients;
    while (!input.isEmpty()) {
        auto& client = clients[input.below(clients.size())];
        switch (input.below(6)) {
            case 0:
                client.send(std::string(input.below(256) * 8, 'x'));
                break;
            case 1:
                client.send(std::string(input.pick(pieces)));
                break;
            case 2:
                client.end();
                break;
            case 3:
                client.takeReply();
                break;
            case 4:
                if (input.oneIn(4)) client.leave();
                break;
            default:
                client.connect();
        }
    }
    for (auto& client : clients) {
        client.end();
        client.takeReply();
    }
    return 0;
}
