// What the programs in the kernel tell of sockets that end in each of the ways there are.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>

#include "Platform/Linux/Attribution/SocketDiagnosis.h"
#include "Platform/Linux/Kernel/SteeringPrograms.h"
#include "Tests/Platform/Linux/Daemon/InterceptionLab.h"

namespace platform {

namespace {

using interception::ClientSocket;
using interception::InterceptionLab;

class SteeredSockets : public testing::Test {
protected:
    void SetUp() override {
        auto attached = SteeringPrograms::attach();
        if (!attached) GTEST_SKIP() << attached.error().text();
        programs = std::move(*attached);
    }
    static std::uint64_t cookieOf(const ClientSocket& socket) {
        std::uint64_t cookie = 0;
        socklen_t length = sizeof cookie;
        getsockopt(socket.descriptor(), SOL_SOCKET, SO_COOKIE, &cookie, &length);
        return cookie;
    }
    std::uint64_t follow(const ClientSocket& socket) const {
        const auto cookie = cookieOf(socket);
        EXPECT_TRUE(programs->follow(cookie, 1, 0x8a000000, 0xff000000));
        return cookie;
    }
    // The entry once there has been an event of it.
    SteeredSocket afterEvent(std::uint64_t cookie) const {
        pollfd events{programs->eventDescriptor(), POLLIN, 0};
        bool isTold = false;
        while (!isTold && poll(&events, 1, 3000) == 1)
            EXPECT_TRUE(
                programs->takeEvents([&](std::uint64_t told) { isTold |= told == cookie; }));
        EXPECT_TRUE(isTold);
        return programs->look(cookie).value_or(SteeredSocket{});
    }

    InterceptionLab lab;
    std::unique_ptr<SteeringPrograms> programs;
};

TEST_F(SteeredSockets, LifeIsToldAndTheMarkSetBesideTheApplicationsOwn) {
    ClientSocket client(AF_INET, SOCK_STREAM);
    int mark = 7;
    ASSERT_EQ(setsockopt(client.descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
    const auto cookie = follow(client);
    ASSERT_EQ(client.connectTo(TestNetwork::serverIPv4, InterceptionLab::echoPort), 0);
    EXPECT_EQ(afterEvent(cookie).isEstablished, 1u);
    socklen_t length = sizeof mark;
    getsockopt(client.descriptor(), SOL_SOCKET, SO_MARK, &mark, &length);
    EXPECT_EQ(static_cast<std::uint32_t>(mark), 0x8a000007);
    shutdown(client.descriptor(), SHUT_WR);
    // The server ends too, so that it is over in order while the application holds it still.
    const auto over = afterEvent(cookie);
    EXPECT_EQ(over.isClosed, 1u);
    EXPECT_EQ(over.isReleased, 0u);
    EXPECT_EQ(over.error, 0);
}

TEST_F(SteeredSockets, ErrorIsTheOneThatTheApplicationGets) {
    ClientSocket refused(AF_INET, SOCK_STREAM);
    const auto cookie = follow(refused);
    ASSERT_EQ(refused.connectTo(TestNetwork::serverIPv4, 9), ECONNREFUSED);
    EXPECT_EQ(afterEvent(cookie).error, ECONNREFUSED);
    EXPECT_EQ(programs->look(cookie)->isEstablished, 0u);
}

TEST_F(SteeredSockets, ApplicationThatLetsGoIsToldFromANetworksEnd) {
    std::uint64_t cookie = 0;
    {
        ClientSocket client(AF_INET6, SOCK_STREAM);
        ASSERT_EQ(client.connectTo(TestNetwork::serverIPv6, InterceptionLab::echoPort), 0);
        cookie = follow(client);
    }
    EXPECT_EQ(afterEvent(cookie).isReleased, 1u);
}

TEST_F(SteeredSockets, AttemptThatIsOverBeforeItIsFollowedIsKnownUntilTheNextOne) {
    ClientSocket client(AF_INET, SOCK_STREAM);
    ASSERT_EQ(client.connectTo(TestNetwork::serverIPv4, 9), ECONNREFUSED);
    EXPECT_TRUE(programs->wasOverBefore(cookieOf(client)));
    ASSERT_EQ(client.connectTo(TestNetwork::serverIPv4, InterceptionLab::echoPort), 0);
    EXPECT_FALSE(programs->wasOverBefore(cookieOf(client)));

    std::uint64_t given = 0;
    {
        ClientSocket givenUp(AF_INET, SOCK_STREAM);
        given = cookieOf(givenUp);
        fcntl(givenUp.descriptor(), F_SETFL, O_NONBLOCK);
        ASSERT_EQ(givenUp.connectTo(TestNetwork::silentIPv4, 9), EINPROGRESS);
    }
    EXPECT_TRUE(programs->wasOverBefore(given));
}

}  // namespace

}  // namespace platform
