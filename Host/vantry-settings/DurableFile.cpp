#include "Host/vantry-settings/DurableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Platform/Common/UUID.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantrysettings {

using platform::FileDescriptor;
using vantryhost::ExitCode;
using vantryhost::Failure;
using vantryhost::Nothing;
using vantryhost::Outcome;

namespace {

// The names of files in the making: the file's own, and this and a random text.
constexpr std::string_view makingSuffix = ".new-";

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

bool writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool fill(int file, std::string_view bytes, const FileAccess& access) {
    return writeAll(file, bytes) && fchown(file, access.owner, access.group) == 0 &&
           fchmod(file, access.mode) == 0;
}

enum class Sync { no, yes };

bool makeWhole(const std::string& path, std::string_view bytes, const FileAccess& access,
               Sync sync) {
    const FileDescriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file && fill(file.get(), bytes, access) && (sync == Sync::no || fsync(file.get()) == 0);
}

bool syncFolderOf(const std::string& path) {
    const FileDescriptor folder(open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && fsync(folder.get()) == 0;
}

Failure cannotWrite(const std::string& path, int error) {
    return {ExitCode::failed, path + " cannot be written: " + std::strerror(error) + ".",
            error == ENOSPC || error == EDQUOT ? "Make room on the disk, and try again." : ""};
}

Outcome<> replace(const std::string& path, std::string_view bytes, const FileAccess& access,
                  Sync sync) {
    const std::string made =
        path + std::string(makingSuffix) + platform::UUID::random().uuidString();
    if (!makeWhole(made, bytes, access, sync) || rename(made.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(made.c_str());
        return cannotWrite(path, error);
    }
    if (sync == Sync::yes && !syncFolderOf(path)) return cannotWrite(path, errno);
    return Nothing{};
}

}  // namespace

Outcome<> replaceDurably(const std::string& path, std::string_view bytes,
                         const FileAccess& access) {
    return replace(path, bytes, access, Sync::yes);
}

Outcome<> replaceUnsynced(const std::string& path, std::string_view bytes,
                          const FileAccess& access) {
    return replace(path, bytes, access, Sync::no);
}

void removeLeftovers(const std::string& path) {
    const std::string beginning = path + std::string(makingSuffix);
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(folderOf(path), none)) {
        struct stat present {};
        const auto& name = entry.path().native();
        if (name.starts_with(beginning) && lstat(name.c_str(), &present) == 0 &&
            present.st_uid == geteuid() && S_ISREG(present.st_mode))
            unlink(name.c_str());
    }
}

}  // namespace vantrysettings
