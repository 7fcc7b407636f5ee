// Who is found to own the flows of real processes.

#include "Platform/Linux/Attribution/FlowOwner.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include "Platform/LibProc.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/Attribution/ProcessWatch.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"
#include "Tests/Platform/Linux/Attribution/RealPrograms.h"

namespace platform {
namespace {

using testing::RunningProgram;
using testing::TemporaryFolder;

constexpr uid_t person = 4321;

// The tests' owners of flows run under a person's account.
void becomePerson() {
    if (::geteuid() != 0) return;
    if (::setgroups(0, nullptr) != 0 || ::setgid(person) != 0 || ::setuid(person) != 0) {
        ::_exit(126);
    }
}

// Room that a child shares with the test that forked it, for as long as the test's process.
struct Shared {
    std::atomic<int> value{0};
    std::atomic<int> second{0};
};

struct Address {
    sockaddr_storage storage{};
    socklen_t length = sizeof(sockaddr_storage);
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    std::uint16_t port() const {
        // Both families keep the port at the same place.
        sockaddr_in internet{};
        std::memcpy(&internet, &storage, sizeof internet);
        return ntohs(internet.sin_port);
    }
};

Address addressOf(int family, const char* text, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (::getaddrinfo(text, std::to_string(port).c_str(), &hints, &found) != 0) ::abort();
    Address address;
    address.length = found->ai_addrlen;
    std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    ::freeaddrinfo(found);
    return address;
}

std::uint16_t localPort(int socket) {
    Address address;
    ::getsockname(socket, address.get(), &address.length);
    return address.port();
}

FlowTuple loopbackFlow(int protocol, int family, std::uint16_t source, std::uint16_t destination) {
    FlowTuple flow;
    flow.protocol = protocol;
    flow.family = family;
    const char* loopback = family == AF_INET ? "127.0.0.1" : "::1";
    ::inet_pton(family, loopback, flow.sourceAddress.data());
    ::inet_pton(family, loopback, flow.destinationAddress.data());
    flow.sourcePort = source;
    flow.destinationPort = destination;
    flow.outputInterface = ::if_nametoindex("lo");
    return flow;
}

// A local port to send to, on both families; it never answers.
class Destination {
public:
    Destination() {
        for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
            const int socket = ::socket(AF_INET6, type | SOCK_CLOEXEC, 0);
            auto address = addressOf(AF_INET6, "::", port);
            if (::bind(socket, address.get(), address.length) != 0) ::abort();
            if (type == SOCK_STREAM) ::listen(socket, 1024);
            if (port == 0) port = localPort(socket);
            sockets.push_back(socket);
        }
    }
    ~Destination() {
        for (const int socket : sockets) ::close(socket);
    }
    // Waits for a datagram and says from which port it came.
    std::uint16_t senderOfNextDatagram() const {
        Address from;
        char byte = 0;
        ::recvfrom(sockets.back(), &byte, 1, 0, from.get(), &from.length);
        return from.port();
    }

    std::uint16_t port = 0;

private:
    std::vector<int> sockets;
};

// How a socket is opened.
struct Opening {
    int family;
    int type;
    const char* to;
    bool hasPeer = true;
    bool isBoundToDevice = false;
};
constexpr Opening stream{AF_INET, SOCK_STREAM, "127.0.0.1"};
constexpr Opening datagram{AF_INET, SOCK_DGRAM, "127.0.0.1"};

int opened(const Opening& how, std::uint16_t port) {
    const int socket = ::socket(how.family, how.type, 0);
    if (how.isBoundToDevice) ::setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, "lo", 2);
    auto address = addressOf(how.family, how.to, port);
    if (how.hasPeer) {
        // Nobody may listen there: that the socket names its peer is what counts.
        static_cast<void>(::connect(socket, address.get(), address.length));
    } else {
        ::sendto(socket, "x", 1, 0, address.get(), address.length);
    }
    return socket;
}

