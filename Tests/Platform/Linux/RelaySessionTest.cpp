// Sessions of the extension between real sockets: an application that connects to the relay's
// listener, and a server that the session's connection reaches.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "Extension/proxy-session/ProxySession.h"
#include "Platform/Linux/Relay/ConnectionAcceptor.h"
#include "Platform/Linux/Relay/SocketFlow.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/Network.h"
#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/Sockets.h"
#include "Tests/Platform/Linux/TestNetwork.h"

namespace platform {
namespace {

using vantry::ProxySession;

// Relays every connection to one server, as the provider's direct path does.
class LocalRelay {
public:
    LocalRelay(std::string serverAddress, std::uint16_t serverPort,
               std::optional<NWInterface> interface = {})
        : server(std::move(serverAddress)), port(serverPort), requiredInterface(interface) {
        auto listener = listenOnLoopback();
        listeningPort = portOf(listener);
        makeNonBlocking(listener);
        acceptor = std::make_unique<ConnectionAcceptor>(
            std::move(listener),
            [this](FileDescriptor socket, const sockaddr_storage&) { relay(std::move(socket)); });
    }
    ~LocalRelay() {
        acceptor = nullptr;
        EXPECT_TRUE(hasEnded());
    }

    std::uint16_t listeningOn() const { return listeningPort; }
    FileDescriptor connect() const { return connectTo("127.0.0.1", listeningPort); }

    // Whether all sessions end within the test's patience.
    bool hasEnded() {
        std::unique_lock guard(mutex);
        return changed.wait_for(guard, std::chrono::seconds(60), [&] { return sessions.empty(); });
    }
    bool hasRun(int count) {
        std::unique_lock guard(mutex);
        return changed.wait_for(guard, std::chrono::seconds(20),
                                [&] { return nextSession >= count; });
    }
    void cancelAll() {
        std::vector<std::shared_ptr<ProxySession>> ending;
        {
            const std::lock_guard guard(mutex);
            // As the provider does: one that has not been started tells nobody of its end.
            for (const auto& [id, session] : std::exchange(sessions, {})) ending.push_back(session);
        }
        for (const auto& session : ending) session->cancelGracefully();
    }
    std::size_t completions() {
        const std::lock_guard guard(mutex);
        return completed.size();
    }

private:
    void relay(FileDescriptor socket) {
        const auto side = std::make_shared<NEAppProxyTCPFlow::Implementation>();
        const auto flow = std::make_shared<NEAppProxyTCPFlow>(
            NEFlowMetaData{}, NWHostEndpoint{server, std::to_string(port)}, side);
        NWParameters parameters = NWParameters::tcp();
        parameters.requiredInterface = requiredInterface;
        const auto connection = std::make_shared<NWConnection>(
            NWEndpoint::Host(server), *NWEndpoint::Port::fromString(std::to_string(port)),
            parameters);
        std::shared_ptr<ProxySession> session;
        {
            const std::lock_guard guard(mutex);
            const int id = nextSession++;
            session = std::make_shared<ProxySession>(flow, connection, "org.example.application",
                                                     id, Logger("org.example", "Test"));
            sessions[id] = session;
        }
        session->start([this, id = session->sessionId] {
            const std::lock_guard guard(mutex);
            EXPECT_TRUE(completed.insert(id).second) << "completed twice: " << id;
            sessions.erase(static_cast<int>(id));
            changed.notify_all();
        });
        side->supplySocket(std::move(socket));
    }

