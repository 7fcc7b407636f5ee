#include "Platform/Linux/Steering/StrictFilter.h"

#include <linux/ip.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <sstream>

#include "Platform/Foundation.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/PlatformLog.h"

namespace platform::steering {

namespace {

constexpr int strict = 1;

std::string place(const std::string& interface, const std::string& setting) {
    return "/proc/sys/net/ipv4/conf/" + interface + "/" + setting;
}

int read(const std::string& interface, const std::string& setting) {
    int value = 0;
    std::ifstream(place(interface, setting)) >> value;
    return value;
}

// By netlink: the service may not write to /proc/sys.
bool haveMarksCount(const std::string& interface, std::uint32_t value) {
    auto socket = netlink::Socket::open(NETLINK_ROUTE);
    if (!socket) return false;
    ifinfomsg link{};
    link.ifi_index = static_cast<int>(if_nametoindex(interface.c_str()));
    netlink::Request request(RTM_SETLINK, NLM_F_ACK, link);
    request.nest(IFLA_AF_SPEC, [&] {
        request.nest(AF_INET, [&] {
            request.nest(IFLA_INET_CONF, [&] { request.put(IPV4_DEVCONF_SRC_VMARK, value); });
        });
    });
    return link.ifi_index != 0 && static_cast<bool>(socket->request(request));
}

// Of the two settings the stricter counts.
bool isStrict(const std::string& interface) {
    return std::max(read("all", "rp_filter"), read(interface, "rp_filter")) == strict;
}

bool doMarksCount(const std::string& interface) {
    return read("all", "src_valid_mark") != 0 || read(interface, "src_valid_mark") != 0;
}

std::set<std::string> storedNames() {
    const auto content = NSFileManager::defaultManager().contentsAtPath(places::strictFilterFile);
    std::istringstream lines{std::string(content ? content->bytes().value_or("") : "")};
    std::set<std::string> names;
    for (std::string name; std::getline(lines, name);) names.insert(name);
    return names;
}

}  // namespace

StrictFilter::StrictFilter() : changed(storedNames()) {}

void StrictFilter::takeBack() {
    if (changed.empty()) return;
    for (const auto& interface : changed) static_cast<void>(haveMarksCount(interface, 0));
    NSFileManager::defaultManager().removeItemAtPath(places::strictFilterFile);
    changed.clear();
}

bool StrictFilter::letMarksCount(const std::string& interface) {
    if (!isStrict(interface) || doMarksCount(interface)) return true;
    // Stored first: to take back what was not changed yet does no harm.
    changed.insert(interface);
    store();
    return haveMarksCount(interface, 1);
}

void StrictFilter::store() const {
    std::string lines;
    for (const auto& name : changed) lines.append(name).append("\n");
    const auto failure =
        NSFileManager::defaultManager().writeAtomically(lines, places::strictFilterFile);
    if (failure)
        platformLog.error(
            "The reverse-path filter of these interfaces stays changed should the daemon be "
            "killed, as that cannot be stored: %{public}s",
            failure->localizedDescription);
}

}  // namespace platform::steering
