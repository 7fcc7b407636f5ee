#include "Host/vantryctl/TunnelSockets.h"

#include <netinet/in.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantryctl {

namespace {

namespace fs = std::filesystem;

// The sockets that processes hold, by inode.
struct HeldSockets {
    std::set<ino_t> any;
    std::set<ino_t> ofTunnelPrograms;
};

// "iff:" is the interface of a descriptor of /dev/net/tun.
bool isTunnelDevice(const fs::path& process, const std::string& descriptor) {
    std::ifstream information(process / "fdinfo" / descriptor);
    for (std::string line; std::getline(information, line);)
        if (line.starts_with("iff:") && line.find_first_not_of(" \t", 4) != std::string::npos)
            return true;
    return false;
}

void addSocketsOf(const fs::path& process, HeldSockets& held) {
    std::error_code none;
    std::set<ino_t> own;
    bool hasTunnel = false;
    for (const auto& entry : fs::directory_iterator(process / "fd", none)) {
        struct stat status {};
        if (::stat(entry.path().c_str(), &status) != 0) continue;
        if (S_ISSOCK(status.st_mode)) own.insert(status.st_ino);
        if (S_ISCHR(status.st_mode))
            hasTunnel = hasTunnel || isTunnelDevice(process, entry.path().filename());
    }
    held.any.insert(own.begin(), own.end());
    if (hasTunnel) held.ofTunnelPrograms.insert(own.begin(), own.end());
}

HeldSockets heldSockets() {
    HeldSockets held;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator("/proc", none)) {
        const std::string name = entry.path().filename();
        if (std::ranges::all_of(name, [](char letter) { return letter >= '0' && letter <= '9'; }))
            addSocketsOf(entry.path(), held);
    }
    return held;
}

// The inodes of the sockets of a table of /proc/net that are bound to a port of this machine.
std::set<ino_t> socketsAtPort(const std::string& table, std::uint16_t port) {
    constexpr std::size_t placeOfLocalEnd = 1;
    constexpr std::size_t placeOfInode = 9;
    std::set<ino_t> inodes;
    std::ifstream file("/proc/net/" + table);
    for (std::string line; std::getline(file, line);) {
        std::istringstream text(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
        if (words.size() <= placeOfInode) continue;
        const auto& local = words[placeOfLocalEnd];
        const auto colon = local.find(':');
        unsigned bound = 0;
        if (colon == std::string::npos ||
            std::from_chars(local.data() + colon + 1, local.data() + local.size(), bound, 16).ec !=
                std::errc{} ||
            bound != port)
            continue;
        ino_t inode = 0;
        const auto& digits = words[placeOfInode];
        std::from_chars(digits.data(), digits.data() + digits.size(), inode);
        inodes.insert(inode);
    }
    return inodes;
}

bool isTunnelUp() {
    return std::ranges::any_of(
        platform::NetworkMonitor::shared().state()->interfaces,
        [](const auto& interface) { return interface.isTunnel && interface.isUp; });
}

}  // namespace

bool isTunnelsOwn(const platform::FlowTuple& flow) {
    if (!isTunnelUp()) return false;
    const std::string protocol = flow.protocol == IPPROTO_UDP ? "udp" : "tcp";
    auto sockets = socketsAtPort(protocol, flow.sourcePort);
    sockets.merge(socketsAtPort(protocol + "6", flow.sourcePort));
    const auto held = heldSockets();
    return std::ranges::any_of(sockets, [&](ino_t inode) {
        const bool isKernels = flow.protocol == IPPROTO_UDP && !held.any.contains(inode);
        return isKernels || held.ofTunnelPrograms.contains(inode);
    });
}

}  // namespace vantryctl