    const std::string server;
    const std::uint16_t port;
    const std::optional<NWInterface> requiredInterface;
    std::uint16_t listeningPort = 0;
    std::mutex mutex;
    std::condition_variable changed;
    std::map<int, std::shared_ptr<ProxySession>> sessions;
    int nextSession = 0;
    std::set<std::int64_t> completed;
    std::unique_ptr<ConnectionAcceptor> acceptor;
};

// Sends `bytes` in pieces of random sizes with a pause here and there.
void sendInPieces(const FileDescriptor& socket, std::string_view bytes, std::uint32_t seed) {
    std::mt19937 random(seed);
    while (!bytes.empty()) {
        const std::size_t scale = std::size_t{1} << (random() % 20);
        const std::size_t length = std::min(bytes.size(), 1 + random() % scale);
        sendAll(socket, bytes.substr(0, length));
        bytes.remove_prefix(length);
        if (random() % 64 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 5));
    }
}

// Receives `length` bytes in pieces of random sizes with a pause here and there.
std::string receiveInPieces(const FileDescriptor& socket, std::size_t length, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::string bytes;
    while (bytes.size() < length) {
        const std::size_t scale = std::size_t{1} << (random() % 20);
        const auto piece = receive(socket, std::min(length - bytes.size(), 1 + random() % scale));
        if (piece.empty()) break;
        bytes += piece;
        if (random() % 64 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 5));
    }
    return bytes;
}

TEST(RelaySession, BytesArriveWholeBothWaysInPiecesOfAnySizeAndWithStalls) {
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    std::vector<std::thread> streams;
    for (std::uint32_t seed = 1; seed <= 4; ++seed) {
        auto application = std::make_shared<FileDescriptor>(relay.connect());
        auto server = std::make_shared<FileDescriptor>(acceptFrom(listener));
        const std::size_t up = 6'000'000 * seed, down = 9'000'000 * seed;
        // The application ends the session, so it begins its end when it has everything.
        const auto hasAll = std::make_shared<Awaited<bool>>();
        const auto bytesUp = std::make_shared<const std::string>(randomBytes(up, seed));
        const auto bytesDown = std::make_shared<const std::string>(randomBytes(down, seed + 100));
        streams.emplace_back([=] { sendInPieces(*server, *bytesDown, seed); });
        streams.emplace_back([=, put = hasAll->put()]() mutable {
            EXPECT_TRUE(receiveInPieces(*application, down, seed) == *bytesDown);
            put(true);
        });
        streams.emplace_back([=] {
            sendInPieces(*application, *bytesUp, seed + 7);
            hasAll->get();
            ::shutdown(application->get(), SHUT_WR);
        });
        streams.emplace_back([=] {
            EXPECT_TRUE(receiveInPieces(*server, std::string::npos, seed + 9) == *bytesUp);
        });
    }
    for (auto& stream : streams) stream.join();
}

