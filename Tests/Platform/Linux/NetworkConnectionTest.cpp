#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <sstream>

#include "Platform/Linux/Network/LocalPorts.h"
#include "Platform/Linux/Network/NameResolver.h"
#include "Platform/Network.h"
#include "Tests/Platform/Linux/Namespaces.h"
#include "Tests/Platform/Linux/Sockets.h"
#include "Tests/Platform/Linux/TestNetwork.h"

namespace platform {
namespace {

using Kind = NWConnection::State::Kind;
using Error = std::optional<NSError>;

const DispatchQueue queue = DispatchQueue::global(QualityOfService::userInitiated);

struct Receipt {
    std::optional<Data> data;
    bool isComplete = false;
    Error error;

    std::string text() const { return data ? std::string(data->bytes().value()) : ""; }
};

// A connection, and the states that it reported.
class Client {
public:
    Client(const std::string& host, std::uint16_t port, std::optional<std::string> interface = {}) {
        NWParameters parameters = NWParameters::tcp();
        if (interface)
            parameters.requiredInterface =
                NWInterface(*interface, NWInterface::InterfaceType::wiredEthernet);
        connection = std::make_shared<NWConnection>(
            NWEndpoint::Host(host), *NWEndpoint::Port::fromString(std::to_string(port)),
            parameters);
        connection->setStateUpdateHandler([states = states](const NWConnection::State& state) {
            const std::lock_guard guard(states->mutex);
            states->seen.push_back(state);
            states->changed.notify_all();
        });
    }
    ~Client() {
        if (connection) connection->cancel();
    }
    std::shared_ptr<NWConnection> giveAway() { return std::exchange(connection, nullptr); }

    // The next state that is not `.preparing`; `.setup` if none comes in time.
    NWConnection::State next(double seconds = 20) {
        std::unique_lock guard(states->mutex);
        for (;;) {
            const bool isThere =
                states->changed.wait_for(guard, std::chrono::duration<double>(seconds),
                                         [&] { return !states->seen.empty(); });
            if (!isThere) return {};
            auto state = std::move(states->seen.front());
            states->seen.pop_front();
            if (state.kind != Kind::preparing) return state;
        }
    }
    static auto into(Awaited<Receipt>& receipt) {
        return [put = receipt.put()](std::optional<Data> data, NWConnection::ContentContext,
                                     bool isComplete, Error error) mutable {
            put({std::move(data), isComplete, std::move(error)});
        };
    }
    Receipt receive(std::size_t minimum = 1, std::size_t maximum = 65536) {
        Awaited<Receipt> receipt;
        connection->receive(minimum, maximum, into(receipt));
        return receipt.get();
    }
    Error send(Data data) {
        Awaited<Error> sent;
        connection->send(std::move(data), NWConnection::ContentContext::defaultMessage, true,
                         sent.put());
        return sent.get();
    }

    std::shared_ptr<NWConnection> connection;

private:
    struct States {
        std::mutex mutex;
        std::condition_variable changed;
        std::deque<NWConnection::State> seen;
    };
    std::shared_ptr<States> states = std::make_shared<States>();
};

// A client and the server that it has connected to.
class NetworkConnection : public ::testing::Test {
protected:
    void connect() {
        client.connection->start(queue);
        server = acceptFrom(listener);
        ASSERT_EQ(client.next().kind, Kind::ready);
    }

