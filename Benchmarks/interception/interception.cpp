// What the interception costs a flow: opening a connection and sending over it, in a network of two
// namespaces, bare and with each verdict side by side. The providers answer at once, so the figures
// are the platform's alone. Needs root, or user namespaces.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "Platform/Linux/Daemon/Interception.h"
#include "Platform/Linux/Recording/Pseudonyms.h"
#include "Platform/Linux/Recording/RecordedProviders.h"
#include "Platform/Linux/Recording/Recorder.h"
#include "Platform/Linux/Relay/ConnectionAcceptor.h"
#include "Platform/Linux/Relay/SocketFlow.h"
#include "Tests/Platform/Linux/Daemon/InterceptionLab.h"
#include "Tests/Platform/Linux/Daemon/ScriptedProviders.h"
#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/Sockets.h"

namespace {

using namespace platform;
using namespace platform::interception;

// Redirected: every connection goes to the same echoing proxy as a claimed one, by a plain rule
// and without any verdict.
// Recorded: declined, while a recording is fetched without names.
enum class Treatment : int { bare, declined, claimed, watched, redirected, recorded };

const char* nameOf(Treatment treatment) {
    switch (treatment) {
        case Treatment::bare:
            return "bare";
        case Treatment::declined:
            return "declined";
        case Treatment::claimed:
            return "claimed";
        case Treatment::watched:
            return "watched";
        case Treatment::redirected:
            return "redirected";
        case Treatment::recorded:
            return "declined, recorded";
    }
    return "";
}

constexpr std::uint16_t discardPort = 7009;

// Takes what comes at the far end and gives nothing back, one connection after the other.
class DiscardServer {
public:
    explicit DiscardServer(const InterceptionLab& lab)
        : listener(lab.network->listenInWorld(TestNetwork::serverIPv4, discardPort)),
          thread([this] { serve(); }) {}
    ~DiscardServer() {
        shutdown(listener.get(), SHUT_RD);
        thread.join();
    }
    DiscardServer(const DiscardServer&) = delete;
    DiscardServer& operator=(const DiscardServer&) = delete;

private:
    void serve() {
        std::vector<char> buffer(std::size_t{1} << 20);
        while (const auto accepted = acceptFrom(listener))
            while (recv(accepted.get(), buffer.data(), buffer.size(), MSG_TRUNC) > 0) continue;
    }

    const FileDescriptor listener;
    std::thread thread;
};

// Fetches what is recorded, as the tool does, while it lives.
class RecordingUnderWay {
public:
    RecordingUnderWay() {
        thread = std::thread([this] {
            recording::Pseudonyms pseudonyms;
            while (!isOver) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                auto lines = recording::Recorder::shared().fetch(number).lines;
                benchmark::DoNotOptimize(pseudonyms.replaced(lines));
                recording::Recorder::shared().giveBack(std::move(lines));
            }
        });
    }
    ~RecordingUnderWay() {
        isOver = true;
        thread.join();
        recording::Recorder::shared().stop(number);
    }
    RecordingUnderWay(const RecordingUnderWay&) = delete;
    RecordingUnderWay& operator=(const RecordingUnderWay&) = delete;

private:
    const std::int64_t number = recording::Recorder::shared().start().value_or(0);
    std::atomic<bool> isOver = false;
    std::thread thread;
};

class Network {
public:
    explicit Network(Treatment treatment) {
        if (treatment == Treatment::bare) return;
        if (treatment == Treatment::redirected) {
            redirectEverything();
            return;
        }
        proxy->isClaiming = treatment == Treatment::claimed;
        if (treatment == Treatment::watched)
            filter->onNewFlow = ScriptedFilter::NewFlow::filterData;
        if (treatment == Treatment::recorded) fetching = std::make_unique<RecordingUnderWay>();
        interception = std::make_unique<Interception>(
            Providers{recording::followed(proxy), recording::followed(filter)});
        NENetworkRule everything;
        everything.direction = NENetworkRule::TrafficDirection::outbound;
        interception->setFilterAction(NEFilterAction::filterData, {});
        std::promise<void> done;
        interception->setProxyRules({everything},
                                    [&](const std::optional<NSError>&) { done.set_value(); });
        done.get_future().wait();
    }

private:
    void redirectEverything() {
        auto listener = listenOn("127.0.0.1", 7010);
        makeNonBlocking(listener);
        acceptor = std::make_unique<ConnectionAcceptor>(
            std::move(listener), [this](FileDescriptor accepted, const sockaddr_storage&) {
                auto side = std::make_shared<SocketFlow>();
                const RemoteEndpoint remote = NWHostEndpoint{TestNetwork::serverIPv4, "7007"};
                side->supplySocket(std::move(accepted));
                proxy->claim(std::make_shared<NEAppProxyTCPFlow>(NEFlowMetaData(), remote, side));
            });
        runCommand(
            "nft 'add table ip plain; add chain ip plain output"
            " { type nat hook output priority -100; };"
            " add rule ip plain output ip daddr 198.51.100.2 tcp dport 7007 redirect to :7010'");
    }

    const InterceptionLab lab;
    const DiscardServer discarding{lab};
    CallList calls{CallList::Keep::nothing};
    std::shared_ptr<ScriptedProxy> proxy = std::make_shared<ScriptedProxy>(calls);
    std::shared_ptr<ScriptedFilter> filter = std::make_shared<ScriptedFilter>(calls);
    std::unique_ptr<Interception> interception;
    std::unique_ptr<ConnectionAcceptor> acceptor;
    std::unique_ptr<RecordingUnderWay> fetching;
};

ClientSocket connectToDiscard() {
    ClientSocket client(AF_INET, SOCK_STREAM);
    client.connectTo(TestNetwork::serverIPv4, discardPort);
    return client;
}

