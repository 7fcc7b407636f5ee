// Who is found to own the flows of real processes.

#include "Platform/Linux/Attribution/FlowOwner.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <new>
#include <optional>
#include <thread>
#include <tuple>
#include <vector>

#include "Platform/LibProc.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"
#include "Platform/Linux/Network/SocketAddress.h"
#include "Tests/Platform/Linux/Attribution/RealPrograms.h"
#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace platform {
namespace {

using testing::RunningProgram;
using testing::TemporaryFolder;

constexpr uid_t person = 4321;

// The tests' owners of flows run under a person's account.
void becomePerson() { testing::becomePerson(person); }

// Room that a child shares with the test that forked it, for as long as the test's process.
struct Shared {
    std::atomic<int> port{0};
    std::atomic<int> otherPort{0};
    // What the processes of a test have come to.
    std::atomic<int> step{0};
    void await(int wanted) const {
        while (step != wanted) ::usleep(100);
    }
};

// A local port to send to, on both families; it never answers.
struct Destination {
    const FileDescriptor streams = listenOn("::");
    const std::uint16_t port = portOf(streams);
    const FileDescriptor datagrams = listenOn("::", port, SOCK_DGRAM);

    // Waits for a datagram and says from which port it came.
    std::uint16_t senderOfNextDatagram() const {
        SocketAddress from;
        socklen_t length = sizeof from.ipv6;
        char byte = 0;
        ::recvfrom(datagrams.get(), &byte, 1, 0, &from.any, &length);
        return ntohs(from.ipv6.sin6_port);
    }
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

FileDescriptor opened(const Opening& how, std::uint16_t port) {
    FileDescriptor socket(::socket(how.family, how.type, 0));
    if (how.isBoundToDevice) ::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, "lo", 2);
    const auto to = SocketAddress::fromNumeric(how.to, port).value();
    // No one may listen there: that the socket names its peer is what counts.
    if (how.hasPeer) std::ignore = ::connect(socket.get(), &to.any, to.length);
    if (!how.hasPeer) ::sendto(socket.get(), "x", 1, 0, &to.any, to.length);
    return socket;
}

void sayReady(int descriptor, pid_t pid = ::getpid()) { ::dprintf(descriptor, "ready %d\n", pid); }

[[noreturn]] void waitForEnd() {
    while (true) ::pause();
}

class AttributedFlows : public ::testing::Test {
protected:
    explicit AttributedFlows(bool wantsNotes) : hasNotes(wantsNotes) {
        auto notes = wantsNotes ? SocketNotes::attach() : nullptr;
        if (wantsNotes && !notes) reasonToSkip = "the kernel takes no notes for us here";
        attribution.emplace(std::move(notes));
    }
    void SetUp() override {
        if (::geteuid() != 0 && isSystemAccount(::geteuid()))
            reasonToSkip = "the tests run under a system account";
        if (reasonToSkip.empty()) reasonToSkip = testing::reasonForNoOrdinaryPrograms();
        if (!reasonToSkip.empty()) GTEST_SKIP() << reasonToSkip;
    }

    // The process id of the flow's owner, 0 for a system account, -1 for no one.
    pid_t ownerPid(const FlowTuple& flow) {
        const auto owner = attribution->ownerOf(flow);
        return owner ? owner->pid : -1;
    }
    FlowTuple flow(const Opening& how, int source) const {
        FlowTuple flow;
        flow.protocol = how.type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP;
        const bool isIPv6 = how.to == std::string_view("::1");
        flow.family = isIPv6 ? AF_INET6 : AF_INET;
        const char* loopback = isIPv6 ? "::1" : "127.0.0.1";
        ::inet_pton(flow.family, loopback, flow.sourceAddress.data());
        flow.destinationAddress = flow.sourceAddress;
        flow.sourcePort = static_cast<std::uint16_t>(source);
        flow.destinationPort = destination.port;
        flow.outputInterface = ::if_nametoindex("lo");
        return flow;
    }

