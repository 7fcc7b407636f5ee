#include "Platform/Linux/Steering/Farewells.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace platform::steering {

namespace {

constexpr std::chrono::milliseconds betweenDeliveryLooks{5};
// As long as a copy is kept, the application's own closing does not reach the kernel.
constexpr std::chrono::seconds longestDelivery{1};

// Whether the peer has all that was sent, or never will.
bool isDelivered(const FileDescriptor& socket) {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (::getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return true;
    return info.tcpi_state != TCP_FIN_WAIT1 && info.tcpi_state != TCP_LAST_ACK &&
           info.tcpi_state != TCP_CLOSING;
}

void reset(const FileDescriptor& socket) {
    sockaddr nothing{};
    nothing.sa_family = AF_UNSPEC;
    // One that has ended by itself needs no reset.
    static_cast<void>(::connect(socket.get(), &nothing, sizeof nothing));
}

// Of a link below /proc that leads to a socket.
std::optional<std::uint32_t> socketInode(const std::filesystem::path& descriptor) {
    constexpr std::string_view prefix = "socket:[";
    std::error_code error;
    const std::string target = std::filesystem::read_symlink(descriptor, error);
    std::uint32_t inode = 0;
    if (error || !target.starts_with(prefix)) return std::nullopt;
    std::from_chars(target.data() + prefix.size(), target.data() + target.size(), inode);
    return inode;
}

// A copy of the application's descriptor; empty if it has put another file there meanwhile.
FileDescriptor copyOf(const FileDescriptor& process, int descriptor, const SocketFacts& socket) {
    FileDescriptor copy(static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), descriptor, 0)));
    std::uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    const bool isIt = copy &&
                      ::getsockopt(copy.get(), SOL_SOCKET, SO_COOKIE, &cookie, &length) == 0 &&
                      cookie == socket.cookie;
    return isIt ? std::move(copy) : FileDescriptor();
}

}  // namespace

Farewells::Farewells() : thread([this] { serve(); }) {}

void Farewells::cutShort() {
    if (!thread.joinable()) return;
    {
        const MutexGuard guard(lock);
        isEnding = true;
        changed.notifyAll();
    }
    thread.join();
    const MutexGuard guard(lock);
    for (const auto& farewell : waiting) diagnosis.destroy(farewell.flow, farewell.cookie);
    for (const auto& socket : undelivered) reset(socket);
    waiting.clear();
    undelivered.clear();
}

void Farewells::say(const FlowTuple& flow, std::uint64_t cookie) {
    const MutexGuard guard(lock);
    if (isEnding) return;
    waiting.push_back({flow, cookie});
    changed.notifyAll();
}

void Farewells::await(std::chrono::milliseconds longest) {
    const auto deadline = Condition::Clock::now() + longest;
    for (;;) {
        {
            const MutexGuard guard(lock);
            std::erase_if(undelivered, isDelivered);
            if (waiting.empty() && !isBusy && undelivered.empty()) return;
        }
        if (Condition::Clock::now() >= deadline) return;
        std::this_thread::sleep_for(betweenDeliveryLooks);
    }
}

void Farewells::serve() {
    for (;;) {
        std::vector<Farewell> present;
        {
            const MutexGuard guard(lock);
            isBusy = false;
            awaitWork();
            if (isEnding) return;
            present.swap(waiting);
            isBusy = true;
        }
        endAll(present);
    }
}

void Farewells::awaitWork() {
    while (waiting.empty() && !isEnding) {
        if (undelivered.empty())
            changed.wait(lock);
        else if (!changed.waitUntil(lock, Condition::Clock::now() + longestDelivery))
            undelivered.clear();
    }
}

// To find the holder of one socket may take a search through all processes; the others that the same process
// holds are found with it.
void Farewells::endAll(const std::vector<Farewell>& present) {
    std::unordered_map<std::uint32_t, Ending> byInode;
    for (const Farewell& farewell : present) {
        const auto socket = diagnosis.find(farewell.flow);
        if (socket && socket->cookie == farewell.cookie)
            byInode.insert_or_assign(socket->inode, Ending{farewell, *socket});
    }
    while (!byInode.empty()) {
        const auto [inode, first] = *byInode.begin();
        const auto holder = hasToHurry() ? std::nullopt : holders.find(inode, first.socket.uid);
        if (holder) endThoseOf(holder->pid, byInode);
        // One that could not be had with its holder.
        if (byInode.erase(inode) != 0)
            diagnosis.destroy(first.farewell.flow, first.farewell.cookie);
    }
}

bool Farewells::hasToHurry() {
    const MutexGuard guard(lock);
    return isEnding;
}

void Farewells::endThoseOf(pid_t pid, std::unordered_map<std::uint32_t, Ending>& byInode) {
    const FileDescriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!process) return;
    std::error_code error;
    const std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(pid) + "/fd",
                                                          error);
    for (auto entry = begin(descriptors); !error && entry != end(descriptors);
         entry.increment(error)) {
        const auto inode = socketInode(entry->path());
        const auto found = inode ? byInode.find(*inode) : byInode.end();
        if (found == byInode.end()) continue;
        auto copy = copyOf(process, std::stoi(entry->path().filename()), found->second.socket);
        if (!copy || ::shutdown(copy.get(), SHUT_RDWR) != 0) continue;
        keepUndelivered(std::move(copy));
        byInode.erase(found);
    }
}

void Farewells::keepUndelivered(FileDescriptor socket) {
    const MutexGuard guard(lock);
    std::erase_if(undelivered, isDelivered);
    if (!isDelivered(socket)) undelivered.push_back(std::move(socket));
}

}  // namespace platform::steering
