#include "Platform/Linux/HostChannel/SharedFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/HostChannelLog.h"
#include "Platform/Linux/HostChannel/TrustedAccounts.h"

namespace platform {

namespace {

// What is made in a folder of the group belongs to the group too: the set-group-id bit.
constexpr mode_t groupFolderMode = 02770;
constexpr mode_t ownerFolderMode = 0700;
constexpr mode_t readableFolderMode = 0755;
constexpr mode_t permissionBits = 07777;

Error unusable(const std::string& path, const Error& why) {
    return {why.code(), "", "The folder " + path + " cannot be used: " + why.text()};
}

// A process that may not give the group its folder, as in a namespace that doesn't know the group,
// keeps it for itself; `refusal` says why.
bool giveToGroup(int folder, const struct stat& present, gid_t group, int& refusal) {
    const bool isGroups =
        present.st_gid == group || fchown(folder, static_cast<uid_t>(-1), group) == 0;
    if (!isGroups) refusal = errno;
    return fchmod(folder, isGroups ? groupFolderMode : ownerFolderMode) == 0;
}

bool isAsAsked(const struct stat& present, FolderAccess access, std::optional<gid_t> group) {
    const mode_t mode = present.st_mode & permissionBits;
    if (access == FolderAccess::everyoneMayRead) return mode == readableFolderMode;
    if (!group) return mode == ownerFolderMode;
    return mode == groupFolderMode && present.st_gid == *group;
}

bool setAccess(int folder, const struct stat& present, FolderAccess access, int& refusal) {
    const auto group = trustedGroup();
    if (isAsAsked(present, access, group)) return true;
    if (access == FolderAccess::everyoneMayRead) return fchmod(folder, readableFolderMode) == 0;
    if (!group) return fchmod(folder, ownerFolderMode) == 0;
    return giveToGroup(folder, present, *group, refusal);
}

Result<> prepare(const std::string& path, FolderAccess access, int& refusal) {
    // Closed to everybody else until its group and mode are set.
    if (mkdir(path.c_str(), ownerFolderMode) != 0 && errno != EEXIST)
        return unusable(path, Error::last());
    const FileDescriptor folder(
        open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return unusable(path, Error::last());
    struct stat present {};
    if (fstat(folder.get(), &present) != 0) return unusable(path, Error::last());
    if (!isTrustedAccount(present.st_uid))
        return unusable(path, {EPERM, "", "its owner is not trusted"});
    if (present.st_uid != geteuid() && geteuid() != 0) return {};
    if (!setAccess(folder.get(), present, access, refusal)) return unusable(path, Error::last());
    return {};
}

}  // namespace

Result<> prepareSharedFolder(const std::string& path, FolderAccess access) {
    int refusal = 0;
    return prepare(path, access, refusal);
}

bool makeSharedFolder(const std::string& path, FolderAccess access) {
    int refusal = 0;
    const auto prepared = prepare(path, access, refusal);
    if (!prepared) hostChannelLog.error("%{public}s", prepared.error().text());
    if (refusal != 0)
        hostChannelLog.error(
            "%{public}s cannot be given to the group vantry (%{public}s): only root can use it",
            path, std::strerror(refusal));
    return static_cast<bool>(prepared);
}

}  // namespace platform