// Both sides come to their end at about the same time, while the receivers are behind. What the
// relay has read it still brings to the other side.
TEST(RelaySession, TheLastBytesArriveWhenBothSidesEndCloseTogether) {
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    for (std::uint32_t round = 0; round < 60; ++round) {
        const std::string bytesUp = randomBytes(200'000 + 50'000 * (round % 30), round);
        const std::string bytesDown = randomBytes(2'000'000 - 50'000 * (round % 30), round + 500);
        const auto application = relay.connect();
        const auto server = acceptFrom(listener);
        // The server's end is the session's: all that it sent must reach the application, although
        // the application still sends.
        std::thread serving([&] {
            std::thread receiving([&] {
                const std::string got = receiveToEnd(server);
                EXPECT_TRUE(bytesUp.starts_with(got));
            });
            sendAll(server, bytesDown);
            ::shutdown(server.get(), SHUT_WR);
            receiving.join();
        });
        std::thread sending([&] {
            try {
                sendAll(application, bytesUp);
            } catch (const std::runtime_error&) {
                // The session may have ended before all was sent.
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 8));
        int error = 0;
        EXPECT_TRUE(receiveToEnd(application, &error) == bytesDown) << "round " << round;
        EXPECT_EQ(error, 0);
        ::shutdown(application.get(), SHUT_RDWR);
        sending.join();
        serving.join();
    }
}

TEST(RelaySession, TheApplicationsLastBytesArriveAlthoughTheServerStillSends) {
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    for (std::uint32_t round = 0; round < 60; ++round) {
        const std::string bytes = randomBytes(100'000 + 70'000 * (round % 20), round);
        auto application = relay.connect();
        const auto server = acceptFrom(listener);
        std::atomic<bool> isOver = false;
        std::thread sending([&] {
            const std::string noise = randomBytes(30'000, 1);
            while (!isOver)
                if (::send(server.get(), noise.data(), noise.size(), MSG_NOSIGNAL) < 0) break;
        });
        sendAll(application, bytes);
        ::shutdown(application.get(), SHUT_WR);
        // It is slow to read, so that much of it lies in the relay and the system meanwhile.
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 8));
        // Behind them comes an end or, as it goes on sending to an application that has gone, a
        // reset: so it would without the relay.
        EXPECT_TRUE(receiveToEnd(server) == bytes) << "round " << round;
        isOver = true;
        receiveToEnd(application);
        application = FileDescriptor();
        ::shutdown(server.get(), SHUT_RDWR);
        sending.join();
    }
}

TEST(RelaySession, AKilledSessionShowsTheApplicationAReset) {
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    const auto application = relay.connect();
    const auto server = acceptFrom(listener);
    sendAll(application, "hello");
    EXPECT_EQ(receive(server, 5), "hello");
    relay.cancelAll();
    int error = 0;
    receiveToEnd(application, &error);
    EXPECT_EQ(error, ECONNRESET);
    EXPECT_EQ(receiveToEnd(server), "");
    EXPECT_TRUE(relay.hasEnded());
    EXPECT_EQ(relay.completions(), 1U);
}

TEST(RelaySession, AServerThatRefusesEndsTheApplicationsConnection) {
    auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    listener = FileDescriptor();
    const auto application = relay.connect();
    EXPECT_EQ(receiveToEnd(application), "");
    EXPECT_TRUE(relay.hasEnded());
}

// What a reader does not take stays with the writer: the relay holds no more than it was given.
TEST(RelaySession, APeerThatNeverReadsHoldsBackTheOtherAndNoMore) {
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    auto application = relay.connect();
    const auto server = acceptFrom(listener);
    makeNonBlocking(application);
    const std::string piece(64 * 1024, 'x');
    std::size_t taken = 0;
    auto lastProgress = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - lastProgress < std::chrono::milliseconds(300)) {
        const ssize_t count = ::send(application.get(), piece.data(), piece.size(), MSG_NOSIGNAL);
        if (count <= 0) continue;
        taken += static_cast<std::size_t>(count);
        lastProgress = std::chrono::steady_clock::now();
    }
    EXPECT_LT(taken, 64U << 20);  // what two sockets and a pipe hold at most, by far

    // The relay waits without turning: no processor time goes by.
    const auto before = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20);
    application = FileDescriptor();
    std::size_t received = 0;
    for (std::string bytes; !(bytes = receive(server, 1 << 20)).empty();) received += bytes.size();
    EXPECT_EQ(received, taken);
}