    // A person's process that opens a socket and stays; the local port is in `shared->port`.
    std::unique_ptr<RunningProgram> holderOf(const Opening& how) {
        return std::make_unique<RunningProgram>([&](int ready) {
            becomePerson();
            const auto socket = opened(how, destination.port);
            shared->port = portOf(socket);
            sayReady(ready);
            waitForEnd();
        });
    }

    const bool hasNotes;
    Destination destination;
    std::optional<FlowAttribution> attribution;
    Shared* const shared = new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;

private:
    std::string reasonToSkip;
};

// With and without the kernel's notes: everything is found both ways.
class FlowOwners : public AttributedFlows, public ::testing::WithParamInterface<bool> {
protected:
    FlowOwners() : AttributedFlows(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Owners, FlowOwners, ::testing::Bool(), [](const auto& mode) {
    return std::string(mode.param ? "WithNotes" : "Searching");
});

class FlowOwnersByNotes : public AttributedFlows {
protected:
    FlowOwnersByNotes() : AttributedFlows(true) {}
};

TEST_P(FlowOwners, EveryKindOfSocketIsFound) {
    constexpr bool withoutPeer = false;
    const struct {
        const char* what;
        Opening how;
    } cases[] = {
        {"TCP", stream},
        {"TCP over IPv6", {AF_INET6, SOCK_STREAM, "::1"}},
        {"TCP, IPv4 on an IPv6 socket", {AF_INET6, SOCK_STREAM, "::ffff:127.0.0.1"}},
        {"UDP", datagram},
        {"UDP over IPv6", {AF_INET6, SOCK_DGRAM, "::1"}},
        {"UDP without a peer", {AF_INET, SOCK_DGRAM, "127.0.0.1", withoutPeer}},
        {"UDP over IPv6 without a peer", {AF_INET6, SOCK_DGRAM, "::1", withoutPeer}},
        {"UDP without a peer, IPv4 on an IPv6 socket",
         {AF_INET6, SOCK_DGRAM, "::ffff:127.0.0.1", withoutPeer}},
        {"TCP bound to a device", {AF_INET, SOCK_STREAM, "127.0.0.1", true, true}},
        {"UDP bound to a device", {AF_INET, SOCK_DGRAM, "127.0.0.1", withoutPeer, true}},
    };
    for (const auto& [what, how] : cases) {
        const auto program = holderOf(how);
        const auto owner = attribution->ownerOf(flow(how, shared->port));
        const auto process = ProcessTable::shared().examine(program->pid());
        ASSERT_TRUE(owner && process) << what;
        EXPECT_EQ(owner->pid, program->pid()) << what;
        EXPECT_EQ(owner->uid, ::geteuid() == 0 ? person : ::geteuid()) << what;
        EXPECT_EQ(owner->isBoundToDevice, how.isBoundToDevice) << what;
        EXPECT_NE(owner->socketCookie, 0U) << what;
        EXPECT_EQ(owner->auditToken, process->auditToken()) << what;
        EXPECT_EQ(owner->signingIdentifier, process->signingIdentifier) << what;
    }
}

TEST_P(FlowOwners, NobodyIsNamedForSystemAccountsAndUnknownSockets) {
    EXPECT_EQ(ownerPid(flow(stream, 1)), -1);
    EXPECT_EQ(ownerPid(flow(datagram, 1)), -1);
    if (::geteuid() != 0) GTEST_SKIP() << "only root has a system account at hand";
    const auto socket = opened(stream, destination.port);
    const auto owner = attribution->ownerOf(flow(stream, portOf(socket)));
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->pid, 0);
    EXPECT_EQ(owner->auditToken, AuditToken{});
    EXPECT_EQ(owner->signingIdentifier, "");
}

// A blocked application would pass for ever.
TEST_P(FlowOwners, AShortageOfDescriptorsIsForgottenOnceItIsOver) {
    const auto program = holderOf(stream);
    const auto shown = flow(stream, shared->port);
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    // Notes need no descriptor.
    EXPECT_EQ(ownerPid(shown), hasNotes ? program->pid() : -1);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(ownerPid(shown), program->pid());
}

TEST_P(FlowOwners, ASharedSocketIsItsParentsUntilTheParentLetsGo) {
    const RunningProgram program([&](int ready) {
        becomePerson();
        auto socket = opened(datagram, destination.port);
        shared->port = portOf(socket);
        const pid_t child = ::fork();
        if (child == 0) waitForEnd();
        sayReady(ready, child);
        shared->await(1);
        { const auto closed = std::move(socket); }
        shared->step = 2;
        waitForEnd();
    });
    const auto shown = flow(datagram, shared->port);
    EXPECT_EQ(ownerPid(shown), program.pid());
    shared->step = 1;
    shared->await(2);
    // Whoever connected the socket stays its user.
    EXPECT_EQ(ownerPid(shown), hasNotes ? program.pid() : program.namedPid());
}

TEST_P(FlowOwners, ASocketAmongManyDescriptorsIsFound) {
    const RunningProgram program([&](int ready) {
        const rlimit many{4096, 4096};
        ::setrlimit(RLIMIT_NOFILE, &many);
        becomePerson();
        int copies = 0;
        while (copies < 3000 && ::dup(STDIN_FILENO) >= 0) ++copies;
        const auto late = opened(stream, destination.port);
        for (int hole = 500; hole < 520; ++hole) ::close(hole);
        const auto early = opened(stream, destination.port);
        shared->port = portOf(late);
        shared->otherPort = portOf(early);
        sayReady(ready);
        waitForEnd();
    });
    ASSERT_TRUE(program.isReady());
    EXPECT_EQ(ownerPid(flow(stream, shared->port)), program.pid());
    EXPECT_EQ(ownerPid(flow(stream, shared->otherPort)), program.pid());
}

TEST_P(FlowOwners, EveryThreadCounts) {
    // A child of a process with threads may not start any of its own under the thread sanitizer.
    attribution.reset();
    const auto holder = [&](bool hasItsOwnDescriptors) {
        return std::make_unique<RunningProgram>([&](int ready) {
            becomePerson();
            const auto firstProgram = "/proc/self/task/" + std::to_string(::gettid()) + "/exe";
            std::thread thread([&] {
                if (hasItsOwnDescriptors && ::unshare(CLONE_FILES) != 0) ::_exit(125);
                const auto socket = opened(stream, destination.port);
                shared->port = portOf(socket);
                // A thread that has ended keeps its folder, but runs no program.
                while (!hasItsOwnDescriptors && ::access(firstProgram.c_str(), F_OK) == 0)
                    ::usleep(100);
                sayReady(ready);
                waitForEnd();
            });
            // Without descriptors of its own the thread outlives the first one.
            if (!hasItsOwnDescriptors) ::syscall(SYS_exit, 0);
            thread.join();
        });
    };
    const auto ofItsOwn = holder(true);
    const auto flowOfItsOwn = flow(stream, shared->port);
    const auto outliving = holder(false);
    const auto flowOfOutliving = flow(stream, shared->port);
    attribution.emplace(hasNotes ? SocketNotes::attach() : nullptr);
    EXPECT_EQ(ownerPid(flowOfItsOwn), ofItsOwn->pid());
    EXPECT_EQ(ownerPid(flowOfOutliving), outliving->pid());
}

TEST_P(FlowOwners, AProcessThatHasJustGoneIsStillNamed) {
    const auto program = holderOf({AF_INET, SOCK_DGRAM, "127.0.0.1", false});
    const auto shown = flow(datagram, shared->port);
    const auto before = attribution->ownerOf(shown);
    ASSERT_TRUE(before);
    program->end();
    const auto after = attribution->ownerOf(shown);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->auditToken, before->auditToken);
    EXPECT_EQ(after->signingIdentifier, before->signingIdentifier);
    std::array<char, 1024> path{};
    ASSERT_GT(proc_pidpath(after->pid, path.data(), path.size()), 0);
    EXPECT_EQ(before->path, path.data());
}

