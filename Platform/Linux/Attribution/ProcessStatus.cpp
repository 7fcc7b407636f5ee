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

std::string targetOf(const FileDescriptor& process, const std::string& link) {
    std::string target(PATH_MAX + removedMark.size(), '\0');
    const auto length = ::readlinkat(process.get(), link.c_str(), target.data(), target.size());
    target.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return target;
}

// Calls `visit` with the names of the links to the running executable until it returns true. A process
// whose first thread has ended shows it with its other threads only.
template <class Visit>
void anyProgramLink(const FileDescriptor& process, Visit&& visit) {
    if (visit("exe")) return;
    struct Close {
        void operator()(DIR* folder) const { ::closedir(folder); }
    };
    const int tasks = ::openat(process.get(), "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, Close> folder(tasks < 0 ? nullptr : ::fdopendir(tasks));
    while (const auto* entry = folder ? ::readdir(folder.get()) : nullptr)
        if (visit("task/" + std::string(entry->d_name) + "/exe")) return;
}

std::string readExecutableLink(const FileDescriptor& process) {
    std::string target;
    anyProgramLink(process, [&](const std::string& link) {
        target = targetOf(process, link);
        return !target.empty();
    });
    return target;
}

bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
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

std::optional<ProcessStatus> readProcessStatus(const FileDescriptor& process) {
    ProcessStatus result;
    struct stat folder {};
    if (!process || ::fstat(process.get(), &folder) != 0) return std::nullopt;
    result.effectiveUserId = folder.st_uid;
    result.executableLink = readExecutableLink(process);
    if (result.executableLink.empty() ||
        !parseProcessStat(readProcessFile(process, "stat"), result)) {
        return std::nullopt;
    }
    return result;
}

bool parseProcessStat(std::string_view text, ProcessStatus& status) {
    const auto nameEnd = text.rfind(") ");
    if (nameEnd == std::string_view::npos) return false;
    const auto words = text.substr(nameEnd + 2);
    return parseNumber(word(words, 1), status.parentPid) &&
           parseNumber(word(words, 19), status.startTime);
}

Executable lookAtExecutable(const FileDescriptor& process, const std::string& link) {
    Executable result{link, std::nullopt};
    struct stat running {};
    anyProgramLink(process, [&](const std::string& name) {
        const bool isSeen = ::fstatat(process.get(), name.c_str(), &running, 0) == 0;
        if (isSeen) result.owner = running.st_uid;
        return isSeen;
    });
    if (!link.ends_with(removedMark)) return result;
    // A file may as well be called so.
    struct stat named {};
    const bool isNamedSo =
        result.owner && ::stat(link.c_str(), &named) == 0 && isSameFile(running, named);
    if (!isNamedSo) result.path.resize(link.size() - removedMark.size());
    return result;
}

std::string readProcessFile(const FileDescriptor& process, const char* name) {
    const FileDescriptor file(::openat(process.get(), name, O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> text{};
    const auto length = file ? ::read(file.get(), text.data(), text.size()) : 0;
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : std::string();
}

}  // namespace platform
