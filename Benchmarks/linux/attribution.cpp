// What it costs to say who owns a flow, by the number of processes on the machine and of descriptors
// in the owner, with the kernel's notes and without. A new socket is the ordinary case. The first flow
// is the dearest one without notes: nothing is known, and the owner is the oldest process. For the
// figures to be of any use the programs run under a person's account, so it needs root.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "Platform/LibProc.h"
#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Attribution/ProcessTable.h"

namespace {

using platform::FlowAttribution;
using platform::FlowTuple;

constexpr std::uint16_t destinationPort = 9;

// A process of a person's account with many sockets open, which opens a new one whenever it is asked
// to: in the place of the last one, or of any of them.
class Program {
public:
    explicit Program(long descriptors) {
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0) std::abort();
        child = ::fork();
        if (child == 0) run(descriptors);
        ::close(channel[1]);
        port();
    }
    ~Program() {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        ::close(channel[0]);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // The first packet of a flow from a new socket, which takes the place of the last one ('l') or of
    // any ('a').
    FlowTuple newFlow(char place = 'l') {
        if (::write(channel[0], &place, 1) != 1) std::abort();
        FlowTuple flow;
        flow.protocol = IPPROTO_UDP;
        flow.family = AF_INET;
        ::inet_pton(AF_INET, "127.0.0.1", flow.sourceAddress.data());
        ::inet_pton(AF_INET, "127.0.0.1", flow.destinationAddress.data());
        flow.sourcePort = port();
        flow.destinationPort = destinationPort;
        return flow;
    }

    pid_t pid() const { return child; }

private:
    std::uint16_t port() {
        std::uint16_t number = 0;
        if (::read(channel[0], &number, sizeof number) != sizeof number) std::abort();
        return number;
    }

    [[noreturn]] void run(long descriptors) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        // Whatever the programs before it have open is not this one's.
        channel[1] = ::dup2(channel[1], 3);
        ::close_range(4, ~0U, 0);
        if (::setgroups(0, nullptr) != 0 || ::setgid(4321) != 0 || ::setuid(4321) != 0) ::_exit(1);
        std::vector<int> sockets;
        while (descriptors-- > 0) sockets.push_back(::socket(AF_INET, SOCK_DGRAM, 0));
        std::minstd_rand random(1);
        std::uint16_t number = 0;
        for (char place = 0; ::write(channel[1], &number, sizeof number) > 0;) {
            if (::read(channel[1], &place, 1) != 1) ::_exit(0);
            auto& socket = place == 'a' ? sockets[random() % sockets.size()] : sockets.back();
            ::close(socket);
            socket = ::socket(AF_INET, SOCK_DGRAM, 0);
            sockaddr_in peer{};
            peer.sin_family = AF_INET;
            peer.sin_port = htons(destinationPort);
            ::inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
            if (::connect(socket, reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0)
                std::abort();
            sockaddr_in own{};
            socklen_t length = sizeof own;
            ::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length);
            number = ntohs(own.sin_port);
        }
        ::_exit(0);
    }

    int channel[2] = {-1, -1};
    pid_t child = -1;
};

std::vector<std::unique_ptr<Program>> otherPrograms(long count, long descriptors) {
    std::vector<std::unique_ptr<Program>> programs;
    while (count-- > 0) programs.push_back(std::make_unique<Program>(descriptors));
    return programs;
}

bool canRun(benchmark::State& state) {
    if (::geteuid() == 0) return true;
    state.SkipWithError("needs root, to run programs under a person's account");
    return false;
}

// Null for a search.
std::unique_ptr<platform::SocketNotes> notes(const benchmark::State& state) {
    return state.range(2) != 0 ? platform::SocketNotes::attach() : nullptr;
}

void checkOwner(benchmark::State& state, const Program& program,
                const std::optional<platform::FlowOwner>& owner) {
    if (!owner || owner->pid != program.pid()) state.SkipWithError("wrong owner");
}

// How many system calls `work` makes, in a copy of this process that is traced.
double systemCallsOf(const std::function<void()>& work) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
        work();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    // One where a call begins, one where it ends; the child's last one doesn't.
    int stops = 0;
    while (::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 &&
           ::waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        if (WSTOPSIG(status) == (SIGTRAP | 0x80)) ++stops;
    }
    return (stops - 1) / 2.0;
}