TEST_F(FlowOwnersByNotes, ADatagramOutlivesItsSocketAndItsProcess) {
    const TemporaryFolder folder;
    folder.addBundle("Beacon.app", "com.example.Beacon");
    const auto beacon = folder.addProgram("Beacon.app/Contents/MacOS/Beacon");
    const auto sync = folder.addProgram("sync");
    const auto send = "echo >/dev/udp/127.0.0.1/" + std::to_string(destination.port);
    // A program that no one has seen before; a child that was forked from it; a program that it has
    // started. All of them are gone when their datagram is asked about.
    for (const auto& script : {send, "(" + send + "); :", sync + " -c '" + send + "'; :"}) {
        RunningProgram program(beacon, "echo ready $$; kill -STOP $$; " + script, becomePerson);
        const auto pid = program.pid();
        program.letEnd();
        const auto owner = attribution->ownerOf(flow(datagram, destination.senderOfNextDatagram()));
        ASSERT_TRUE(owner) << script;
        const bool isPart = script.starts_with(sync);
        EXPECT_EQ(owner->signingIdentifier, isPart ? "sync" : "com.example.Beacon") << script;
        EXPECT_EQ(owner->path, isPart ? sync : beacon) << script;
        std::uint32_t userId = 0;
        std::memcpy(&userId, owner->auditToken.data() + 4, sizeof userId);
        EXPECT_EQ(userId, person) << script;
        proc_bsdinfo about;
        if (!isPart) continue;
        ASSERT_GT(proc_pidinfo(owner->pid, PROC_PIDTBSDINFO, 0, about), 0);
        std::array<char, 1024> path{};
        proc_pidpath(pid, path.data(), path.size());
        EXPECT_EQ(about.pbi_ppid, static_cast<std::uint32_t>(pid));
        EXPECT_EQ(beacon, path.data());
    }
}