void sayReady(int descriptor) {
    const auto text = "ready " + std::to_string(::getpid()) + "\n";
    if (::write(descriptor, text.data(), text.size()) < 0) ::_exit(125);
}

[[noreturn]] void waitForEnd() {
    while (true) ::pause();
}

// With and without the kernel's notes: everything is found both ways.
class FlowOwners : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (GetParam() && !hasNotes) GTEST_SKIP() << "the kernel takes no notes for us here";
        if (::geteuid() != 0 && isSystemAccount(::geteuid())) {
            GTEST_SKIP() << "the tests run under a system account";
        }
        if (const auto reason = testing::reasonForNoOrdinaryPrograms(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }

    // The process id of the flow's owner, 0 for a system account, -1 for nobody.
    pid_t ownerPid(const FlowTuple& flow) {
        const auto owner = attribution->ownerOf(flow);
        return owner ? owner->pid : -1;
    }

    FlowTuple tcp(int source) const {
        return loopbackFlow(IPPROTO_TCP, AF_INET, static_cast<std::uint16_t>(source),
                            destination.port);
    }
    FlowTuple udp(int source) const {
        return loopbackFlow(IPPROTO_UDP, AF_INET, static_cast<std::uint16_t>(source),
                            destination.port);
    }

    // A person's process that opens a socket and stays; the local port is in `shared->value`.
    std::unique_ptr<RunningProgram> holderOf(const Opening& how) {
        return std::make_unique<RunningProgram>([&](int ready) {
            becomePerson();
            shared->value = localPort(opened(how, destination.port));
            sayReady(ready);
            waitForEnd();
        });
    }

    Destination destination;
    std::unique_ptr<SocketUsers> notes = GetParam() ? SocketUsers::attach() : nullptr;
    const bool hasNotes = notes != nullptr;
    std::optional<FlowAttribution> attribution{std::in_place, std::move(notes)};
    Shared* const shared = new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
};

INSTANTIATE_TEST_SUITE_P(Owners, FlowOwners, ::testing::Bool(), [](const auto& mode) {
    return std::string(mode.param ? "WithNotes" : "Searching");
});

TEST_P(FlowOwners, EveryKindOfSocketIsFound) {
    constexpr bool withoutPeer = false;
    const struct {
        const char* what;
        int packetFamily;
        Opening how;
    } cases[] = {
        {"TCP", AF_INET, stream},
        {"TCP over IPv6", AF_INET6, {AF_INET6, SOCK_STREAM, "::1"}},
        {"TCP, IPv4 on an IPv6 socket", AF_INET, {AF_INET6, SOCK_STREAM, "::ffff:127.0.0.1"}},
        {"UDP", AF_INET, datagram},
        {"UDP over IPv6", AF_INET6, {AF_INET6, SOCK_DGRAM, "::1"}},
        {"UDP without a peer", AF_INET, {AF_INET, SOCK_DGRAM, "127.0.0.1", withoutPeer}},
        {"UDP over IPv6 without a peer", AF_INET6, {AF_INET6, SOCK_DGRAM, "::1", withoutPeer}},
        {"UDP without a peer, IPv4 on an IPv6 socket",
         AF_INET,
         {AF_INET6, SOCK_DGRAM, "::ffff:127.0.0.1", withoutPeer}},
        {"TCP bound to a device", AF_INET, {AF_INET, SOCK_STREAM, "127.0.0.1", true, true}},
        {"UDP bound to a device", AF_INET, {AF_INET, SOCK_DGRAM, "127.0.0.1", withoutPeer, true}},
    };
    for (const auto& [what, packetFamily, how] : cases) {
        const auto program = holderOf(how);
        const auto owner = attribution->ownerOf(
            loopbackFlow(how.type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP, packetFamily,
                         static_cast<std::uint16_t>(shared->value), destination.port));
        ASSERT_TRUE(owner) << what;
        EXPECT_EQ(owner->pid, program->pid()) << what;
        EXPECT_EQ(owner->uid, ::geteuid() == 0 ? person : ::geteuid()) << what;
        EXPECT_EQ(owner->isBoundToDevice, how.isBoundToDevice) << what;
        EXPECT_NE(owner->socketCookie, 0U) << what;
        const auto process = ProcessTable::shared().examine(program->pid());
        ASSERT_TRUE(process) << what;
        EXPECT_EQ(owner->auditToken, process->auditToken()) << what;
        EXPECT_EQ(owner->signingIdentifier, process->signingIdentifier) << what;
    }
}

