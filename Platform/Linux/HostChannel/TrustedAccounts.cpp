#include "Platform/Linux/HostChannel/TrustedAccounts.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

namespace {

// Calls one of the reentrant look-ups of the account database with a buffer that grows until the
// answer fits; true if there was an answer.
template <class LookUp>
bool foundWithGrowingBuffer(std::vector<char>& buffer, LookUp&& lookUp) {
    for (buffer.resize(1024); buffer.size() <= 1 << 20; buffer.resize(buffer.size() * 2)) {
        bool isFound = false;
        if (lookUp(isFound) != ERANGE) return isFound;
    }
    return false;
}

struct GroupRecord {
    gid_t id;
    std::vector<std::string> memberNames;
};

std::optional<GroupRecord> trustedGroupRecord() {
    std::vector<char> buffer;
    group record{};
    const bool isFound = foundWithGrowingBuffer(buffer, [&](bool& isThere) {
        group* result = nullptr;
        const int failure =
            getgrnam_r(trustedGroupName, &record, buffer.data(), buffer.size(), &result);
        isThere = result != nullptr;
        return failure;
    });
    if (!isFound) return std::nullopt;
    GroupRecord answer{record.gr_gid, {}};
    for (char** name = record.gr_mem; *name != nullptr; ++name) answer.memberNames.push_back(*name);
    return answer;
}

bool isMember(uid_t account, const GroupRecord& group) {
    std::vector<char> buffer;
    passwd record{};
    const bool isFound = foundWithGrowingBuffer(buffer, [&](bool& isThere) {
        passwd* result = nullptr;
        const int failure = getpwuid_r(account, &record, buffer.data(), buffer.size(), &result);
        isThere = result != nullptr;
        return failure;
    });
    if (!isFound) return false;
    return record.pw_gid == group.id ||
           std::ranges::find(group.memberNames, std::string_view(record.pw_name)) !=
               group.memberNames.end();
}

// The supplementary groups of the process at the other end, as of its connect.
std::vector<gid_t> peerGroups(int connectedSocket) {
    std::vector<gid_t> groups(64);
    for (;;) {
        auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (getsockopt(connectedSocket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0) {
            groups.resize(length / sizeof(gid_t));
            return groups;
        }
        if (errno != ERANGE || length <= groups.size() * sizeof(gid_t)) return {};
        groups.resize(length / sizeof(gid_t));
    }
}

}  // namespace

std::optional<gid_t> trustedGroup() {
    const auto record = trustedGroupRecord();
    if (!record) return std::nullopt;
    return record->id;
}

bool isTrustedAccount(uid_t account) {
    if (account == 0 || account == geteuid()) return true;
    const auto group = trustedGroupRecord();
    return group && isMember(account, *group);
}

bool isTrustedPeer(int connectedSocket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(connectedSocket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    if (peer.uid == 0 || peer.uid == geteuid()) return true;
    const auto group = trustedGroupRecord();
    if (!group) return false;
    const auto groups = peerGroups(connectedSocket);
    return peer.gid == group->id || std::ranges::find(groups, group->id) != groups.end() ||
           isMember(peer.uid, *group);
}

}  // namespace platform