TEST_F(FlowOwnersByNotes, AnOpeningOutlivesItsSocket) {
    // Its queue takes one connection; what opens another waits for an answer.
    const FileDescriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
    const auto own = SocketAddress::fromNumeric("127.0.0.1", 0).value();
    ASSERT_EQ(::bind(listener.get(), &own.any, own.length), 0);
    ASSERT_EQ(::listen(listener.get(), 0), 0);
    const std::uint16_t port = portOf(listener);
    const RunningProgram program([&](int ready) {
        becomePerson();
        const auto first = opened(stream, port);
        {
            const FileDescriptor second(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
            const auto to = SocketAddress::fromNumeric("127.0.0.1", port).value();
            std::ignore = ::connect(second.get(), &to.any, to.length);
            shared->port = portOf(second);
        }
        sayReady(ready);
        waitForEnd();
    });
    auto opening = flow(stream, shared->port);
    opening.destinationPort = port;
    const auto owner = attribution->ownerOf(opening);
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->pid, program.pid());
    EXPECT_TRUE(owner->isGivenUp);
}

TEST_F(FlowOwnersByNotes, OfSeveralSocketsOnAPortTheOneThatSentIsNamed) {
    const auto on = [&](std::uint16_t port, const char* host, bool isConnected = false) {
        return std::make_unique<RunningProgram>([&, port, host, isConnected](int ready) {
            becomePerson();
            const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
            const int yes = 1;
            ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
            const auto own = SocketAddress::fromNumeric("0.0.0.0", port).value();
            const auto to = SocketAddress::fromNumeric(host, destination.port).value();
            if (::bind(socket.get(), &own.any, own.length) != 0) ::_exit(1);
            if (isConnected && ::connect(socket.get(), &to.any, to.length) != 0) ::_exit(1);
            shared->port = portOf(socket);
            sayReady(ready);
            while (true) {
                shared->await(::getpid());
                ::sendto(socket.get(), "x", 1, 0, &to.any, to.length);
                shared->step = 0;
            }
        });
    };
    const auto first = on(0, "127.0.0.1");
    const auto second = on(static_cast<std::uint16_t>(shared->port.load()), "127.0.0.1");
    const auto third = on(static_cast<std::uint16_t>(shared->port.load()), "127.0.0.2");
    const auto send = [&](const auto& sender) {
        shared->step = sender->pid();
        shared->await(0);
    };
    for (const auto* sender : {&second, &first, &second}) {
        send(*sender);
        EXPECT_EQ(ownerPid(flow(datagram, shared->port)), (*sender)->pid());
    }
    send(third);
    EXPECT_EQ(ownerPid(flow(datagram, shared->port)), second->pid()) << "whose packet still waits";
    const auto connected = on(static_cast<std::uint16_t>(shared->port.load()), "127.0.0.1", true);
    send(third);
    EXPECT_EQ(ownerPid(flow(datagram, shared->port)), connected->pid())
        << "which need not name whom it sends to";
}

