#include "Platform/Linux/Attribution/ProcessStatus.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <charconv>
#include <climits>
#include <memory>

namespace platform {

namespace {

constexpr std::string_view removedMark = " (deleted)";

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
}

// The word at `index` in a text of words that are each followed by one blank.
std::string_view word(std::string_view text, int index) {
    for (int skipped = 0; skipped < index; ++skipped) {
        const auto blank = text.find(' ');
        if (blank == std::string_view::npos) return {};
        text.remove_prefix(blank + 1);
    }
    return text.substr(0, text.find(' '));
}

// The name of the link to the running executable. A process whose first thread has ended shows it
// with its other threads only.
std::string programLink(const FileDescriptor& process) {
    constexpr auto ofFirstThread = "exe";
    struct stat executable {};
    if (::fstatat(process.get(), ofFirstThread, &executable, 0) == 0) return ofFirstThread;
    struct Close {
        void operator()(DIR* folder) const { ::closedir(folder); }
    };
    const int tasks = ::openat(process.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, Close> folder(tasks < 0 ? nullptr : ::fdopendir(tasks));
    while (const auto* entry = folder ? ::readdir(folder.get()) : nullptr) {
        auto link = "task/" + std::string(entry->d_name) + "/exe";
        if (::fstatat(process.get(), link.c_str(), &executable, 0) == 0) return link;
    }
    return ofFirstThread;
}

bool lookAtProgram(const FileDescriptor& process, struct stat& executable) {
    return ::fstatat(process.get(), "exe", &executable, 0) == 0 ||
           ::fstatat(process.get(), programLink(process).c_str(), &executable, 0) == 0;
}

// A link to a removed file carries a mark behind the path. A file may as well be called so.
void dropRemovedMark(const FileDescriptor& process, const std::string& link, std::string& path) {
    if (!path.ends_with(removedMark)) return;
    struct stat running {};
    struct stat named {};
    const bool isNamedSo = ::fstatat(process.get(), link.c_str(), &running, 0) == 0 &&
                           ::stat(path.c_str(), &named) == 0 && running.st_dev == named.st_dev &&
                           running.st_ino == named.st_ino;
    if (!isNamedSo) path.resize(path.size() - removedMark.size());
}

std::array<char, 32> folderOf(pid_t pid) {
    std::array<char, 32> path{"/proc/"};
    std::to_chars(path.data() + 6, path.data() + path.size() - 1, pid);
    return path;
}

}  // namespace

FileDescriptor openProcess(pid_t pid) {
    return FileDescriptor(::open(folderOf(pid).data(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

std::optional<uid_t> accountOf(pid_t pid) {
    struct stat folder {};
    if (::stat(folderOf(pid).data(), &folder) != 0) return std::nullopt;
    return folder.st_uid;
}

bool isFirstProcessNamespace() {
    constexpr ino_t inodeOfFirst = 0xEFFFFFFC;
    struct stat status {};
    return ::stat("/proc/self/ns/pid", &status) == 0 && status.st_ino == inodeOfFirst;
}

std::optional<ProcessStatus> readProcessStatus(const FileDescriptor& process) {
    ProcessStatus result;
    struct stat folder {};
    struct stat executable {};
    if (!process || ::fstat(process.get(), &folder) != 0 || !lookAtProgram(process, executable) ||
        !parseProcessStat(readProcessFile(process, "stat"), result)) {
        return std::nullopt;
    }
    result.effectiveUserId = folder.st_uid;
    result.executableDevice = executable.st_dev;
    result.executableInode = executable.st_ino;
    result.executableOwner = executable.st_uid;
    return result;
}

bool parseProcessStat(std::string_view text, ProcessStatus& status) {
    const auto nameEnd = text.rfind(") ");
    if (nameEnd == std::string_view::npos) return false;
    const auto words = text.substr(nameEnd + 2);
    return parseNumber(word(words, 1), status.parentPid) &&
           parseNumber(word(words, 19), status.startTime);
}

std::optional<std::string> readExecutablePath(const FileDescriptor& process) {
    std::string path(PATH_MAX + removedMark.size(), '\0');
    const auto link = programLink(process);
    const auto length = ::readlinkat(process.get(), link.c_str(), path.data(), path.size());
    if (length <= 0) return std::nullopt;
    path.resize(static_cast<std::size_t>(length));
    dropRemovedMark(process, link, path);
    return path;
}

std::string readProcessFile(const FileDescriptor& process, const char* name) {
    const FileDescriptor file(::openat(process.get(), name, O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> text{};
    const auto length = file ? ::read(file.get(), text.data(), text.size()) : 0;
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : std::string();
}

}  // namespace platform
