// Whole files of the machine. Reading and overwriting go through the checks for files in shared
// ground; replacing needs none, as it opens nothing that was there before.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "Platform/Foundation.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Files/TrustedFile.h"
#include "Platform/Linux/Files/UnreadFile.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/RandomBytes.h"
#include "Platform/Linux/Recording/RecordedSystem.h"
#include "Platform/Linux/Result.h"

namespace platform {
namespace {

// A file that grows without end must not take the machine's memory.
constexpr std::size_t largestFile = std::size_t{256} << 20;
constexpr std::string_view applicationGroup = "group.org.quillmere.Vantry";

Result<> writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return Error::last();
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return {};
}

std::optional<std::string> readAll(int descriptor) {
    struct stat status;
    if (::fstat(descriptor, &status) != 0) return std::nullopt;
    // One byte more than the file seems to hold, so that the end shows without growing.
    std::string bytes(static_cast<std::size_t>(status.st_size) + 1, '\0');
    std::size_t length = 0;
    for (;;) {
        if (length > largestFile) {
            errno = EFBIG;
            return std::nullopt;
        }
        if (length == bytes.size()) bytes.resize(bytes.size() * 2);
        const ssize_t count = ::read(descriptor, bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    bytes.resize(length);
    return bytes;
}

bool isTooLarge(int descriptor) {
    struct stat status;
    return ::fstat(descriptor, &status) == 0 &&
           static_cast<std::size_t>(status.st_size) > largestFile;
}

// A name beside `path` that no one can foresee.
std::string temporaryNameBeside(std::string_view path) {
    std::array<std::uint8_t, 12> bytes;
    fillWithRandomBytes(bytes);
    std::string name = std::string(path) + ".";
    std::array<char, 3> digits;
    for (const auto byte : bytes) {
        std::snprintf(digits.data(), digits.size(), "%02x", byte);
        name += digits.data();
    }
    return name;
}

Result<> createAndFill(const std::string& name, std::string_view bytes) {
    const FileDescriptor file(
        ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, modeOfNewFiles));
    if (!file) return Error::last();
    auto written = writeAll(file.get(), bytes);
    if (!written) ::unlink(name.c_str());
    return written;
}

// What stands there and is not trusted goes: the link itself, not what it leads to.
Result<FileDescriptor> openForWriting(const std::string& path) {
    auto opened = openTrustedFile(path, O_WRONLY | O_CREAT);
    const bool isDistrusted = !opened && opened.error().code() == EPERM;
    if (!isDistrusted || ::unlink(path.c_str()) != 0) return opened;
    platformLog.info("The file %{public}s is replaced by a new one", path);
    return openTrustedFile(path, O_WRONLY | O_CREAT | O_EXCL);
}

// Any account can put a folder into shared ground, which no file can be moved over. It is kept under
// another name. True if the way is free now.
bool moveFolderAside(const std::string& path) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
    const auto aside = temporaryNameBeside(path + ".broken");
    if (::rename(path.c_str(), aside.c_str()) != 0) return false;
    platformLog.info("A folder of user %{public}s stood at %{public}s; it is now %{public}s",
                     std::to_string(status.st_uid), path, aside);
    return true;
}

}  // namespace

NSFileManager& NSFileManager::defaultManager() {
    static NSFileManager manager;
    return manager;
}

namespace {

thread_local std::optional<std::string> unreadFile;

// For the machine's sake: not as there is no such file, or as it is not trusted.
void noteUnread(std::string_view path, const Error& error) {
    constexpr std::array others{ENOENT, ENOTDIR, EPERM, EFBIG};
    if (std::ranges::find(others, error.code()) != others.end()) return;
    unreadFile = std::string(path).append(": ").append(error.text());
}

std::optional<Data> trustedContents(std::string_view path) {
    const auto opened = openTrustedFile(std::string(path), O_RDONLY);
    if (!opened) {
        noteUnread(path, opened.error());
        return std::nullopt;
    }
    if (isTooLarge(opened->get())) {
        platformLog.error("The file %{public}s is too large to be read", path);
        return std::nullopt;
    }
    auto bytes = readAll(opened->get());
    if (!bytes) {
        noteUnread(path, Error::last());
        return std::nullopt;
    }
    return Data(std::move(*bytes));
}

}  // namespace

std::optional<std::string> takeUnreadFile() { return std::exchange(unreadFile, std::nullopt); }

std::optional<Data> NSFileManager::contentsAtPath(std::string_view path) {
    auto contents = trustedContents(path);
    recording::noteFile(path, contents);
    return contents;
}

std::optional<NSError> NSFileManager::writeAtomically(std::string_view bytes,
                                                      std::string_view path) {
    const std::string destination(path);
    const std::string temporaryName = temporaryNameBeside(path);
    const auto filled = createAndFill(temporaryName, bytes);
    if (!filled) return systemError(filled.error());
    const auto put = [&] { return ::rename(temporaryName.c_str(), destination.c_str()) == 0; };
    if (put()) return std::nullopt;
    const Error error = Error::last();
    if (moveFolderAside(destination) && put()) return std::nullopt;
    ::unlink(temporaryName.c_str());
    return systemError(error);
}

std::optional<NSError> NSFileManager::write(std::string_view bytes, std::string_view path) {
    const auto opened = openForWriting(std::string(path));
    if (!opened) return systemError(opened.error());
    // Emptied only now, when it is known whose file it is.
    if (::ftruncate(opened->get(), 0) != 0) return systemError(Error::last());
    const auto written = writeAll(opened->get(), bytes);
    return written ? std::nullopt : std::optional(systemError(written.error()));
}

bool NSFileManager::setPosixPermissions(int permissions, std::string_view path) {
    const auto opened = openTrustedFile(std::string(path), O_RDONLY);
    return opened && ::fchmod(opened->get(), static_cast<mode_t>(permissions)) == 0;
}

bool NSFileManager::removeItemAtPath(std::string_view path) {
    return ::unlink(std::string(path).c_str()) == 0;
}

std::optional<std::string> NSFileManager::containerURLForSecurityApplicationGroupIdentifier(
    std::string_view groupIdentifier) {
    if (groupIdentifier != applicationGroup) return std::nullopt;
    if (!makeSharedFolder(places::groupContainer, FolderAccess::trustedGroupOnly))
        return std::nullopt;
    return places::groupContainer;
}

}  // namespace platform
