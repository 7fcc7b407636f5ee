// Sessions of the extension between real sockets: an application that connects to the relay's
// listener, and a server that the session's connection reaches.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <random>
#include <thread>
#include <vector>

#include "Platform/Linux/Network/SocketAddress.h"
#include "Tests/Platform/Linux/LocalRelay.h"
#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/Sockets.h"
#include "Tests/Platform/Linux/TestNetwork.h"

namespace platform {
namespace {

// An application, the server that it reaches, and that both hear each other.
struct Ends {
    FileDescriptor application;
    FileDescriptor server;

    Ends(const LocalRelay& relay, const FileDescriptor& listener)
        : application(relay.connect()), server(acceptFrom(listener)) {
        sendAll(application, "hello");
        EXPECT_EQ(receive(server, 5), "hello");
    }
};

class RelaySession : public ::testing::Test {
protected:
    FileDescriptor listener = listenOnLoopback();
    LocalRelay relay{"127.0.0.1", portOf(listener)};
};

TEST_F(RelaySession, ThousandsStartAndEndAtOnce) {
    constexpr int threads = 8, perThread = 250;
    // A server that answers with what it got and closes, resets, or waits for the other's end.
    std::vector<std::jthread> servers;
    for (unsigned t = 0; t < 4; ++t)
        servers.emplace_back([&, random = std::mt19937(t)]() mutable {
            while (auto connection = acceptFrom(listener)) {
                const auto bytes = receive(connection, 100);
                const auto choice = random() % 4;
                if (choice == 0) makeClosingAbortive(connection);
                if (choice == 0) continue;
                ::send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
                if (choice == 1) receiveToEnd(connection);
            }
        });
    std::jthread killer([&](const std::stop_token& isOver) {
        for (; !isOver.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(20)))
            relay.cancelAll();
    });
    std::atomic<int> answered = 0;
    const auto apply = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (std::uint32_t i = 0; i < perThread; ++i) {
            const auto application = relay.connect();
            const std::string bytes = randomBytes(100, i);
            const auto choice = random() % 8;
            if (choice == 0) continue;  // gone before it has said anything
            ::send(application.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (choice == 1) continue;
            const auto answer = receive(application, 100);
            if (answer == bytes) ++answered;
            EXPECT_TRUE(answer.empty() || answer == bytes);
        }
    };
    {
        std::vector<std::jthread> applications;
        for (unsigned t = 0; t < threads; ++t) applications.emplace_back(apply, t + 50);
    }
    EXPECT_TRUE(relay.hasRun(threads * perThread));
    killer.request_stop();
    killer.join();
    EXPECT_TRUE(relay.hasEnded());
    EXPECT_GT(answered, threads * perThread / 10);
    ::shutdown(listener.get(), SHUT_RDWR);
}

// An end would say that all bytes have come.
TEST_F(RelaySession, AFailureOfOneSideShowsAsAResetToTheOtherAfterWhatHadCome) {
    int error = 0;
    for (const bool isOfServer : {false, true}) {
        auto [application, server] = Ends(relay, listener);
        auto& failing = isOfServer ? server : application;
        const auto& other = isOfServer ? application : server;
        sendAll(failing, "part of it");
        EXPECT_EQ(receive(other, 5), "part ");
        makeClosingAbortive(failing);
        failing = FileDescriptor();
        EXPECT_EQ(receiveToEnd(other, &error), "of it");
        EXPECT_EQ(std::exchange(error, 0), ECONNRESET);
    }
    listener = FileDescriptor();
    EXPECT_EQ(receiveToEnd(relay.connect(), &error), "");
    EXPECT_EQ(error, ECONNRESET);
}

// Descriptors that are used up make connections wait, and end sessions, but not the process; when
// there are some again, it goes on.
TEST_F(RelaySession, GoesOnWhenDescriptorsWereUsedUp) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer needs descriptors for its own checks";
#endif
    { const Ends first(relay, listener); }
    std::vector<FileDescriptor> applications;
    for (int i = 0; i < 20; ++i)
        applications.push_back(FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    std::vector<FileDescriptor> taken;
    for (FileDescriptor one(::dup(0)); one; one = FileDescriptor(::dup(0)))
        taken.push_back(std::move(one));
    // For two sessions, so that the others wait.
    for (int i = 0; i < 4; ++i) taken.pop_back();
    const auto relaying = SocketAddress::fromNumeric("127.0.0.1", relay.listeningOn()).value();
    for (const auto& application : applications)
        ASSERT_EQ(::connect(application.get(), &relaying.any, relaying.length), 0);
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

TEST(RelaySessionInWorld, EndsWhenItsInterfaceVanishes) {
    const auto network = TestNetwork::make();
    if (!network) GTEST_SKIP() << "no namespaces here";
    const auto listener = network->listenInWorld(TestNetwork::serverIPv6, 7000);
    LocalRelay relay(TestNetwork::serverIPv6, 7000,
                     NWInterface("eth0", NWInterface::InterfaceType::wiredEthernet));
    const auto [application, server] = Ends(relay, listener);
    runCommand("ip link del eth0");
    int error = 0;
    EXPECT_EQ(receiveToEnd(application, &error), "");
    EXPECT_EQ(error, ECONNRESET);
}

}  // namespace
}  // namespace platform