TEST(RelaySession, ThousandsStartAndEndAtOnce) {
    constexpr int threads = 8, perThread = 250;
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    std::atomic<bool> isOver = false;
    // A server that answers with what it got and closes, resets, or waits for the other's end.
    std::vector<std::thread> servers;
    for (int t = 0; t < 4; ++t)
        servers.emplace_back([&, t] {
            std::mt19937 random(static_cast<unsigned>(t));
            while (auto connection = acceptFrom(listener)) {
                const auto bytes = receive(connection, 100);
                const auto choice = random() % 4;
                if (choice == 0) {
                    const linger abortively{1, 0};
                    ::setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &abortively,
                                 sizeof abortively);
                    continue;
                }
                ::send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
                if (choice == 1) receiveToEnd(connection);
            }
        });
    std::atomic<int> answered = 0;
    std::vector<std::thread> applications;
    for (int t = 0; t < threads; ++t)
        applications.emplace_back([&, t] {
            std::mt19937 random(static_cast<unsigned>(t) + 50);
            for (int i = 0; i < perThread; ++i) {
                const auto application = relay.connect();
                const std::string bytes = randomBytes(100, static_cast<std::uint32_t>(i));
                const auto choice = random() % 8;
                if (choice == 0) continue;  // gone before it has said anything
                ::send(application.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
                if (choice == 1) continue;
                const auto answer = receive(application, 100);
                if (answer == bytes) ++answered;
                EXPECT_TRUE(answer.empty() || answer == bytes);
            }
        });
    std::thread killer([&] {
        while (!isOver) {
            relay.cancelAll();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    for (auto& application : applications) application.join();
    EXPECT_TRUE(relay.hasRun(threads * perThread));
    isOver = true;
    killer.join();
    EXPECT_TRUE(relay.hasEnded());
    EXPECT_GT(answered, threads * perThread / 10);
    ::shutdown(listener.get(), SHUT_RDWR);
    for (auto& server : servers) server.join();
}

// Descriptors that are used up make connections wait, and end sessions, but not the process; when
// there are some again, it goes on.
TEST(RelaySession, GoesOnWhenDescriptorsWereUsedUp) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer needs descriptors for its own checks";
#endif
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    {
        const auto application = relay.connect();
        const auto server = acceptFrom(listener);
        sendAll(application, "first");
        EXPECT_EQ(receive(server, 5), "first");
    }
    std::vector<FileDescriptor> applications;
    for (int i = 0; i < 20; ++i)
        applications.push_back(FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    std::vector<FileDescriptor> taken;
    for (FileDescriptor one(::dup(0)); one; one = FileDescriptor(::dup(0)))
        taken.push_back(std::move(one));
    for (int i = 0; i < 3; ++i) taken.pop_back();
    for (const auto& application : applications) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(relay.listeningOn());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(
            ::connect(application.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    const auto before = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
    taken.clear();
    applications.clear();
    const auto application = relay.connect();
    sendAll(application, "later");
    while (receive(acceptFrom(listener), 5) != "later") {
    }
}

TEST(RelaySession, IdleSessionsCostNoThread) {
    constexpr int sessions = 2'000;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 4 * sessions + 200) GTEST_SKIP() << "too few descriptors";
    const auto listener = listenOnLoopback();
    LocalRelay relay("127.0.0.1", portOf(listener));
    const auto threads = [] {
        int count = 0;
        DIR* const folder = ::opendir("/proc/self/task");
        while (::readdir(folder) != nullptr) ++count;
        ::closedir(folder);
        return count;
    };
    const auto talk = [&](const FileDescriptor& application, const FileDescriptor& server) {
        sendAll(application, "x");
        EXPECT_EQ(receive(server, 1), "x");
    };
    std::vector<FileDescriptor> ends;
    ends.push_back(relay.connect());
    ends.push_back(acceptFrom(listener));
    talk(ends[0], ends[1]);
    const int threadsBefore = threads();
    for (int i = 1; i < sessions; ++i) {
        ends.push_back(relay.connect());
        ends.push_back(acceptFrom(listener));
        talk(ends[ends.size() - 2], ends.back());
    }
    EXPECT_EQ(threads(), threadsBefore);
}

class RelaySessionInWorld : public ::testing::Test {
protected:
    void SetUp() override {
        network = TestNetwork::make();
        if (!network) GTEST_SKIP() << "no namespaces here";
    }
    const NWInterface eth0{"eth0", NWInterface::InterfaceType::wiredEthernet};
    std::unique_ptr<TestNetwork> network;
};

TEST_F(RelaySessionInWorld, RelaysBesideTheTunnelUntilTheInterfaceVanishes) {
    for (const std::string address : {TestNetwork::serverIPv4, TestNetwork::serverIPv6}) {
        const auto listener = network->listenInWorld(address, 7000);
        LocalRelay relay(address, 7000, eth0);
        const auto application = relay.connect();
        const auto server = acceptFrom(listener);
        EXPECT_EQ(peerAddressOf(server),
                  address == TestNetwork::serverIPv4 ? "192.0.2.2" : "fd02::2");
        const std::string bytes = randomBytes(5'000'000, 3);
        std::thread sending([&] { sendAll(application, bytes); });
        EXPECT_TRUE(receive(server, bytes.size()) == bytes);
        sending.join();
        if (address == TestNetwork::serverIPv6) {
            runCommand("ip link del eth0");
            EXPECT_EQ(receiveToEnd(application), "");
        }
    }
}

}  // namespace
}  // namespace platform