TEST_P(FlowOwners, NobodyIsNamedForSystemAccountsAndUnknownSockets) {
    EXPECT_EQ(ownerPid(tcp(1)), -1);
    EXPECT_EQ(ownerPid(udp(1)), -1);
    if (::geteuid() != 0) GTEST_SKIP() << "only root has a system account at hand";
    const int socket = opened(stream, destination.port);
    const auto owner = attribution->ownerOf(tcp(localPort(socket)));
    ::close(socket);
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->pid, 0);
    EXPECT_EQ(owner->auditToken, AuditToken{});
    EXPECT_EQ(owner->signingIdentifier, "");
}

TEST_P(FlowOwners, ASharedSocketIsItsParentsUntilTheParentLetsGo) {
    const RunningProgram program([&](int ready) {
        becomePerson();
        const int socket = opened(datagram, destination.port);
        shared->value = localPort(socket);
        const pid_t child = ::fork();
        if (child == 0) waitForEnd();
        const auto text = "ready " + std::to_string(child) + "\n";
        if (::write(ready, text.data(), text.size()) < 0) ::_exit(125);
        while (shared->second == 0) ::usleep(100);
        ::close(socket);
        shared->second = 2;
        waitForEnd();
    });
    const auto flow = udp(shared->value);
    EXPECT_EQ(ownerPid(flow), program.pid());
    shared->second = 1;
    while (shared->second != 2) ::usleep(100);
    // Whoever connected the socket stays its user.
    EXPECT_EQ(ownerPid(flow), hasNotes ? program.pid() : program.namedPid());
}

TEST_P(FlowOwners, ASocketPassedOnBelongsToItsReceiver) {
    int channel[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, channel), 0);
    union {
        cmsghdr header;
        char room[CMSG_SPACE(sizeof(int))];
    } control{};
    char byte = 'x';
    iovec part{&byte, 1};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = &control;
    message.msg_controllen = sizeof control;

    const RunningProgram receiver([&](int ready) {
        becomePerson();
        sayReady(ready);
        if (::recvmsg(channel[1], &message, 0) != 1) ::_exit(125);
        shared->second = 1;
        waitForEnd();
    });
    const RunningProgram sender([&](int ready) {
        becomePerson();
        const int socket = opened(stream, destination.port);
        shared->value = localPort(socket);
        sayReady(ready);
        while (shared->second == 0) ::usleep(100);
        auto* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &socket, sizeof socket);
        shared->second = 0;
        if (::sendmsg(channel[0], &message, 0) != 1) ::_exit(125);
        while (shared->second == 0) ::usleep(100);
        ::close(socket);
        shared->second = 2;
        waitForEnd();
    });
    const auto flow = tcp(shared->value);
    EXPECT_EQ(ownerPid(flow), sender.pid());
    shared->second = 1;
    while (shared->second != 2) ::usleep(100);
    EXPECT_EQ(ownerPid(flow), hasNotes ? sender.pid() : receiver.pid());
    for (const int end : channel) ::close(end);
}

