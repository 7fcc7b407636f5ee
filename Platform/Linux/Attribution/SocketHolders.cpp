#include "Platform/Linux/Attribution/SocketHolders.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/kcmp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

#include "Platform/Linux/FileDescriptor.h"

namespace platform {

namespace {

constexpr std::size_t recentLimit = 32;
constexpr std::size_t recentLimitOfAccount = 4;
constexpr int nearbyDescriptors = 4;
constexpr pid_t youngProcesses = 16;

// The text of a descriptor's link to the socket.
class SocketLink {
public:
    explicit SocketLink(std::uint32_t inode) : text("socket:[" + std::to_string(inode) + "]") {}

    // True if `name` below the folder is a link to the socket.
    bool isAt(int folder, const char* name) const {
        std::array<char, 32> target;
        const auto length = ::readlinkat(folder, name, target.data(), target.size());
        return length > 0 &&
               text == std::string_view(target.data(), static_cast<std::size_t>(length));
    }

private:
    std::string text;
};

using Path = std::array<char, 64>;

Path descriptorPath(const SocketHolder& holder) {
    Path path;
    std::snprintf(path.data(), path.size(), "/proc/%d/fd/%d", holder.pid, holder.descriptor);
    return path;
}

// Calls `visit` with every number that names an entry of the folder, until it returns true.
template <class Visit>
bool anyNumberIn(const char* folderPath, Visit&& visit) {
    struct Close {
        void operator()(DIR* folder) const { ::closedir(folder); }
    };
    const std::unique_ptr<DIR, Close> folder(::opendir(folderPath));
    if (!folder) return false;
    while (const auto* entry = ::readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        int number = 0;
        const auto parsed = std::from_chars(name.data(), name.data() + name.size(), number);
        if (parsed.ec != std::errc{} || parsed.ptr != name.data() + name.size()) continue;
        if (visit(number, ::dirfd(folder.get()), entry->d_name)) return true;
    }
    return false;
}

// The socket's descriptor in the table below `folderPath`.
std::optional<int> descriptorIn(const char* folderPath, const SocketLink& socket) {
    std::optional<int> found;
    anyNumberIn(folderPath, [&](int number, int folder, const char* name) {
        if (socket.isAt(folder, name)) found = number;
        return found.has_value();
    });
    return found;
}

std::optional<SocketHolder> searchProcess(pid_t pid, const SocketLink& socket) {
    Path path;
    std::snprintf(path.data(), path.size(), "/proc/%d/fd", pid);
    const auto descriptor = descriptorIn(path.data(), socket);
    return descriptor ? std::optional(SocketHolder{pid, *descriptor}) : std::nullopt;
}

// A new descriptor mostly lies close to the one before.
std::optional<SocketHolder> searchNearby(const SocketHolder& known, const SocketLink& socket) {
    for (int distance = 0; distance <= nearbyDescriptors; ++distance) {
        for (const int descriptor : {known.descriptor + distance, known.descriptor - distance}) {
            const SocketHolder candidate{known.pid, descriptor};
            if (socket.isAt(AT_FDCWD, descriptorPath(candidate).data())) return candidate;
        }
    }
    return std::nullopt;
}

// The account that a process runs under; none if there is no such process.
std::optional<uid_t> accountOf(pid_t pid) {
    Path path;
    std::snprintf(path.data(), path.size(), "/proc/%d", pid);
    struct stat status {};
    if (::stat(path.data(), &status) != 0) return std::nullopt;
    return status.st_uid;
}

// /proc answers for threads under their own numbers too.
bool isProcess(pid_t pid) {
    return static_cast<bool>(FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))));
}