void exchangeOneByte() {
    ClientSocket client(AF_INET, SOCK_STREAM);
    client.connectTo(InterceptionLab::serverAddress(AF_INET), InterceptionLab::echoPort);
    client.exchange(1);
    // A reset leaves no port waiting, of which there are too few for all rounds.
    const linger atOnce{1, 0};
    setsockopt(client.descriptor(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

void openConnection(benchmark::State& state) {
    const auto treatment = static_cast<Treatment>(state.range(0));
    const Network network(treatment);
    std::vector<double> microseconds;
    for ([[maybe_unused]] const auto& round : state) {
        const auto begin = std::chrono::steady_clock::now();
        const ClientSocket client = connectToDiscard();
        const std::chrono::duration<double, std::micro> took =
            std::chrono::steady_clock::now() - begin;
        microseconds.push_back(took.count());
    }
    std::sort(microseconds.begin(), microseconds.end());
    state.counters["median_us"] = microseconds[microseconds.size() / 2];
    state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
    state.SetLabel(nameOf(treatment));
}
BENCHMARK(openConnection)->DenseRange(0, 3)->Arg(5)->Iterations(10000)->UseRealTime();

enum class Flood : int { none, datagrams, connections };

// Another account that opens more flows than can be decided, until the end. Of connections twenty thousand a
// second: beyond that the kernel's table of connections is full, with any program or none.
class FloodingAccount {
public:
    explicit FloodingAccount(Flood kind) {
        if (kind == Flood::none) return;
        for (int count = 0; count < 2; ++count)
            threads.emplace_back([this, kind] {
                constexpr uid_t account = 4711;
                setfsuid(account);
                while (!isOver) kind == Flood::datagrams ? sendDatagrams() : openConnections();
            });
    }
    ~FloodingAccount() {
        isOver = true;
        for (std::thread& thread : threads) thread.join();
    }
    FloodingAccount(const FloodingAccount&) = delete;
    FloodingAccount& operator=(const FloodingAccount&) = delete;

    std::size_t flows() const { return opened; }

private:
    // Four thousand at once, each a flow of its own.
    void sendDatagrams() {
        ClientSocket client(AF_INET, SOCK_DGRAM);
        for (std::uint16_t port = 20000; port < 24000; ++port, ++opened)
            client.sendTo(TestNetwork::serverIPv4, port);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    void openConnections() {
        constexpr double aSecond = 20000;
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        if (static_cast<double>(opened) < passed.count() * aSecond)
            attempt();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // An attempt that is given up at once.
    void attempt() {
        const FileDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const auto remote =
            SocketAddress::fromNumeric(TestNetwork::serverIPv4, discardPort).value();
        static_cast<void>(connect(client.get(), &remote.any, remote.length));
        makeClosingAbortive(client);
        ++opened;
    }

    const std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
    std::atomic<bool> isOver = false;
    std::atomic<std::size_t> opened = 0;
    std::vector<std::thread> threads;
};

void openBesideAFlood(benchmark::State& state) {
    const Network network(Treatment::declined);
    const FloodingAccount flooding(static_cast<Flood>(state.range(0)));
    const auto start = std::chrono::steady_clock::now();
    std::vector<double> microseconds;
    for ([[maybe_unused]] const auto& round : state) {
        const auto begin = std::chrono::steady_clock::now();
        exchangeOneByte();
        const std::chrono::duration<double, std::micro> took =
            std::chrono::steady_clock::now() - begin;
        microseconds.push_back(took.count());
    }
    const std::chrono::duration<double> lasted = std::chrono::steady_clock::now() - start;
    std::sort(microseconds.begin(), microseconds.end());
    state.counters["median_us"] = microseconds[microseconds.size() / 2];
    state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
    state.counters["longest_us"] = microseconds.back();
    state.counters["flood_per_s"] = static_cast<double>(flooding.flows()) / lasted.count();
    constexpr const char* names[] = {"no flood", "datagrams", "connections"};
    state.SetLabel(names[state.range(0)]);
}
BENCHMARK(openBesideAFlood)->DenseRange(0, 2)->Iterations(3000)->UseRealTime();

double processorMicroseconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto microseconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

void openManyConnections(benchmark::State& state) {
    const auto treatment = static_cast<Treatment>(state.range(0));
    const Network network(treatment);
    constexpr int clients = 16;
    constexpr int each = 500;
    const double before = processorMicroseconds();
    for ([[maybe_unused]] const auto& round : state) {
        std::vector<std::thread> threads;
        threads.reserve(clients);
        for (int client = 0; client < clients; ++client)
            threads.emplace_back([] {
                for (int count = 0; count < each; ++count) exchangeOneByte();
            });
        for (std::thread& thread : threads) thread.join();
    }
    const std::int64_t connections = state.iterations() * clients * each;
    state.SetItemsProcessed(connections);
    // Of both ends and all between: on a busy machine this compares better than the rate.
    state.counters["cpu_us_each"] =
        (processorMicroseconds() - before) / static_cast<double>(connections);
    state.SetLabel(nameOf(treatment));
}
BENCHMARK(openManyConnections)->DenseRange(0, 5)->Iterations(3)->UseRealTime();

void upload(benchmark::State& state) {
    const auto treatment = static_cast<Treatment>(state.range(0));
    const Network network(treatment);
    ClientSocket client = connectToDiscard();
    const std::vector<char> content(std::size_t{256} << 10);
    for ([[maybe_unused]] const auto& round : state)
        send(client.descriptor(), content.data(), content.size(), MSG_NOSIGNAL);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(content.size()));
    state.SetLabel(nameOf(treatment));
}
BENCHMARK(upload)->Arg(0)->Arg(1)->Arg(3)->Iterations(60000)->UseRealTime();

}  // namespace
