#include "Platform/Linux/Attribution/SocketHolders.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/kcmp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>
#include <unordered_set>

#include "Platform/Linux/Attribution/ProcessStatus.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t openerLimit = 256;
constexpr std::size_t openerLimitOfAccount = 64;
constexpr std::size_t latestOpeners = 8;
constexpr pid_t youngestProcesses = 16;
constexpr auto youth = 1s;
constexpr int firstOwnDescriptor = 3;  // behind the standard streams
constexpr int lastLowDescriptor = 12;

// The inode of the socket that the descriptor `name` below the folder is; none for other files.
std::optional<std::uint32_t> socketAt(int folder, const char* name) {
    constexpr std::string_view prefix = "socket:[";
    std::array<char, 32> target;
    const auto length = ::readlinkat(folder, name, target.data(), target.size());
    const std::string_view text(target.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    if (!text.starts_with(prefix)) return std::nullopt;
    std::uint32_t inode = 0;
    const auto parsed =
        std::from_chars(text.data() + prefix.size(), text.data() + text.size(), inode);
    return parsed.ec == std::errc{} ? std::optional(inode) : std::nullopt;
}

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

using Sightings = RecentMemory<std::uint32_t, SocketHolder>;

// The socket's descriptor in the table below `folderPath`. The table is read to its end, and what else it
// shows is remembered: of many sockets of one process each would otherwise cost a look at all of them.
std::optional<int> descriptorIn(const char* folderPath, pid_t pid, std::uint32_t inode,
                                Sightings& sightings) {
    std::optional<int> found;
    anyNumberIn(folderPath, [&](int number, int folder, const char* name) {
        const auto present = socketAt(folder, name);
        if (present == inode) found = number;
        if (present && present != inode) sightings.remember(*present, {pid, number});
        return false;
    });
    return found;
}

std::optional<SocketHolder> searchProcess(pid_t pid, std::uint32_t inode, Sightings& sightings) {
    Path path;
    std::snprintf(path.data(), path.size(), "/proc/%d/fd", pid);
    const auto descriptor = descriptorIn(path.data(), pid, inode, sightings);
    return descriptor ? std::optional(SocketHolder{pid, *descriptor}) : std::nullopt;
}

std::optional<SocketHolder> searchAt(pid_t pid, int descriptor, std::uint32_t inode) {
    const SocketHolder candidate{pid, descriptor};
    const bool isThere = socketAt(AT_FDCWD, descriptorPath(candidate).data()) == inode;
    return isThere ? std::optional(candidate) : std::nullopt;
}

// A new descriptor often takes the place of the one before, or the next.
std::optional<SocketHolder> searchNearLatest(const SocketOpener& opener, std::uint32_t inode) {
    for (const int distance : {0, 1, 2, -1}) {
        const int descriptor = opener.descriptors[0] + distance;
        if (const auto holder = searchAt(opener.pid, descriptor, inode)) return holder;
    }
    return std::nullopt;
}

// Or the place of an earlier one: the lowest that is free.
std::optional<SocketHolder> searchKnown(const SocketOpener& opener, std::uint32_t inode) {
    for (std::size_t index = 1; index < opener.count; ++index) {
        const int descriptor = opener.descriptors[index];
        if (const auto holder = searchAt(opener.pid, descriptor, inode)) return holder;
    }
    return std::nullopt;
}

// A program that has just started has its sockets at low descriptors. Listing all of them would
// make the kernel build an inode for each.
std::optional<SocketHolder> searchLow(pid_t pid, std::uint32_t inode) {
    for (int descriptor = firstOwnDescriptor; descriptor <= lastLowDescriptor; ++descriptor) {
        if (const auto holder = searchAt(pid, descriptor, inode)) return holder;
    }
    return std::nullopt;
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
std::optional<SocketHolder> searchSeparateThreads(pid_t pid, std::uint32_t inode,
                                                  Sightings& sightings) {
    std::optional<SocketHolder> found;
    Path tasks;
    std::snprintf(tasks.data(), tasks.size(), "/proc/%d/task", pid);
    anyNumberIn(tasks.data(), [&](int thread, int, const char*) {
        if (thread == pid) return false;
        if (::syscall(SYS_kcmp, pid, thread, KCMP_FILES, 0, 0) == 0) return false;
        Path path;
        std::snprintf(path.data(), path.size(), "/proc/%d/task/%d/fd", pid, thread);
        if (const auto descriptor = descriptorIn(path.data(), pid, inode, sightings))
            found = {pid, *descriptor};
        return found.has_value();
    });
    return found;
}

// Whole tables, none of them twice.
class TableSearch {
public:
    TableSearch(std::uint32_t wanted, uid_t account, Sightings& others)
        : inode(wanted), uid(account), sightings(others) {}

    std::optional<SocketHolder> among(std::span<const pid_t> pids) {
        for (const auto pid : pids) {
            if (accountOf(pid) != uid) continue;
            if (const auto holder = look(pid)) return holder;
        }
        return std::nullopt;
    }

    std::optional<SocketHolder> amongAll() {
        const auto pids = processesByAge(latestPid());
        if (const auto holder = among(pids)) return holder;
        for (const auto pid : pids) {
            if (const auto holder = look(pid)) return holder;
        }
        for (const auto pid : pids) {
            if (const auto holder = searchSeparateThreads(pid, inode, sightings)) return holder;
        }
        return std::nullopt;
    }

private:
    std::optional<SocketHolder> look(pid_t pid) {
        return seen.insert(pid).second ? searchProcess(pid, inode, sightings) : std::nullopt;
    }

    std::uint32_t inode;
    uid_t uid;
    Sightings& sightings;
    std::unordered_set<pid_t> seen;
};

// The first answer that `search` gives for one of the items.
template <class Items, class Search>
std::optional<SocketHolder> firstOf(const Items& items, Search&& search) {
    for (const auto& item : items) {
        if (const auto holder = search(item)) return holder;
    }
    return std::nullopt;
}

std::vector<pid_t> pidsOf(std::span<const SocketOpener> openers) {
    std::vector<pid_t> pids;
    for (const auto& opener : openers) pids.push_back(opener.pid);
    return pids;
}

}  // namespace

bool holdsSocket(const SocketHolder& holder, std::uint32_t inode) {
    return searchAt(holder.pid, holder.descriptor, inode).has_value();
}

void SocketOpener::addDescriptor(int descriptor) {
    auto place = std::find(descriptors.begin(), descriptors.begin() + count, descriptor);
    if (place == descriptors.end()) --place;
    if (place == descriptors.begin() + count) ++count;
    *place = descriptor;
    std::rotate(descriptors.begin(), place, place + 1);
}

std::optional<SocketHolder> SocketHolders::find(std::uint32_t inode, uid_t uid) {
    if (const auto seen = sightings.find(inode); seen && holdsSocket(*seen, inode)) {
        remember(uid, *seen);
        return seen;
    }
    const auto known = openersOf(uid);
    const auto latest = std::span(known).first(std::min(known.size(), latestOpeners));
    const auto nearLatest = [&](const auto& opener) { return searchNearLatest(opener, inode); };
    const auto atKnown = [&](const auto& opener) { return searchKnown(opener, inode); };
    const auto low = [&](pid_t pid) { return searchLow(pid, inode); };

    auto holder = firstOf(latest, nearLatest);
    std::vector<pid_t> young;
    if (!holder) young = youngProcessesOf(uid);
    if (!holder) holder = firstOf(young, low);
    if (!holder) holder = firstOf(latest, atKnown);
    if (!holder) holder = firstOf(std::span(known).subspan(latest.size()), nearLatest);
    TableSearch tables(inode, uid, sightings);
    if (!holder) holder = tables.among(young);
    if (!holder) holder = tables.among(pidsOf(known));
    if (!holder) holder = tables.amongAll();
    if (holder) remember(uid, *holder);
    return holder;
}

std::vector<SocketOpener> SocketHolders::openersOf(uid_t uid) {
    std::vector<SocketOpener> result;
    const MutexGuard guard(lock);
    for (const auto& opener : openers) {
        if (opener.uid == uid && result.size() < openerLimitOfAccount) result.push_back(opener);
    }
    return result;
}

void SocketHolders::remember(uid_t uid, const SocketHolder& holder) {
    const MutexGuard guard(lock);
    auto place = std::find_if(openers.begin(), openers.end(), [&](const SocketOpener& opener) {
        return opener.pid == holder.pid && opener.uid == uid;
    });
    if (place == openers.end()) {
        if (openers.size() >= openerLimit) openers.pop_back();
        place = openers.insert(openers.end(), SocketOpener{.pid = holder.pid, .uid = uid});
    }
    place->addDescriptor(holder.descriptor);
    std::rotate(openers.begin(), place, place + 1);
}

std::vector<pid_t> SocketHolders::youngProcessesOf(uid_t uid) {
    std::vector<pid_t> pids;
    const auto latest = latestPid();
    for (pid_t pid = latest; pid > 0 && pid > latest - youngestProcesses; --pid) {
        if (accountOf(pid) == uid && isYoung(pid) && isProcess(pid)) pids.push_back(pid);
    }
    return pids;
}

bool SocketHolders::isYoung(pid_t pid) {
    const auto now = Clock::now();
    const auto seen = firstSeen.find(pid);
    if (!seen) firstSeen.remember(pid, now);
    return !seen || now - *seen <= youth;
}

}  // namespace platform