TEST_F(FlowOwnersByNotes, NoAccountPushesOutTheNotesOfAnother) {
    const auto program = holderOf({AF_INET, SOCK_DGRAM, "127.0.0.1", false});
    const RunningProgram flood([&](int ready) {
        testing::becomePerson(person + 1);
        for (int count = 0; count < 20'000; ++count) opened({AF_INET, SOCK_DGRAM, "127.0.0.2"}, 9);
        sayReady(ready);
    });
    program->end();
    EXPECT_GT(ownerPid(flow(datagram, shared->port)), 0);
}

TEST_P(FlowOwners, OfASystemAccountApplicationsAreNamed) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root has a system account at hand";
    const TemporaryFolder folder;
    folder.addBundle("Beacon.app", "com.example.Beacon");
    const auto beacon = folder.addProgram("Beacon.app/Contents/MacOS/Beacon");
    const RunningProgram program(beacon, "exec 3>/dev/udp/127.0.0.1/" +
                                             std::to_string(destination.port) +
                                             "; echo >&3; echo ready $$; kill -STOP $$");
    const auto owner = attribution->ownerOf(flow(datagram, destination.senderOfNextDatagram()));
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->signingIdentifier, "com.example.Beacon");
    EXPECT_EQ(owner->pid, program.pid());
    EXPECT_EQ(owner->uid, 0U);
    EXPECT_NE(owner->auditToken, AuditToken{});
}

TEST_P(FlowOwners, AProgramThatCannotBeLookedAtHoldsUpNoOther) {
    attribution.reset();
    ASSERT_TRUE(enterNamespaces(Namespace::mount));
    attribution.emplace(hasNotes ? SocketNotes::attach() : nullptr);
    const TemporaryFolder folder;
    folder.addBundle("Hung.app", "com.example.Hung");
    const auto hung = folder.addProgram("Hung.app/Contents/MacOS/Hung");
    // A file system whose server, this test, never answers.
    const auto file = folder.path("Hung.app/Contents/Info.plist");
    FileDescriptor server(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
    const auto options =
        "fd=" + std::to_string(server.get()) + ",rootmode=100644,user_id=0,group_id=0";
    if (!server || ::mount("hung", file.c_str(), "fuse", 0, options.c_str()) != 0)
        GTEST_SKIP() << "this kernel has no file systems of user programs";

    const auto send = "exec 3>/dev/udp/127.0.0.1/" + std::to_string(destination.port) +
                      "; echo >&3; echo ready $$; kill -STOP $$";
    for (const auto& path : {hung, folder.addProgram("beacon")}) {
        const RunningProgram sender(path, send, becomePerson);
        const auto shown = flow(datagram, destination.senderOfNextDatagram());
        for (int count = 0; count < 40; ++count) EXPECT_EQ(ownerPid(shown), sender.pid()) << path;
    }
    server = FileDescriptor();
    ::umount2(file.c_str(), MNT_DETACH);
}

TEST(Processes, NobodyIsNobody) {
    std::array<char, 1024> path{};
    proc_bsdinfo about;
    for (const pid_t pid : {-1, 0, 2, 0x7fffffff}) {
        EXPECT_EQ(proc_pidpath(pid, path.data(), path.size()), 0) << pid;
        EXPECT_EQ(proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, about), 0) << pid;
    }
}

TEST_P(FlowOwners, ManyThreadsMayAskAtOnce) {
    std::vector<std::unique_ptr<RunningProgram>> programs;
    std::vector<FlowTuple> flows;
    for (int index = 0; index < 6; ++index) {
        programs.push_back(holderOf(stream));
        flows.push_back(flow(stream, shared->port));
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
