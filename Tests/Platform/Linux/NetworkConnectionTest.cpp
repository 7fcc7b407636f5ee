#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "Platform/Linux/Network/NameResolver.h"
#include "Platform/Linux/OwnTraffic.h"
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

TEST(NetworkConnection, CarriesBytesBothWaysAndTheStreamsEnd) {
    const auto listener = listenOnLoopback();
    Client client("127.0.0.1", portOf(listener));
    client.connection->start(queue);
    const auto server = acceptFrom(listener);
    ASSERT_EQ(client.next().kind, Kind::ready);
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

TEST(NetworkConnection, ReceivesNoLessThanTheMinimumAndNoMoreThanTheMaximum) {
    const auto listener = listenOnLoopback();
    Client client("127.0.0.1", portOf(listener));
    client.connection->start(queue);
    const auto server = acceptFrom(listener);
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
TEST(NetworkConnection, KeepsToMinimumAndMaximumInAFastStream) {
    const std::string bytes = randomBytes(1'000'000, 11);
    const auto listener = listenOnLoopback();
    Client client("127.0.0.1", portOf(listener));
    client.connection->start(queue);
    const auto server = acceptFrom(listener);
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

TEST(NetworkConnection, APeerThatRefusesIsAFailure) {
    auto listener = listenOnLoopback();
    const auto port = portOf(listener);
    listener = FileDescriptor();
    Client client("127.0.0.1", port);
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

TEST(NetworkConnection, APeerThatResetsEndsTheOperations) {
    const auto listener = listenOnLoopback();
    Client client("127.0.0.1", portOf(listener));
    client.connection->start(queue);
    auto server = acceptFrom(listener);
    ASSERT_EQ(client.next().kind, Kind::ready);
    Awaited<Receipt> receipt;
    client.connection->receive(1, 100, Client::into(receipt));
    const linger abortively{1, 0};
    ::setsockopt(server.get(), SOL_SOCKET, SO_LINGER, &abortively, sizeof abortively);
    server = FileDescriptor();
    const auto outcome = receipt.get();
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->code, ECONNRESET);
}

TEST(NetworkConnection, AfterCancelOperationsEndOnceThenTheLastStateThenNothing) {
    const auto listener = listenOnLoopback();
    Client client("127.0.0.1", portOf(listener));
    std::mutex mutex;
    std::vector<std::string> events;
    const auto note = [&](std::string event) {
        const std::lock_guard guard(mutex);
        events.push_back(std::move(event));
    };
    Awaited<bool> cancelled;
    client.connection->setStateUpdateHandler(
        [&, put = std::make_shared<decltype(cancelled.put())>(cancelled.put())](
            const NWConnection::State& state) {
            if (state.kind == Kind::preparing) return;
            note(state.kind == Kind::ready ? "ready" : "cancelled");
            if (state.kind == Kind::cancelled) (*put)(true);
        });
    client.connection->start(queue);
    const auto server = acceptFrom(listener);
    EXPECT_EQ(client.send("x"), std::nullopt);
    client.connection->receive(1, 100, [&](auto, auto, bool isComplete, Error error) {
        note(error && !isComplete ? "receive failed" : "received");
    });
    client.connection->cancel();
    client.connection->cancel();
    EXPECT_TRUE(cancelled.get());
    client.connection->start(queue);
    EXPECT_TRUE(client.receive().error.has_value());
    EXPECT_TRUE(client.send("x").has_value());
    const std::lock_guard guard(mutex);
    EXPECT_EQ(events, (std::vector<std::string>{"ready", "receive failed", "cancelled"}));
    EXPECT_EQ(receiveToEnd(server), "x");
}

TEST(NetworkConnection, StartAfterCancelConnectsNothing) {
    const auto listener = listenOnLoopback();
    makeNonBlocking(listener);
    Client client("127.0.0.1", portOf(listener));
    client.connection->cancel();
    client.connection->start(queue);
    EXPECT_EQ(client.next(0.1).kind, Kind::setup);  // no state at all
    EXPECT_FALSE(acceptFrom(listener));
}

TEST(NetworkConnection, MayBeLetGoFromItsOwnCallbacks) {
    const auto listener = listenOnLoopback();
    for (int round = 0; round < 200; ++round) {
        auto held = std::make_shared<std::shared_ptr<NWConnection>>();
        *held = std::make_shared<NWConnection>(
            NWEndpoint::Host("127.0.0.1"),
            *NWEndpoint::Port::fromString(std::to_string(portOf(listener))), NWParameters::tcp());
        Awaited<bool> isGone;
        auto put = std::make_shared<decltype(isGone.put())>(isGone.put());
        (*held)->setStateUpdateHandler([held, put](const NWConnection::State& state) {
            if (state.kind != Kind::ready) return;
            *held = nullptr;
            (*put)(true);
        });
        (*held)->start(queue);
        EXPECT_TRUE(isGone.get());
        const auto server = acceptFrom(listener);
        EXPECT_EQ(receiveToEnd(server), "");
    }
}

TEST(NetworkConnection, CancellingBringsWhatWasSentToThePeerAllTheSame) {
    const std::string bytes = randomBytes(8'000'000, 5);
    const auto listener = listenOnLoopback();
    Client client("127.0.0.1", portOf(listener));
    client.connection->start(queue);
    const auto server = acceptFrom(listener);
    ASSERT_EQ(client.next().kind, Kind::ready);
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

TEST(NetworkConnection, FamiliesOfAddressesTakeTurns) {
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
    }
    // For this test alone.
    static void replaceFile(const char* path, const std::string& content) {
        char name[] = "/tmp/file-of-test-XXXXXX";
        const FileDescriptor file(::mkstemp(name));
        EXPECT_EQ(::write(file.get(), content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
        ::chmod(name, 0644);
        EXPECT_EQ(::mount(name, path, nullptr, MS_BIND, nullptr), 0);
        ::unlink(name);
    }

    std::unique_ptr<TestNetwork> network;
};

TEST_F(NetworkConnectionInWorld, LeavesByTheRequiredInterfaceThoughTheRouteIsTheTunnels) {
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
        const auto listener = network->listenInWorld(server, 7000);
        Client client(server, 7000, interface);
        client.connection->start(queue);
        ASSERT_EQ(client.next().kind, Kind::ready) << server;
        const auto accepted = acceptFrom(listener);
        EXPECT_EQ(peerAddressOf(accepted), source);
        EXPECT_EQ(client.send("through"), std::nullopt);
        EXPECT_EQ(receive(accepted, 7), "through");
    }
}

TEST_F(NetworkConnectionInWorld, AnUnreachableHostIsTriedAgainWhenThePathChanges) {
    runCommand("ip link set eth0 down");
    const auto listener = network->listenInWorld(TestNetwork::serverIPv4, 7000);
    Client client(TestNetwork::serverIPv4, 7000, "eth0");
    client.connection->start(queue);
    const auto state = client.next();
    ASSERT_EQ(state.kind, Kind::waiting);
    EXPECT_EQ(state.error->code, ENETUNREACH);
    EXPECT_EQ(client.next(0.1).kind, Kind::setup);  // not tried again without a reason
    runCommand("ip link set eth0 up; ip route add default via 192.0.2.1 dev eth0");
    auto later = client.next();
    if (later.kind == Kind::waiting) later = client.next();  // tried before all was there
    EXPECT_EQ(later.kind, Kind::ready);
}

TEST_F(NetworkConnectionInWorld, AnInterfaceThatIsNotThereIsWaitedFor) {
    const auto listener = network->listenInWorld(TestNetwork::serverIPv4, 7000);
    Client client(TestNetwork::serverIPv4, 7000, "eth7");
    client.connection->start(queue);
    const auto state = client.next();
    ASSERT_EQ(state.kind, Kind::waiting);
    EXPECT_EQ(state.error->code, ENODEV);
}

TEST_F(NetworkConnectionInWorld, ASilentPeerKeepsNobodyFromCancelling) {
    Client client(TestNetwork::silentIPv4, 7000, "eth0");
    client.connection->start(queue);
    EXPECT_EQ(client.next(0.3).kind, Kind::setup);  // still preparing
    Awaited<Receipt> receipt;
    client.connection->receive(1, 100, Client::into(receipt));
    client.connection->cancel();
    EXPECT_TRUE(receipt.get().error.has_value());
    EXPECT_EQ(client.next().kind, Kind::cancelled);
}

TEST_F(NetworkConnectionInWorld, TheNextAddressOfANameGetsItsTurnWhileTheFirstIsSilent) {
    replaceFile("/etc/hosts", std::string(TestNetwork::silentIPv4) + " two-addresses\n" +
                                  TestNetwork::serverIPv4 + " two-addresses\n");
    replaceFile("/etc/resolv.conf", "");
    const auto listener = network->listenInWorld(TestNetwork::serverIPv4, 7000);
    Client client("two-addresses", 7000, "eth0");
    client.connection->start(queue);
    EXPECT_EQ(client.next(5).kind, Kind::ready);
    Client unknown("no-such-name.invalid", 7000, "eth0");
    unknown.connection->start(queue);
    EXPECT_EQ(unknown.next().kind, Kind::waiting);
}

TEST_F(NetworkConnectionInWorld, AnInterfaceThatVanishesEndsItsConnections) {
    const auto listener = network->listenInWorld(TestNetwork::serverIPv4, 7000);
    Client client(TestNetwork::serverIPv4, 7000, "eth0");
    Client other(TestNetwork::serverIPv4, 7000);
    client.connection->start(queue);
    other.connection->start(queue);
    ASSERT_EQ(client.next().kind, Kind::ready);
    ASSERT_EQ(other.next().kind, Kind::ready);
    Awaited<Receipt> receipt;
    client.connection->receive(1, 100, Client::into(receipt));
    runCommand("ip link set eth0 down; ip link set eth0 up");  // a lost cable may come back
    EXPECT_FALSE(receipt.isThere(0.2));
    runCommand("ip link del eth0");
    ASSERT_TRUE(receipt.isThere());
    EXPECT_EQ(receipt.get().error->code, ENETDOWN);
    EXPECT_EQ(client.next().kind, Kind::failed);
    EXPECT_EQ(other.next(0.1).kind, Kind::setup);  // no news
}

TEST_F(NetworkConnectionInWorld, OwnTrafficCarriesTheMark) {
    const auto listener = network->listenInWorld(TestNetwork::serverIPv4, 7000);
    runCommand(
        "nft add table ip t; "
        "nft add chain ip t out '{ type filter hook output priority 0; }'; "
        "nft add rule ip t out ip daddr 198.51.100.2 mark != 0x5000 reject with tcp reset");
    Client unmarked(TestNetwork::serverIPv4, 7000, "eth0");
    unmarked.connection->start(queue);
    EXPECT_EQ(unmarked.next().kind, Kind::failed);
    OwnTraffic::setMark(0x5000);
    Client marked(TestNetwork::serverIPv4, 7000, "eth0");
    marked.connection->start(queue);
    EXPECT_EQ(marked.next().kind, Kind::ready);
}

}  // namespace
}  // namespace platform