// What the extension asks about a flow that it declines.
void askAsTheExtensionDoes(pid_t pid) {
    char path[1024];
    platform::proc_bsdinfo about;
    for (int count = 0; count < 2; ++count) platform::proc_pidpath(pid, path, sizeof path);
    platform::proc_pidinfo(pid, platform::PROC_PIDTBSDINFO, 0, about);
}

void aNewSocket(benchmark::State& state) {
    if (!canRun(state)) return;
    Program program(state.range(1));
    const auto others = otherPrograms(state.range(0), 20);
    FlowAttribution attribution(notes(state));
    attribution.ownerOf(program.newFlow());
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        const auto flow = program.newFlow();
        state.ResumeTiming();
        checkOwner(state, program, attribution.ownerOf(flow));
    }
    const auto flow = program.newFlow();
    state.counters["system calls"] = systemCallsOf([&] {
        attribution.ownerOf(flow);
        askAsTheExtensionDoes(program.pid());
    });
}

void aNewSocketAnywhere(benchmark::State& state) {
    if (!canRun(state)) return;
    Program program(state.range(1));
    const auto others = otherPrograms(state.range(0), 20);
    FlowAttribution attribution(notes(state));
    attribution.ownerOf(program.newFlow());
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        const auto flow = program.newFlow('a');
        state.ResumeTiming();
        checkOwner(state, program, attribution.ownerOf(flow));
    }
}

void anotherFlowOfAKnownSocket(benchmark::State& state) {
    if (!canRun(state)) return;
    Program program(state.range(1));
    const auto others = otherPrograms(state.range(0), 20);
    FlowAttribution attribution(notes(state));
    const auto flow = program.newFlow();
    for ([[maybe_unused]] auto _ : state) checkOwner(state, program, attribution.ownerOf(flow));
}

void theFirstFlow(benchmark::State& state) {
    if (!canRun(state)) return;
    Program program(state.range(1));
    const auto others = otherPrograms(state.range(0), 20);
    const auto flow = program.newFlow();
    for ([[maybe_unused]] auto _ : state) {
        FlowAttribution attribution(nullptr);
        checkOwner(state, program, attribution.ownerOf(flow));
    }
}

void aProgramThatHasJustStarted(benchmark::State& state) {
    if (!canRun(state)) return;
    const auto others = otherPrograms(state.range(0), 20);
    FlowAttribution attribution(notes(state));
    for (const auto& each : others) attribution.ownerOf(each->newFlow());
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        auto program = std::make_unique<Program>(state.range(1));
        const auto flow = program->newFlow();
        state.ResumeTiming();
        const auto owner = attribution.ownerOf(flow);
        state.PauseTiming();
        checkOwner(state, *program, owner);
        program.reset();
        state.ResumeTiming();
    }
}

void pathOfAProcess(benchmark::State& state) {
    const auto pid = ::getpid();
    char path[1024];
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(platform::proc_pidpath(pid, path, sizeof path));
}

void examineAProcess(benchmark::State& state) {
    const auto pid = ::getpid();
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(platform::ProcessTable::shared().examine(pid));
    }
}

constexpr auto named = [](auto* benchmark) {
    benchmark->ArgNames({"processes", "descriptors", "notes"})->Unit(benchmark::kMicrosecond);
};

}  // namespace

BENCHMARK(anotherFlowOfAKnownSocket)->Apply(named)->ArgsProduct({{400}, {20}, {1, 0}});
BENCHMARK(aNewSocket)->Apply(named)->ArgsProduct({{10, 400}, {20, 900}, {1, 0}});
// Longer than a process counts as young, so that the other programs do not.
BENCHMARK(aNewSocketAnywhere)
    ->Apply(named)
    ->ArgsProduct({{10, 400}, {20, 900}, {1, 0}})
    ->MinTime(2);
BENCHMARK(aProgramThatHasJustStarted)
    ->Apply(named)
    ->ArgsProduct({{10, 400}, {5}, {1, 0}})
    ->Iterations(300);
BENCHMARK(theFirstFlow)->Apply(named)->ArgsProduct({{10, 400}, {20, 900}, {0}})->MinTime(0.2);
BENCHMARK(examineAProcess)->Unit(benchmark::kMicrosecond);
BENCHMARK(pathOfAProcess)->Unit(benchmark::kMicrosecond);