// The process id that was given out last.
pid_t latestPid() {
    const FileDescriptor file(::open("/proc/loadavg", O_RDONLY | O_CLOEXEC));
    std::array<char, 128> buffer{};
    const auto length = ::read(file.get(), buffer.data(), buffer.size());
    std::string_view text(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    text.remove_prefix(std::min(text.rfind(' ') + 1, text.size()));
    pid_t pid = 0;
    std::from_chars(text.data(), text.data() + text.size(), pid);
    return pid;
}

// Every process, the youngest first: process ids are given out upwards and start over at the end.
std::vector<pid_t> processesByAge(pid_t latest) {
    std::vector<pid_t> pids;
    anyNumberIn("/proc", [&](int pid, int, const char*) {
        pids.push_back(pid);
        return false;
    });
    std::sort(pids.begin(), pids.end(), [latest](pid_t left, pid_t right) {
        const bool leftIsOlder = left > latest;
        const bool rightIsOlder = right > latest;
        return leftIsOlder != rightIsOlder ? rightIsOlder : left > right;
    });
    return pids;
}

// Threads that have left their process's descriptor table.
std::optional<SocketHolder> searchSeparateThreads(pid_t pid, const SocketLink& socket) {
    std::optional<SocketHolder> found;
    Path tasks;
    std::snprintf(tasks.data(), tasks.size(), "/proc/%d/task", pid);
    anyNumberIn(tasks.data(), [&](int thread, int, const char*) {
        if (thread == pid) return false;
        if (::syscall(SYS_kcmp, pid, thread, KCMP_FILES, 0, 0) == 0) return false;
        Path path;
        std::snprintf(path.data(), path.size(), "/proc/%d/task/%d/fd", pid, thread);
        if (const auto descriptor = descriptorIn(path.data(), socket)) found = {pid, *descriptor};
        return found.has_value();
    });
    return found;
}

// One search for one socket; it looks into no process twice.
class OneSearch {
public:
    OneSearch(std::uint32_t inode, uid_t account) : socket(inode), uid(account) {}

    std::optional<SocketHolder> amongRecent(const std::vector<SocketHolder>& recent) {
        for (const auto& known : recent) {
            if (const auto holder = searchNearby(known, socket)) return holder;
        }
        return std::nullopt;
    }

    std::optional<SocketHolder> amongYoung() {
        latest = latestPid();
        for (pid_t pid = latest; pid > 0 && pid > latest - youngProcesses; --pid) {
            if (accountOf(pid) != uid || !isProcess(pid)) continue;
            if (const auto holder = look(pid)) return holder;
        }
        return std::nullopt;
    }

    std::optional<SocketHolder> throughoutRecent(const std::vector<SocketHolder>& recent) {
        for (const auto& known : recent) {
            if (accountOf(known.pid) != uid) continue;
            if (const auto holder = look(known.pid)) return holder;
        }
        return std::nullopt;
    }

    std::optional<SocketHolder> amongAll() {
        const auto pids = processesByAge(latest);
        for (const auto pid : pids) {
            if (accountOf(pid) != uid) continue;
            if (const auto holder = look(pid)) return holder;
        }
        for (const auto pid : pids) {
            if (const auto holder = look(pid)) return holder;
        }
        for (const auto pid : pids) {
            if (const auto holder = searchSeparateThreads(pid, socket)) return holder;
        }
        return std::nullopt;
    }

private:
    std::optional<SocketHolder> look(pid_t pid) {
        return seen.insert(pid).second ? searchProcess(pid, socket) : std::nullopt;
    }

    SocketLink socket;
    uid_t uid;
    pid_t latest = 0;
    std::unordered_set<pid_t> seen;
};

}  // namespace

bool holdsSocket(const SocketHolder& holder, std::uint32_t inode) {
    return SocketLink(inode).isAt(AT_FDCWD, descriptorPath(holder).data());
}

std::optional<SocketHolder> SocketHolders::find(std::uint32_t inode, uid_t uid) {
    OneSearch search(inode, uid);
    const auto known = recentOf(uid);
    auto holder = search.amongRecent(known);
    if (!holder) holder = search.amongYoung();
    if (!holder) holder = search.throughoutRecent(known);
    if (!holder) holder = search.amongAll();
    if (!holder) return std::nullopt;
    remember(uid, *holder);
    return holder;
}

std::vector<SocketHolder> SocketHolders::recentOf(uid_t uid) {
    std::vector<SocketHolder> holders;
    const std::lock_guard guard(lock);
    for (const auto& each : recent) {
        if (each.uid == uid && holders.size() < recentLimitOfAccount)
            holders.push_back(each.holder);
    }
    return holders;
}

void SocketHolders::remember(uid_t uid, const SocketHolder& holder) {
    const std::lock_guard guard(lock);
    std::erase_if(recent, [&](const Recent& each) { return each.holder.pid == holder.pid; });
    if (recent.size() >= recentLimit) recent.pop_back();
    recent.insert(recent.begin(), Recent{uid, holder});
}

}  // namespace platform