TEST_P(FlowOwners, AfterAnExecItIsTheNewProgram) {
    const TemporaryFolder folder;
    folder.addBundle("First.app", "com.example.First");
    folder.addBundle("Second.app", "com.example.Second");
    const auto first = folder.addProgram("First.app/Contents/MacOS/First");
    const auto second = folder.addProgram("Second.app/Contents/MacOS/Second");
    const auto port = std::to_string(destination.port);
    const RunningProgram program(
        first,
        "exec 7<>/dev/udp/127.0.0.1/" + port + "; echo >&7; trap 'exec " + second +
            " -c \"kill -STOP \\$\\$\"' USR1; echo ready $$; while :; do sleep 0.02; done",
        becomePerson);
    ASSERT_TRUE(program.isReady());
    const auto source = destination.senderOfNextDatagram();
    const auto before = attribution->ownerOf(udp(source));
    ASSERT_TRUE(before);
    EXPECT_EQ(before->signingIdentifier, "com.example.First");
    EXPECT_EQ(before->path, first);

    ASSERT_EQ(::kill(program.pid(), SIGUSR1), 0);
    auto after = before;
    for (int attempt = 0; attempt < 5000; ++attempt) {
        after = attribution->ownerOf(udp(source));
        if (!after || after->signingIdentifier != before->signingIdentifier) break;
        ::usleep(1000);
    }
    ASSERT_TRUE(after);
    EXPECT_EQ(after->signingIdentifier, "com.example.Second");
    EXPECT_EQ(after->pid, before->pid);
    EXPECT_NE(after->auditToken, before->auditToken);
}

TEST_P(FlowOwners, ASocketAmongManyDescriptorsIsFound) {
    const RunningProgram program([&](int ready) {
        const rlimit many{4096, 4096};
        ::setrlimit(RLIMIT_NOFILE, &many);
        becomePerson();
        int copies = 0;
        while (copies < 3000 && ::dup(STDIN_FILENO) >= 0) ++copies;
        const int late = opened(stream, destination.port);
        for (int hole = 500; hole < 520; ++hole) ::close(hole);
        const int early = opened(stream, destination.port);
        shared->value = localPort(late);
        shared->second = localPort(early);
        sayReady(ready);
        waitForEnd();
    });
    ASSERT_TRUE(program.isReady());
    EXPECT_EQ(ownerPid(tcp(shared->value)), program.pid());
    EXPECT_EQ(ownerPid(tcp(shared->second)), program.pid());
}

TEST_P(FlowOwners, EveryThreadCounts) {
    // A child of a process with threads may not start any of its own under the thread sanitizer.
    attribution.reset();
    const struct {
        const char* what;
        bool hasItsOwnDescriptors;
        bool outlivesTheFirstThread;
    } cases[] = {{"a thread with descriptors of its own", true, false},
                 {"a thread that outlives the first one", false, true}};
    std::vector<std::unique_ptr<RunningProgram>> programs;
    std::vector<FlowTuple> flows;
    for (const auto& each : cases) {
        programs.push_back(std::make_unique<RunningProgram>([&](int ready) {
            becomePerson();
            const pid_t first = ::gettid();
            std::thread thread([&] {
                if (each.hasItsOwnDescriptors && ::unshare(CLONE_FILES) != 0) ::_exit(125);
                shared->value = localPort(opened(stream, destination.port));
                // A thread that has ended keeps its folder, but runs no program.
                const auto program = "/proc/self/task/" + std::to_string(first) + "/exe";
                char target[16];
                while (each.outlivesTheFirstThread &&
                       ::readlink(program.c_str(), target, sizeof target) >= 0) {
                    ::usleep(100);
                }
                sayReady(ready);
                waitForEnd();
            });
            if (each.outlivesTheFirstThread) ::syscall(SYS_exit, 0);
            thread.join();
        }));
        flows.push_back(tcp(shared->value));
    }
    attribution.emplace(hasNotes ? SocketUsers::attach() : nullptr);
    for (std::size_t index = 0; index < flows.size(); ++index) {
        EXPECT_EQ(ownerPid(flows[index]), programs[index]->pid()) << cases[index].what;
    }
}