    FileDescriptor listener = listenOnLoopback();
    Client client{"127.0.0.1", portOf(listener)};
    FileDescriptor server;
};

TEST_F(NetworkConnection, CarriesBytesBothWaysAndTheStreamsEnd) {
    connect();
    EXPECT_EQ(client.send("request"), std::nullopt);
    EXPECT_EQ(receive(server, 7), "request");
    sendAll(server, "answer");
    EXPECT_EQ(client.receive().text(), "answer");
    ::shutdown(server.get(), SHUT_WR);
    const auto end = client.receive();
    EXPECT_TRUE(end.isComplete);
    EXPECT_EQ(end.text(), "");
    EXPECT_EQ(end.error, std::nullopt);
    // A send never closes the stream, and works after the peer's end.
    EXPECT_EQ(client.send("more"), std::nullopt);
    EXPECT_EQ(receive(server, 4), "more");
}

// Also what the system had taken already stays where it is, either way, and the end is a reset.
TEST_F(NetworkConnection, CarriesNothingOnceItIsHeldBack) {
    connect();
    Awaited<Error> sent;
    client.connection->send(std::string(20'000'000, 'x'),
                            NWConnection::ContentContext::defaultMessage, true, sent.put());
    Awaited<Receipt> receipt;
    client.connection->receive(1, 10, Client::into(receipt));
    EXPECT_FALSE(sent.isThere(0.1));
    client.connection->holdBack();
    EXPECT_FALSE(sent.isThere(0.1));
    const auto drained = [&] {
        std::string buffer(1'000'000, '\0');
        std::size_t total = 0;
        while (const auto count =
                   ::recv(server.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) {
            if (count < 0) break;
            total += static_cast<std::size_t>(count);
        }
        return total;
    };
    drained();
    // What was on its way has come, and the room that is now there draws nothing after it.
    EXPECT_FALSE(sent.isThere(0.1));
    drained();
    sendAll(server, "late");
    EXPECT_FALSE(sent.isThere(0.3));
    EXPECT_FALSE(receipt.isThere(0));
    EXPECT_EQ(drained(), 0u);
    client.connection->cancel();
    EXPECT_TRUE(sent.get());
    EXPECT_TRUE(receipt.get().error);
    EXPECT_EQ(client.next().kind, Kind::cancelled);
    char next = 0;
    EXPECT_EQ(::recv(server.get(), &next, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(NetworkConnection, ReceivesNoLessThanTheMinimumAndNoMoreThanTheMaximum) {
    connect();
    sendAll(server, "0123456789");
    EXPECT_EQ(client.receive(1, 4).text(), "0123");
    EXPECT_EQ(client.receive(6, 6).text(), "456789");
    Awaited<Receipt> receipt;
    client.connection->receive(6, 100, Client::into(receipt));
    sendAll(server, "abc");
    EXPECT_FALSE(receipt.isThere(0.05));
    sendAll(server, "def");
    EXPECT_EQ(receipt.get().text(), "abcdef");
    sendAll(server, "end");
    ::shutdown(server.get(), SHUT_WR);
    const auto last = client.receive(6, 100);
    EXPECT_EQ(last.text(), "end");
    EXPECT_TRUE(last.isComplete);
}

// A stream that comes fast is taken from the system in large pieces; that shows nowhere.
TEST_F(NetworkConnection, KeepsToMinimumAndMaximumInAFastStream) {
    const std::string bytes = randomBytes(1'000'000, 11);
    connect();
    sendAll(server, std::string_view(bytes).substr(0, 900'000));
    std::size_t position = 0;
    const auto expect = [&](std::size_t minimum, std::size_t maximum) {
        const auto received = client.receive(minimum, maximum);
        ASSERT_TRUE(received.data.has_value());
        EXPECT_GE(received.data->length(), minimum);
        EXPECT_LE(received.data->length(), maximum);
        if (received.data->bytes()) {
            EXPECT_TRUE(received.text() == bytes.substr(position, received.data->length()));
        }
        position += received.data->length();
    };
    expect(1, 65536);
    expect(1, 65536);  // from here on in large pieces
    expect(1, 10'000);
    expect(250'000, 300'000);  // more than is left of one
    expect(1, 65536);
    sendAll(server, std::string_view(bytes).substr(900'000));
    ::shutdown(server.get(), SHUT_WR);
    expect(bytes.size() - position, bytes.size());
}

TEST_F(NetworkConnection, APeerThatRefusesIsAFailure) {
    listener = FileDescriptor();
    Awaited<Receipt> early;
    client.connection->receive(1, 100, Client::into(early));
    client.connection->start(queue);
    const auto state = client.next();
    EXPECT_EQ(state.kind, Kind::failed);
    ASSERT_TRUE(state.error.has_value());
    EXPECT_EQ(state.error->code, ECONNREFUSED);
    EXPECT_EQ(state.error->localizedDescription, "Connection refused");
    EXPECT_TRUE(early.get().error.has_value());
    EXPECT_TRUE(client.send("x").has_value());
}

TEST_F(NetworkConnection, APeerThatResetsEndsTheOperations) {
    connect();
    Awaited<Receipt> receipt;
    client.connection->receive(1, 100, Client::into(receipt));
    makeClosingAbortive(server);
    server = FileDescriptor();
    const auto outcome = receipt.get();
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->code, ECONNRESET);
}

TEST_F(NetworkConnection, AfterCancelOperationsEndOnceThenTheLastStateThenNothing) {
    connect();
    EXPECT_EQ(client.send("x"), std::nullopt);
    Awaited<bool> failedBeforeTheLastState;
    client.connection->receive(1, 100,
                               [&, put = failedBeforeTheLastState.put()](
                                   auto, auto, bool isComplete, Error error) mutable {
                                   put(error && !isComplete && client.next(0).kind == Kind::setup);
                               });
    client.connection->cancel();
    client.connection->cancel();
    EXPECT_TRUE(failedBeforeTheLastState.get());
    EXPECT_EQ(client.next().kind, Kind::cancelled);
    client.connection->start(queue);
    EXPECT_TRUE(client.receive().error.has_value());
    EXPECT_TRUE(client.send("x").has_value());
    EXPECT_EQ(client.next(0.05).kind, Kind::setup);  // no other state
    EXPECT_EQ(receiveToEnd(server), "x");
}

TEST_F(NetworkConnection, StartAfterCancelConnectsNothing) {
    makeNonBlocking(listener);
    client.connection->cancel();
    client.connection->start(queue);
    EXPECT_EQ(client.next(0.1).kind, Kind::setup);  // no state at all
    EXPECT_FALSE(acceptFrom(listener));
}

TEST_F(NetworkConnection, MayBeLetGoFromItsOwnCallbacks) {
    for (int round = 0; round < 200; ++round) {
        auto held = std::make_shared<std::shared_ptr<NWConnection>>();
        *held = Client("127.0.0.1", portOf(listener)).giveAway();
        Awaited<bool> isGone;
        auto put = std::make_shared<decltype(isGone.put())>(isGone.put());
        (*held)->setStateUpdateHandler([held, put](const NWConnection::State& state) {
            if (state.kind != Kind::ready) return;
            *held = nullptr;
            (*put)(true);
        });
        (*held)->start(queue);
        EXPECT_TRUE(isGone.get());
        EXPECT_EQ(receiveToEnd(acceptFrom(listener)), "");
    }
}

TEST_F(NetworkConnection, CancellingBringsWhatWasSentToThePeerAllTheSame) {
    const std::string bytes = randomBytes(8'000'000, 5);
    connect();
    Awaited<Error> sent;
    client.connection->send(bytes, NWConnection::ContentContext::defaultMessage, true, sent.put());
    sendAll(server, "unread");
    EXPECT_FALSE(sent.isThere(0.1));  // more than the system takes
    client.connection->cancel();
    EXPECT_TRUE(sent.get().has_value());
    sendAll(server, "unread too");
    int error = 0;
    EXPECT_EQ(receiveToEnd(server, &error), bytes);
    EXPECT_EQ(error, 0);
}

TEST(NameResolver, FamiliesOfAddressesTakeTurns) {
    const auto v4 = [](const char* text) { return *SocketAddress::fromNumeric(text, 1); };
    const auto families = [](const std::vector<SocketAddress>& addresses) {
        std::string text;
        for (const auto& one : alternateFamilies(addresses))
            text += one.family() == AF_INET6 ? '6' : '4';
        return text;
    };
    EXPECT_EQ(families({v4("::1"), v4("::2"), v4("1.1.1.1"), v4("2.2.2.2")}), "6464");
    EXPECT_EQ(families({v4("1.1.1.1"), v4("::1"), v4("::2"), v4("::3")}), "4666");
    EXPECT_EQ(families({v4("1.1.1.1"), v4("2.2.2.2")}), "44");
    EXPECT_EQ(families({}), "");
}

class NetworkConnectionInWorld : public ::testing::Test {
protected:
    void SetUp() override {
        network = TestNetwork::make();
        if (!network) GTEST_SKIP() << "no namespaces here";
        listener = network->listenInWorld(TestNetwork::serverIPv4, 7000);
    }
    static Client started(const std::string& host, std::optional<std::string> interface = "eth0",
                          std::uint16_t port = 7000) {
        Client client(host, port, std::move(interface));
        client.connection->start(queue);
        return client;
    }

    std::unique_ptr<TestNetwork> network;
    FileDescriptor listener;
};

TEST_F(NetworkConnectionInWorld, LeavesByTheRequiredInterfaceThoughTheRouteIsTheTunnels) {
    const auto listenerIPv6 = network->listenInWorld(TestNetwork::serverIPv6, 7000);
    struct Case {
        const char* server;
        std::optional<std::string> interface;
        const char* source;
    };
    const Case cases[] = {{TestNetwork::serverIPv4, std::nullopt, "10.8.0.2"},
                          {TestNetwork::serverIPv4, "eth0", "192.0.2.2"},
                          {TestNetwork::serverIPv6, std::nullopt, "fd08::2"},
                          {TestNetwork::serverIPv6, "eth0", "fd02::2"}};
    for (const auto& [server, interface, source] : cases) {
        auto client = started(server, interface);
        ASSERT_EQ(client.next().kind, Kind::ready) << server;
        const bool isIPv4 = server == TestNetwork::serverIPv4;
        EXPECT_EQ(peerAddressOf(acceptFrom(isIPv4 ? listener : listenerIPv6)), source);
    }
}

TEST_F(NetworkConnectionInWorld, NoApplicationIsGivenThePortOfAConnectionToTheSamePlace) {
    runCommand("ip route del default; ip route add default via 192.0.2.1 dev eth0");
    std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << "40000 40001";
    auto client = started(TestNetwork::serverIPv4);
    ASSERT_EQ(client.next().kind, Kind::ready);
    const auto application = connectTo(TestNetwork::serverIPv4, 7000);
    ASSERT_TRUE(application);
    EXPECT_EQ(portOf(application), 40000);
    EXPECT_FALSE(connectTo(TestNetwork::serverIPv4, 7000));
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    // Our own connections share the port as long as they go to different places.
    const auto elsewhere = network->listenInWorld(TestNetwork::serverIPv4, 7001);
    auto second = started(TestNetwork::serverIPv4, "eth0", 7001);
    EXPECT_EQ(second.next().kind, Kind::ready);
    EXPECT_EQ(started(TestNetwork::serverIPv4).next().kind, Kind::waiting);
}

TEST(LocalPorts, AreEveryOtherOfTheRangeExceptReservedOnes) {
    const auto choosable = [](const char* range, const char* reserved) {
        std::istringstream rangeText(range);
        std::istringstream reservedText(reserved);
        return choosableLocalPorts(rangeText, reservedText);
    };
    using Ports = std::vector<std::uint16_t>;
    EXPECT_EQ(choosable("32768\t32773\n", "\n"), (Ports{32769, 32771, 32773}));
    EXPECT_EQ(choosable("65530 65535", "8080,65531,65533-65534\n"), (Ports{65535}));
    EXPECT_EQ(choosable("40000 40000", ""), Ports{});
    EXPECT_EQ(choosable("", ""), Ports{});
}

TEST_F(NetworkConnectionInWorld, WhatCannotBeReachedIsWaitedForAndTriedWhenThePathChanges) {
    runCommand("ip link set eth0 down");
    auto client = started(TestNetwork::serverIPv4);
    const auto state = client.next();
    ASSERT_EQ(state.kind, Kind::waiting);
    EXPECT_EQ(state.error->code, ENETUNREACH);
    // Not tried again without a reason, and another interface's news is none.
    runCommand("ip address add 192.0.2.99/32 dev lo");
    EXPECT_EQ(client.next(0.1).kind, Kind::setup);
    runCommand("ip link set eth0 up; ip route add default via 192.0.2.1 dev eth0");
    auto later = client.next();
    if (later.kind == Kind::waiting) later = client.next();  // tried before all was there
    EXPECT_EQ(later.kind, Kind::ready);

    auto missing = started(TestNetwork::serverIPv4, "eth7");
    const auto noDevice = missing.next();
    ASSERT_EQ(noDevice.kind, Kind::waiting);
    EXPECT_EQ(noDevice.error->code, ENODEV);
}

TEST_F(NetworkConnectionInWorld, ASilentPeerKeepsNobodyFromCancelling) {
    auto client = started(TestNetwork::silentIPv4);
    EXPECT_EQ(client.next(0.3).kind, Kind::setup);  // still preparing
    Awaited<Receipt> receipt;
    client.connection->receive(1, 100, Client::into(receipt));
    client.connection->cancel();
    EXPECT_TRUE(receipt.get().error.has_value());
    EXPECT_EQ(client.next().kind, Kind::cancelled);
}

TEST_F(NetworkConnectionInWorld, TheNextAddressOfANameGetsItsTurnWhileTheFirstIsSilent) {
    // Over the whole folder, as a bare system lacks /etc/hosts.
    runCommand(std::string("mount -t tmpfs none /etc; echo multi on >/etc/host.conf; "
                           ": >/etc/resolv.conf; for address in ") +
               TestNetwork::silentIPv4 + " " + TestNetwork::serverIPv4 +
               "; do echo $address two-addresses; done >/etc/hosts");
    EXPECT_EQ(started("two-addresses").next(5).kind, Kind::ready);
    EXPECT_EQ(started("no-such-name.invalid").next().kind, Kind::waiting);
}

TEST_F(NetworkConnectionInWorld, AnInterfaceOrAddressThatVanishesEndsItsConnections) {
    const auto listenerIPv6 = network->listenInWorld(TestNetwork::serverIPv6, 7000);
    auto overIPv6 = started(TestNetwork::serverIPv6);
    ASSERT_EQ(overIPv6.next().kind, Kind::ready);
    auto client = started(TestNetwork::serverIPv4);
    auto other = started(TestNetwork::serverIPv4, std::nullopt);
    ASSERT_EQ(client.next().kind, Kind::ready);
    ASSERT_EQ(other.next().kind, Kind::ready);
    Awaited<Receipt> receipt;
    client.connection->receive(1, 100, Client::into(receipt));
    runCommand("ip link set eth0 down; ip link set eth0 up");  // a lost cable may come back
    // The IPv6 address has gone with the cable.
    const auto end = overIPv6.next();
    ASSERT_EQ(end.kind, Kind::failed);
    EXPECT_EQ(end.error->code, ENETDOWN);
    EXPECT_FALSE(receipt.isThere(0.2));
    runCommand("ip link del eth0");
    ASSERT_TRUE(receipt.isThere());
    EXPECT_EQ(receipt.get().error->code, ENETDOWN);
    EXPECT_EQ(client.next().kind, Kind::failed);
    EXPECT_EQ(other.next(0.1).kind, Kind::setup);  // no news
}

}  // namespace
}  // namespace platform
