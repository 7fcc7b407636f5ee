#include "Lab/demo-client/Conversations.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>
#include <vector>

#include "Lab/sockets/Descriptor.h"
#include "Lab/sockets/SocketPassing.h"

namespace lab {
namespace {

constexpr uint64_t chunkSize = 1000;

using Clock = std::chrono::steady_clock;

// Waits until the socket is ready for `events`; false, with errno set, when patience runs out.
bool waitFor(const Descriptor& socket, short events, Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd entry{.fd = socket.number(), .events = events, .revents = 0};
    const auto count = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
    if (count == 0) errno = ETIMEDOUT;
    return count > 0;
}

int pendingError(const Descriptor& socket) {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(socket.number(), SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

Address target(const Destination& destination) {
    return destination.isMapped ? destination.address.mapped() : destination.address;
}

// Takes the wanted port of our own on every address, also while an earlier connection lingers on it.
bool bindPort(const Descriptor& socket, const Destination& destination) {
    const int yes = 1;
    setsockopt(socket.number(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    const auto isIPv4 = target(destination).family() == AF_INET;
    const auto address = Address::parse(isIPv4 ? "0.0.0.0" : "::", destination.sourcePort);
    return bind(socket.number(), address->pointer(), address->length) == 0;
}

bool chooseInterface(const Descriptor& socket, const Destination& destination) {
    const auto index = if_nametoindex(destination.unicastInterface.c_str());
    const auto isIPv4 = target(destination).family() == AF_INET;
    const auto inNetworkOrder = htonl(index);
    return setsockopt(socket.number(), isIPv4 ? IPPROTO_IP : IPPROTO_IPV6,
                      isIPv4 ? IP_UNICAST_IF : IPV6_UNICAST_IF, &inNetworkOrder,
                      sizeof inNetworkOrder) == 0;
}

Descriptor openSocket(const Destination& destination, int type, Report& report) {
    Descriptor socket(
        ::socket(target(destination).family(), type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket) report.failedAt("socket", errno);
    const auto& device = destination.bindDevice;
    if (socket && !device.empty() &&
        setsockopt(socket.number(), SOL_SOCKET, SO_BINDTODEVICE, device.data(),
                   static_cast<socklen_t>(device.size())) != 0) {
        report.failedAt("bind", errno);
        socket.close();
    }
    if (socket && !destination.unicastInterface.empty() && !chooseInterface(socket, destination)) {
        report.failedAt("bind", errno);
        socket.close();
    }
    if (socket && destination.sourcePort != 0 && !bindPort(socket, destination)) {
        report.failedAt("bind", errno);
        socket.close();
    }
    return socket;
}

// False and the report filled if the socket cannot be connected.
bool connectSocket(const Descriptor& socket, const Destination& destination, Report& report) {
    const auto address = target(destination);
    const auto deadline = Clock::now() + destination.patience;
    auto error = connect(socket.number(), address.pointer(), address.length) == 0 ? 0 : errno;
    if (error == EINPROGRESS)
        error = waitFor(socket, POLLOUT, deadline) ? pendingError(socket) : errno;
    if (error != 0) {
        report.failedAt("connect", error);
        return false;
    }
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    getsockname(socket.number(), reinterpret_cast<sockaddr*>(&storage), &length);
    report.localAddress = Address::of(storage, length).host();
    return true;
}

// A socket that is connected, or none and the report filled.
Descriptor connectTo(const Destination& destination, int type, Report& report) {
    auto socket = openSocket(destination, type, report);
    if (!socket || !connectSocket(socket, destination, report)) return {};
    return socket;
}

// Receives what is there within the deadline; empty, and the report filled, when nothing came.
std::string receive(const Descriptor& socket, Clock::time_point deadline, Report& report) {
    std::array<char, 65536> buffer;
    while (true) {
        const auto count = recv(socket.number(), buffer.data(), buffer.size(), 0);
        if (count > 0) {
            report.bytesReceived += static_cast<uint64_t>(count);
            return {buffer.data(), static_cast<size_t>(count)};
        }
        const auto error = count == 0 ? 0 : errno;
        if (error != EAGAIN || !waitFor(socket, POLLIN, deadline)) {
            report.failedAt("receive", error == EAGAIN ? errno : error);
            return {};
        }
    }
}

bool sendAll(const Descriptor& socket, std::string_view bytes, Clock::time_point deadline,
             Report& report) {
    while (!bytes.empty()) {
        const auto count = send(socket.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count > 0) {
            report.bytesSent += static_cast<uint64_t>(count);
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EAGAIN || !waitFor(socket, POLLOUT, deadline)) {
            report.failedAt("send", errno);
            return false;
        }
    }
    return true;
}

// The server's greeting names the client as the server saw it.
void readGreeting(const std::string& line, Report& report) {
    const auto greeting = nlohmann::json::parse(line, nullptr, false);
    if (greeting.is_object()) report.serverSaw = greeting.value("client", "");
}

bool takeGreeting(const Descriptor& socket, const Destination& destination, std::string& rest,
                  Report& report) {
    const auto deadline = Clock::now() + destination.patience;
    std::string text;
    while (text.find('\n') == std::string::npos) {
        const auto more = receive(socket, deadline, report);
        if (more.empty()) return false;
        text += more;
    }
    readGreeting(text.substr(0, text.find('\n')), report);
    rest = text.substr(text.find('\n') + 1);
    return true;
}

// Greeted, with a service asked for; or false and the report filled.
bool askFor(const std::string& service, const Descriptor& socket, const Destination& destination,
            Report& report) {
    std::string rest;
    if (!takeGreeting(socket, destination, rest, report)) return false;
    const auto deadline = Clock::now() + destination.patience;
    if (!service.empty() && !sendAll(socket, service + "\n", deadline, report)) return false;
    report.outcome = "connected";
    return true;
}

// Connected and greeted, with a service asked for; or none and the report filled.
Descriptor enter(const Destination& destination, const std::string& service, Report& report) {
    auto socket = connectTo(destination, SOCK_STREAM, report);
    if (!socket || !askFor(service, socket, destination, report)) return {};
    return socket;
}

// As many of them, up to the first that fails.
std::vector<Descriptor> enterOften(uint64_t count, const Destination& destination,
                                   const std::string& service, Report& report) {
    std::vector<Descriptor> sockets;
    for (uint64_t number = 0; number < count && report.error.empty(); ++number)
        sockets.push_back(enter(destination, service, report));
    return sockets;
}

// An error that the peer or the machine has put on the socket while nothing was being sent.
bool hasEnded(const Descriptor& socket, Report& report) {
    std::array<char, 4096> buffer;
    const auto count = recv(socket.number(), buffer.data(), buffer.size(), 0);
    if (count > 0) report.bytesReceived += static_cast<uint64_t>(count);
    if (count > 0 || (count < 0 && errno == EAGAIN)) return false;
    report.failedAt("receive", count == 0 ? 0 : errno);
    return true;
}

// True once no one can tell us anything more through standard input.
bool hasInputEnded() {
    pollfd entry{.fd = STDIN_FILENO, .events = 0, .revents = 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & POLLHUP) != 0;
}

// The time for which something goes on: the duration, or until a little after the end of the input.
class GoingOn {
public:
    explicit GoingOn(std::chrono::milliseconds duration) : end_(Clock::now() + duration) {}

    bool isOver() {
        if (!isEnding_ && hasInputEnded()) {
            isEnding_ = true;
            end_ = std::min(end_, Clock::now() + afterInput);
        }
        return Clock::now() >= end_;
    }

private:
    // Long enough to notice what happened just before.
    static constexpr std::chrono::milliseconds afterInput{200};

    Clock::time_point end_;
    bool isEnding_ = false;
};

// Ends the sending and waits for the server, which has had all of it, to end the connection.
bool endWith(const Descriptor& socket, Clock::time_point deadline, Report& report) {
    shutdown(socket.number(), SHUT_WR);
    while (!hasEnded(socket, report)) {
        if (waitFor(socket, POLLIN, deadline)) continue;
        report.failedAt("receive", errno);
        return false;
    }
    if (report.error != "EOF") return false;
    report.error.clear();
    report.phase.clear();
    return true;
}

void upload(const Descriptor& socket, const Destination& destination,
            std::chrono::milliseconds duration, Report& report) {
    report.started = Clock::now();
    const std::string chunk(chunkSize, 'u');
    for (GoingOn goingOn(duration); !goingOn.isOver();) {
        const auto deadline = Clock::now() + destination.patience;
        if (!sendAll(socket, chunk, deadline, report) || hasEnded(socket, report)) return;
        std::this_thread::sleep_for(destination.pace);
    }
    if (endWith(socket, Clock::now() + destination.patience, report)) report.outcome = "finished";
}

void waitForInput(int awaited) {
    for (int character = 0; character != awaited && character != EOF;) character = std::getchar();
}

Report begin(const std::string& mode) {
    Report report;
    report.mode = mode;
    return report;
}

// Through the interface that the destination names, if any.
ssize_t sendUnconnected(const Descriptor& socket, const std::string& bytes,
                        const Destination& destination) {
    const auto address = target(destination);
    iovec content{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_name = const_cast<sockaddr*>(address.pointer());
    message.msg_namelen = address.length;
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> room{};
    if (const auto& name = destination.datagramInterface; !name.empty()) {
        const auto isIPv4 = address.family() == AF_INET;
        in_pktinfo four{};
        in6_pktinfo six{};
        four.ipi_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
        six.ipi6_ifindex = if_nametoindex(name.c_str());
        message.msg_control = room.data();
        message.msg_controllen = isIPv4 ? CMSG_SPACE(sizeof four) : CMSG_SPACE(sizeof six);
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = isIPv4 ? IPPROTO_IP : IPPROTO_IPV6;
        header->cmsg_type = isIPv4 ? IP_PKTINFO : IPV6_PKTINFO;
        header->cmsg_len = isIPv4 ? CMSG_LEN(sizeof four) : CMSG_LEN(sizeof six);
        std::memcpy(CMSG_DATA(header), isIPv4 ? static_cast<void*>(&four) : &six,
                    isIPv4 ? sizeof four : sizeof six);
    }
    return sendmsg(socket.number(), &message, 0);
}

// One datagram out and one back. With an unconnected socket no error can reach us but a time-out.
std::string exchange(const Destination& destination, const std::string& question, Report& report) {
    const auto deadline = Clock::now() + destination.patience;
    auto socket = destination.isUnconnected ? openSocket(destination, SOCK_DGRAM, report)
                                            : connectTo(destination, SOCK_DGRAM, report);
    if (!socket) return {};
    const auto count = destination.isUnconnected
                           ? sendUnconnected(socket, question, destination)
                           : send(socket.number(), question.data(), question.size(), 0);
    if (count < 0) {
        report.failedAt("send", errno);
        return {};
    }
    report.bytesSent += static_cast<uint64_t>(count);
    return receive(socket, deadline, report);
}

// Asks on a connected datagram socket, again and again where that is wanted; the answer, or nothing and
// the report filled.
std::string ask(const Descriptor& socket, const Destination& destination, Report& report) {
    const auto deadline = Clock::now() + destination.patience;
    const auto before = report;
    while (true) {
        const auto isRepeated = destination.repeatAfter > std::chrono::milliseconds::zero();
        const auto next = isRepeated ? Clock::now() + destination.repeatAfter : deadline;
        if (!sendAll(socket, "who am I?", deadline, report)) return {};
        auto answer = receive(socket, std::min(next, deadline), report);
        if (!answer.empty() || report.error != "ETIMEDOUT" || Clock::now() >= deadline)
            return answer;
        report.outcome = before.outcome;
        report.phase = before.phase;
        report.error = before.error;
    }
}

// A query for the address of "who.example.com".
std::string nameQuery() {
    using namespace std::string_literals;
    return "\x56\x41\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00\x03who\x07"s
           "example\x03"s
           "com\x00\x00\x01\x00\x01"s;
}

std::string addressInAnswer(const std::string& answer, const std::string& question) {
    char text[INET6_ADDRSTRLEN] = "";
    const auto recordOffset = question.size() + 12;
    if (answer.size() == recordOffset + 4)
        inet_ntop(AF_INET, answer.data() + recordOffset, text, sizeof text);
    if (answer.size() == recordOffset + 16)
        inet_ntop(AF_INET6, answer.data() + recordOffset, text, sizeof text);
    return text;
}

}  // namespace

Report connectOnce(const Destination& destination) {
    auto report = begin("connect");
    enter(destination, "", report);
    return report;
}

Report keepUploading(const Destination& destination, std::chrono::milliseconds duration) {
    auto report = begin("upload");
    const auto socket = enter(destination, "upload", report);
    report.print();
    if (socket) upload(socket, destination, duration, report);
    return report;
}

Report keepReading(const Destination& destination, std::chrono::milliseconds duration) {
    auto report = begin("read");
    const auto socket = enter(destination, "slow", report);
    report.print();
    if (!socket) return report;
    report.started = Clock::now();
    const auto end = Clock::now() + duration;
    while (!receive(socket, end, report).empty()) {
    }
    if (report.error == "ETIMEDOUT" && Clock::now() >= end) {
        report.outcome = "finished";
        report.error.clear();
        report.phase.clear();
    }
    return report;
}

Report echo(const Destination& destination, uint64_t bytes) {
    auto report = begin("echo");
    const auto socket = enter(destination, "echo", report);
    if (!socket) return report;
    const auto deadline = Clock::now() + destination.patience;
    std::string sent;
    for (uint64_t index = 0; index < bytes; ++index)
        sent += static_cast<char>('a' + index * 7 % 26);
    std::string returned;
    for (size_t offset = 0; offset < sent.size(); offset = returned.size()) {
        const auto piece = std::string_view(sent).substr(offset, 32768);
        if (!sendAll(socket, piece, deadline, report)) return report;
        while (returned.size() < offset + piece.size()) {
            const auto more = receive(socket, deadline, report);
            if (more.empty()) return report;
            returned += more;
        }
    }
    report.outcome = returned == sent ? "finished" : "corrupted";
    return report;
}

Report crowd(const Destination& destination, uint64_t count, std::chrono::milliseconds duration) {
    auto report = begin("crowd");
    const auto sockets = enterOften(count, destination, "echo", report);
    report.print();
    if (!report.error.empty()) return report;
    for (GoingOn goingOn(duration); !goingOn.isOver();)
        std::this_thread::sleep_for(destination.pace);
    for (const auto& socket : sockets) {
        const auto deadline = Clock::now() + destination.patience;
        if (!sendAll(socket, "!", deadline, report) || receive(socket, deadline, report).empty())
            return report;
    }
    report.outcome = "finished";
    return report;
}

Report chatter(const Destination& destination, uint64_t count, std::chrono::milliseconds duration) {
    auto report = begin("chatter");
    auto sockets = enterOften(count, destination, "echo", report);
    report.print();
    if (!report.error.empty()) return report;
    for (GoingOn goingOn(duration); !goingOn.isOver() && !sockets.empty();) {
        std::this_thread::sleep_for(destination.pace);
        std::erase_if(sockets, [&](const Descriptor& socket) {
            const auto before = report.bytesReceived;
            const bool isOver = hasEnded(socket, report);
            if (report.bytesReceived > before) report.lastByte = Clock::now();
            if (isOver) report.ends.push_back(Clock::now());
            if (!isOver) send(socket.number(), "!", 1, MSG_NOSIGNAL);
            return isOver;
        });
    }
    report.outcome = "finished";
    return report;
}

Report hoard(const Destination& destination, uint64_t count, uint64_t bytes) {
    auto report = begin("hoard");
    const auto sockets = enterOften(count, destination, "", report);
    report.print();
    if (!report.error.empty()) return report;
    waitForInput('\n');
    const auto question = "download " + std::to_string(bytes) + "\n";
    for (const auto& socket : sockets)
        if (!sendAll(socket, question, Clock::now() + destination.patience, report)) return report;
    report.print();
    waitForInput(EOF);
    report.bytesReceived = 0;
    const auto deadline = Clock::now() + destination.patience;
    for (uint64_t number = 1; number <= count; ++number)
        while (report.bytesReceived < number * bytes)
            if (receive(sockets[number - 1], deadline, report).empty()) return report;
    report.outcome = "finished";
    return report;
}

Report giveAway(const Destination& destination, const std::string& path, bool isConnected) {
    auto report = begin("give");
    auto socket = isConnected ? connectTo(destination, SOCK_STREAM, report)
                              : openSocket(destination, SOCK_STREAM, report);
    if (!socket) return report;
    if (!passSocket(path, std::move(socket))) return report.failedAt("pass", errno);
    report.outcome = "finished";
    return report;
}

Report takeOver(const Destination& destination, const std::string& path,
                std::chrono::milliseconds duration) {
    auto report = begin("take");
    const auto socket = takeSocket(path);
    if (!socket) return report.failedAt("take", errno);
    report.started = Clock::now();
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const bool isConnected =
        getpeername(socket.number(), reinterpret_cast<sockaddr*>(&peer), &length) == 0;
    if ((isConnected || connectSocket(socket, destination, report)) &&
        askFor("upload", socket, destination, report))
        upload(socket, destination, duration, report);
    return report;
}

Report tally(const Destination& destination, uint64_t bytes) {
    auto report = begin("tally");
    const std::string service = "tally";
    const auto socket = enter(destination, service, report);
    if (!socket) return report;
    const auto deadline = Clock::now() + destination.patience;
    if (!sendAll(socket, std::string(bytes, 't'), deadline, report)) return report;
    shutdown(socket.number(), SHUT_WR);
    const auto answer = receive(socket, deadline, report);
    if (answer == std::to_string(service.size() + 1 + bytes) + "\n") report.outcome = "finished";
    return report;
}

Report askOnce(const Destination& destination) {
    auto report = begin("datagram");
    const auto answer = exchange(destination, "who am I?", report);
    if (answer.empty()) return report;
    readGreeting(answer, report);
    report.outcome = "answered";
    return report;
}

Report resolve(const Destination& destination) {
    auto report = begin("resolve");
    const auto question = nameQuery();
    const auto answer = exchange(destination, question, report);
    if (answer.empty()) return report;
    report.serverSaw = addressInAnswer(answer, question);
    report.outcome = "answered";
    return report;
}

Report keepAsking(const Destination& destination, std::chrono::milliseconds duration) {
    auto report = begin("datagrams");
    const auto socket = connectTo(destination, SOCK_DGRAM, report);
    for (GoingOn goingOn(duration); socket && !goingOn.isOver();) {
        const auto answer = ask(socket, destination, report);
        if (answer.empty()) break;
        readGreeting(answer, report);
        if (report.outcome != "answered") {
            report.outcome = "answered";
            report.print();
        }
        std::this_thread::sleep_for(destination.pace);
    }
    if (report.error.empty()) report.outcome = "finished";
    return report;
}

}  // namespace lab
