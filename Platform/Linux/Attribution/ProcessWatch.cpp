#include "Platform/Linux/Attribution/ProcessWatch.h"

#include <fcntl.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Platform/Linux/Attribution/ProcessStatus.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"

namespace platform {

namespace {

using namespace std::chrono_literals;

constexpr int highestPriority = -20;
// Far more than looking at some programs takes.
constexpr auto longestWaitForOthers = 100ms;
// While one look hangs, the oldest of so many others are done without.
constexpr std::size_t mostStarted = 4096;

// The events are told in the machine's first network namespace only, which need not be ours. A
// socket stays in the namespace where it was made, a thread where it went. Where we may not go
// there, we are there already, or asking for the events will fail.
FileDescriptor socketInFirstNetwork() {
    FileDescriptor socket;
    std::thread([&] {
        const FileDescriptor first(::open("/proc/1/ns/net", O_RDONLY | O_CLOEXEC));
        ::setns(first.get(), CLONE_NEWNET);
        socket = FileDescriptor(
            ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR));
    }).join();
    return socket;
}

bool ask(const FileDescriptor& socket, proc_cn_mcast_op operation) {
    constexpr std::size_t size = sizeof(nlmsghdr) + sizeof(cn_msg) + sizeof operation;
    char request[size] = {};
    nlmsghdr header{};
    header.nlmsg_len = size;
    header.nlmsg_type = NLMSG_DONE;
    std::memcpy(request, &header, sizeof header);
    const cb_id id{CN_IDX_PROC, CN_VAL_PROC};
    std::memcpy(request + sizeof header + offsetof(cn_msg, id), &id, sizeof id);
    const std::uint16_t length = sizeof operation;
    std::memcpy(request + sizeof header + offsetof(cn_msg, len), &length, sizeof length);
    std::memcpy(request + sizeof header + sizeof(cn_msg), &operation, sizeof operation);
    return ::send(socket.get(), request, size, 0) == static_cast<ssize_t>(size);
}

bool listen(const FileDescriptor& socket) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    return ::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
           ask(socket, PROC_CN_MCAST_LISTEN);
}

}  // namespace

std::unique_ptr<ProcessWatch> ProcessWatch::start(ProcessTable& processes) {
    if (!isFirstProcessNamespace()) return nullptr;
    auto socket = socketInFirstNetwork();
    if (!socket || !listen(socket)) return nullptr;
    return std::unique_ptr<ProcessWatch>(new ProcessWatch(processes, std::move(socket)));
}

ProcessWatch::ProcessWatch(ProcessTable& toTell, FileDescriptor listening)
    : processes(toTell),
      events(std::move(listening)),
      wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread([this](const std::stop_token& stop) { run(stop); }) {}

ProcessWatch::~ProcessWatch() {
    thread.request_stop();
    ::eventfd_write(wakeUp.get(), 1);
    thread.join();
    // Older kernels go on making events for a listener that has just closed its socket.
    ask(events, PROC_CN_MCAST_IGNORE);
}

void ProcessWatch::run(const std::stop_token& stop) {
    // A program may live for a few milliseconds only.
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), highestPriority);
    pollfd watched[] = {{events.get(), POLLIN, 0}, {wakeUp.get(), POLLIN, 0}};
    while (!stop.stop_requested() && (::poll(watched, 2, -1) >= 0 || errno == EINTR)) {
        eventfd_t ignored = 0;
        ::eventfd_read(wakeUp.get(), &ignored);
        examineStarted();
    }
}

void ProcessWatch::examineStarted() {
    MutexGuard hold(lock);
    for (takeInEvents(); !started.empty(); takeInEvents()) {
        const pid_t pid = started.front();
        started.pop_front();
        isExamining = true;
        hold.unlock();
        const auto account = accountOf(pid);
        if (account && !isSystemAccount(*account)) processes.examine(pid);
        hold.lock();
        isExamining = false;
    }
    allExamined.notifyAll();
}

void ProcessWatch::catchUp() {
    MutexGuard hold(lock);
    takeInEvents();
    if (!started.empty()) ::eventfd_write(wakeUp.get(), 1);
    const auto deadline = Condition::Clock::now() + longestWaitForOthers;
    while ((!started.empty() || isExamining) && allExamined.waitUntil(lock, deadline)) {
    }
}

void ProcessWatch::takeInEvents() {
    char message[1024];
    while (true) {
        const auto length = ::recv(events.get(), message, sizeof message, 0);
        // When there were more events than room, the lost ones are done without.
        if (length < 0 && errno == ENOBUFS) continue;
        if (length <= 0) return;
        takeIn(message, static_cast<std::size_t>(length));
    }
}

void ProcessWatch::takeIn(const char* message, std::size_t length) {
    constexpr std::size_t start = sizeof(nlmsghdr) + sizeof(cn_msg);
    proc_event event{};
    if (length < start + offsetof(proc_event, event_data)) return;
    std::memcpy(&event, message + start, std::min(length - start, sizeof event));
    const ProcessTable::Clock::time_point when{std::chrono::nanoseconds(event.timestamp_ns)};
    // The kernel's headers have moved the enumeration out of the structure.
    using Kind = decltype(proc_event::what);
    if (event.what == Kind::PROC_EVENT_FORK) {
        const auto& fork = event.event_data.fork;
        const bool isThread = fork.child_pid != fork.child_tgid;
        if (!isThread) processes.noteFork(fork.child_tgid, fork.parent_tgid, when);
    } else if (event.what == Kind::PROC_EVENT_EXEC) {
        processes.noteExec(event.event_data.exec.process_tgid, when);
        if (started.size() == mostStarted) started.pop_front();
        started.push_back(event.event_data.exec.process_tgid);
    }
}

}  // namespace platform
