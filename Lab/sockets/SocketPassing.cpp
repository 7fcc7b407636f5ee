#include "Lab/sockets/SocketPassing.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

namespace lab {
namespace {

Descriptor openChannel() { return Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

sockaddr_un channelAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// A message of one byte, with room for one descriptor beside it.
struct Parcel {
    Parcel() {
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = room;
        message.msg_controllen = sizeof room;
    }

    char byte = 's';
    iovec part{&byte, sizeof byte};
    alignas(cmsghdr) char room[CMSG_SPACE(sizeof(int))]{};
    msghdr message{};
};

}  // namespace

bool passSocket(const std::string& path, Descriptor socket) {
    const auto channel = openChannel();
    const auto address = channelAt(path);
    if (connect(channel.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return false;
    Parcel parcel;
    auto* const header = CMSG_FIRSTHDR(&parcel.message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int number = socket.number();
    std::memcpy(CMSG_DATA(header), &number, sizeof number);
    const bool isSent = sendmsg(channel.number(), &parcel.message, MSG_NOSIGNAL) == 1;
    // The end of the channel tells the taker that the socket is his alone.
    socket.close();
    return isSent;
}

Descriptor takeSocket(const std::string& path) {
    const auto listener = openChannel();
    const auto address = channelAt(path);
    if (bind(listener.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.number(), 1) != 0)
        return {};
    const Descriptor channel(accept4(listener.number(), nullptr, nullptr, SOCK_CLOEXEC));
    Parcel parcel;
    if (recvmsg(channel.number(), &parcel.message, MSG_CMSG_CLOEXEC) != 1) return {};
    const auto* const header = CMSG_FIRSTHDR(&parcel.message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return {};
    int number = -1;
    std::memcpy(&number, CMSG_DATA(header), sizeof number);
    Descriptor socket(number);
    char end = 0;
    if (recv(channel.number(), &end, sizeof end, 0) != 0) return {};
    return socket;
}

}  // namespace lab
