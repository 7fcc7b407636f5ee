#include "Platform/Linux/Files/TrustedFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "Platform/Linux/HostChannel/TrustedAccounts.h"
#include "Platform/Linux/PlatformLog.h"

namespace platform {
namespace {

int openWithoutWaiting(const std::string& path, int flags) {
    for (;;) {
        const int descriptor = ::open(
            path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, modeOfNewFiles);
        if (descriptor >= 0 || errno != EINTR) return descriptor;
    }
}

std::optional<std::string> reasonForDistrust(int descriptor) {
    struct stat status;
    if (::fstat(descriptor, &status) != 0) return "its status cannot be read";
    if (!S_ISREG(status.st_mode)) return "it is not a regular file";
    if ((status.st_mode & S_IWOTH) != 0) return "everybody may write to it";
    if (!isTrustedAccount(status.st_uid))
        return "its owner, user " + std::to_string(status.st_uid) +
               ", is neither root nor the daemon's user nor a member of the group " +
               trustedGroupName;
    return std::nullopt;
}

Error distrust(const std::string& path, const std::string& reason) {
    platformLog.error("The file %{public}s is not trusted: %{public}s", path, reason);
    return {EPERM, "", "The file is not trusted: " + reason};
}

}  // namespace

Result<FileDescriptor> openTrustedFile(const std::string& path, int flags) {
    FileDescriptor file(openWithoutWaiting(path, flags));
    if (!file && errno == ELOOP) return distrust(path, "it is a symbolic link");
    if (!file) return Error::last();
    if (const auto reason = reasonForDistrust(file.get())) return distrust(path, *reason);
    return file;
}

}  // namespace platform