TEST_P(FlowOwners, AProcessThatHasJustGoneIsStillNamed) {
    const auto program = holderOf({AF_INET, SOCK_DGRAM, "127.0.0.1", false});
    const auto flow = udp(shared->value);
    const auto before = attribution->ownerOf(flow);
    ASSERT_TRUE(before);
    program->end();
    const auto after = attribution->ownerOf(flow);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->auditToken, before->auditToken);
    EXPECT_EQ(after->signingIdentifier, before->signingIdentifier);
    std::array<char, 1024> path{};
    ASSERT_GT(proc_pidpath(after->pid, path.data(), path.size()), 0);
    EXPECT_EQ(before->path, path.data());
}

TEST_P(FlowOwners, ADatagramOutlivesItsSocketAndItsProcess) {
    if (!hasNotes) GTEST_SKIP() << "only the kernel's notes say it";
    const TemporaryFolder folder;
    folder.addBundle("Beacon.app", "com.example.Beacon");
    const auto beacon = folder.addProgram("Beacon.app/Contents/MacOS/Beacon");
    const auto target = "/dev/udp/127.0.0.1/" + std::to_string(destination.port);
    const auto watch = ProcessWatch::start(ProcessTable::shared());
    if (!watch) GTEST_SKIP() << "the kernel does not tell of new processes here";
    // The shell itself sends, then a child that was forked from it; both close their socket at once.
    for (const auto& send : {"echo >" + target, "(echo >" + target + "); :"}) {
        RunningProgram program(beacon, "echo ready $$; kill -STOP $$; " + send, becomePerson);
        watch->catchUp();
        program.letEnd();
        const auto owner = attribution->ownerOf(udp(destination.senderOfNextDatagram()));
        ASSERT_TRUE(owner) << send;
        EXPECT_EQ(owner->signingIdentifier, "com.example.Beacon") << send;
        EXPECT_EQ(owner->path, beacon) << send;
        std::uint32_t userId = 0;
        std::memcpy(&userId, owner->auditToken.data() + 4, sizeof userId);
        EXPECT_EQ(userId, ::geteuid() == 0 ? person : ::geteuid()) << send;
    }
}

TEST_P(FlowOwners, AReusedProcessIdIsAnotherProcess) {
    constexpr auto setting = "/proc/sys/kernel/ns_last_pid";
    if (!(std::ofstream(setting) << 20'000 << std::flush)) {
        GTEST_SKIP() << "process ids cannot be chosen here";
    }
    // The next process gets the id behind the one that is set, unless somebody is faster.
    const auto start = [&](pid_t pid) {
        std::ofstream(setting) << pid - 1;
        return holderOf(datagram);
    };
    const auto owner = [&] { return attribution->ownerOf(udp(shared->value)); };
    auto first = start(20'000);
    const auto pid = first->pid();
    const auto before = owner();
    first->end();
    // Start times count in clock ticks: only a process of a later one can be told apart.
    for (int attempt = 0; attempt < 200; ++attempt) {
        const auto second = start(pid);
        const auto after = owner();
        ASSERT_TRUE(before && after);
        EXPECT_EQ(after->pid, second->pid());
        if (second->pid() == pid && after->auditToken != before->auditToken) return;
    }
    FAIL() << "no other token for the process id " << pid;
}

TEST_P(FlowOwners, ManyThreadsMayAskAtOnce) {
    std::vector<std::unique_ptr<RunningProgram>> programs;
    std::vector<FlowTuple> flows;
    for (int index = 0; index < 6; ++index) {
        programs.push_back(holderOf(stream));
        flows.push_back(tcp(shared->value));
    }
    std::atomic<int> wrong{0};
    {
        std::vector<std::jthread> threads;
        for (std::size_t offset = 0; offset < 4; ++offset) {
            threads.emplace_back([&, offset] {
                for (std::size_t round = 0; round < 300; ++round) {
                    const auto index = (round + offset) % flows.size();
                    if (ownerPid(flows[index]) != programs[index]->pid()) ++wrong;
                }
            });
        }
    }
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace platform
