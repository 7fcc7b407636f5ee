#include "Platform/Linux/Netlink/Message.h"

#include <linux/netlink.h>

namespace platform::netlink {

Request::Request(unsigned type, unsigned flags) {
    nlmsghdr* const header = mnl_nlmsg_put_header(room.data());
    header->nlmsg_type = narrow(type);
    header->nlmsg_flags = narrow(NLM_F_REQUEST | flags);
}

Request& Request::put(unsigned type, Bytes bytes) {
    const bool fits =
        bytes.size() < capacity &&
        mnl_attr_put_check(message(), capacity, narrow(type), bytes.size(), bytes.data());
    return fits ? *this : breakOff();
}

}  // namespace platform::netlink
