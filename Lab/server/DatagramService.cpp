#include "Lab/server/DatagramService.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace lab {
namespace {

constexpr uint16_t namePort = 53;
constexpr size_t nameHeaderSize = 12;

std::optional<in6_pktinfo> arrivalPlace(msghdr& message) {
    for (auto* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != IPPROTO_IPV6 || part->cmsg_type != IPV6_PKTINFO) continue;
        in6_pktinfo place;
        std::memcpy(&place, CMSG_DATA(part), sizeof place);
        return place;
    }
    return std::nullopt;
}

Address serverAddress(const in6_pktinfo& place, uint16_t port) {
    sockaddr_storage storage{};
    auto& address = reinterpret_cast<sockaddr_in6&>(storage);
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = place.ipi6_addr;
    return Address::of(storage, sizeof(sockaddr_in6));
}

std::string addressBytes(const Address& client) {
    const auto& address = reinterpret_cast<const sockaddr_in6&>(client.storage).sin6_addr;
    const std::string all(reinterpret_cast<const char*>(address.s6_addr), sizeof address.s6_addr);
    return IN6_IS_ADDR_V4MAPPED(&address) ? all.substr(12) : all;
}

// The query with the answer bit set and one record behind the question: type A or AAAA, for the
// queried name, with the client's own address in it.
std::string nameAnswer(std::string query, const Address& client) {
    using namespace std::string_literals;
    query[2] = static_cast<char>(query[2] | '\x80');
    query.replace(6, 6, "\x00\x01\x00\x00\x00\x00"s);
    const auto address = addressBytes(client);
    query += "\xc0\x0c"s;
    query += address.size() == 4 ? "\x00\x01"s : "\x00\x1c"s;
    query += "\x00\x01\x00\x00\x00\x00\x00"s;
    query += static_cast<char>(address.size());
    return query + address;
}

void answerFrom(int socket, const in6_pktinfo& place, const Address& client,
                std::string_view text) {
    iovec bytes{.iov_base = const_cast<char*>(text.data()), .iov_len = text.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> control{};
    auto destination = client;
    msghdr message{};
    message.msg_name = &destination.storage;
    message.msg_namelen = destination.length;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    auto* part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = IPPROTO_IPV6;
    part->cmsg_type = IPV6_PKTINFO;
    part->cmsg_len = CMSG_LEN(sizeof place);
    // The source is pinned, the interface is left to the routes.
    const in6_pktinfo source{.ipi6_addr = place.ipi6_addr, .ipi6_ifindex = 0};
    std::memcpy(CMSG_DATA(part), &source, sizeof source);
    sendmsg(socket, &message, MSG_NOSIGNAL);
}

}  // namespace

DatagramService::DatagramService(Descriptor socket, uint16_t port, Ledger& ledger)
    : socket_(std::move(socket)), port_(port), ledger_(ledger) {}

void DatagramService::readable() {
    std::array<char, 65536> buffer;
    alignas(cmsghdr) std::array<char, 256> control;
    sockaddr_storage sender{};
    iovec bytes{.iov_base = buffer.data(), .iov_len = buffer.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const auto count = recvmsg(socket_.number(), &message, MSG_DONTWAIT);
    if (count < 0) return;
    const auto place = arrivalPlace(message);
    if (!place) return;

    const auto client = Address::of(sender, message.msg_namelen);
    auto& observation = ledger_.datagramArrived(client, serverAddress(*place, port_));
    const std::string content(buffer.data(), static_cast<size_t>(count));
    observation.bytesReceived += content.size();
    const auto isNameQuery = port_ == namePort && content.size() > nameHeaderSize;
    const auto answer = isNameQuery ? nameAnswer(content, client) : greeting(observation);
    observation.bytesSent += answer.size();
    answerFrom(socket_.number(), *place, client, answer);
}

}  // namespace lab
