#include "Platform/Linux/HostChannel/MessageSocket.h"

#include <gtest/gtest.h>

#include <mutex>

#include "Tests/Platform/Linux/HostChannel/MessageClient.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

namespace platform::testing {
namespace {

constexpr const char* path = "/run/provider.sock";
using Answer = Completion<std::optional<Data>>;

std::optional<std::string> exchanged(const std::string& request) {
    return testing::exchanged(path, request);
}

void echo(Data request, Answer answer) { answer(Data("<" + std::string(*request.bytes()) + ">")); }

using MessageSocketTest = PrivateMachine;

TEST_F(MessageSocketTest, ARequestHasAtMostOneReply) {
    const auto socket =
        MessageSocket::listenAt(path,
                                [](Data request, Answer answer) {
                                    const std::string text(*request.bytes());
                                    if (text == "none") return answer(std::nullopt);
                                    if (text == "dropped") return;
                                    if (text == "later") {
                                        std::thread([answer = std::move(answer)]() mutable {
                                            answer(Data("late"));
                                        }).detach();
                                        return;
                                    }
                                    echo(request, std::move(answer));
                                },
                                {});
    ASSERT_TRUE(socket);
    EXPECT_EQ(exchanged("hello"), "<hello>");
    EXPECT_EQ(exchanged(""), "<>");
    EXPECT_EQ(exchanged("none"), "");
    EXPECT_EQ(exchanged("dropped"), "");
    EXPECT_EQ(exchanged("later"), "late");
    const std::string large(3 << 20, 'x');
    EXPECT_EQ(exchanged(large), "<" + large + ">");
}

TEST_F(MessageSocketTest, ClientsThatWaitHoldUpNobodyAndAreLetGo) {
    const auto socket = MessageSocket::listenAt(
        path, echo, {.clients = 2, .clientTime = std::chrono::milliseconds(300)});
    ASSERT_TRUE(socket);
    const auto silent = connected(path);
    sendAll(silent, "half a requ");
    EXPECT_EQ(exchanged("hello"), "<hello>");
    // Takes the last place and no reply: the next one waits until both have had their time.
    const auto stubborn = connected(path);
    sendAll(stubborn, std::string(4 << 20, 'x'));
    shutdown(stubborn.get(), SHUT_WR);
    EXPECT_EQ(exchanged("waits"), "<waits>");
    EXPECT_EQ(received(silent).value_or(""), "");
}

TEST_F(MessageSocketTest, AnAnswerThatNeverComesEndsTheConnection) {
    std::mutex lock;
    std::vector<Answer> kept;
    auto socket = MessageSocket::listenAt(path,
                                          [&](Data, Answer answer) {
                                              const std::lock_guard guard(lock);
                                              kept.push_back(std::move(answer));
                                          },
                                          {.handlerTime = std::chrono::milliseconds(200)});
    ASSERT_TRUE(socket);
    EXPECT_EQ(exchanged("hello"), "");
    // Answers that come after the client, and after the socket, have gone do no harm.
    const std::lock_guard guard(lock);
    kept.front()(Data("too late"));
    const auto waiting = connected(path);
    socket.reset();
    kept.clear();
    EXPECT_FALSE(connected(path));
}

TEST_F(MessageSocketTest, ARequestOfTooManyBytesIsRefused) {
    bool isHandled = false;
    auto socket = MessageSocket::listenAt(path,
                                          [&](Data, Answer answer) {
                                              isHandled = true;
                                              answer(Data("yes"));
                                          },
                                          {.requestBytes = 1000});
    ASSERT_TRUE(socket);
    EXPECT_EQ(exchanged(std::string(1000, 'x')), "yes");
    isHandled = false;
    EXPECT_NE(exchanged(std::string(1 << 20, 'x')), "yes");
    socket.reset();
    EXPECT_FALSE(isHandled);
}

TEST_F(MessageSocketTest, OnlyTrustedAccountsAreHeard) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    const auto socket = MessageSocket::listenAt(path, echo, {});
    ASSERT_TRUE(socket);
    struct stat made {};
    ASSERT_EQ(stat(path, &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0660U);
    EXPECT_EQ(made.st_gid, vantryGroupId);
    const auto isHeard = [] { return exchanged("x") == "<x>"; };
    EXPECT_TRUE(succeedsAs(strangerAccount, {vantryGroupId}, isHeard));
    EXPECT_FALSE(succeedsAs(strangerAccount, {}, isHeard));
    // Where the file's mode lets everybody in, the peer's account still decides.
    ASSERT_EQ(chmod(path, 0666), 0);
    EXPECT_FALSE(succeedsAs(strangerAccount, {}, isHeard));
    EXPECT_TRUE(succeedsAs(memberByAccount, {}, isHeard));
}

TEST_F(MessageSocketTest, TakesTheNameOverAndGivesUpOnlyItsOwn) {
    auto first = MessageSocket::listenAt(path, echo, {});
    ASSERT_TRUE(first);
    auto second = MessageSocket::listenAt(path, echo, {});
    ASSERT_TRUE(second);
    first.reset();
    EXPECT_EQ(exchanged("hello"), "<hello>");
    second.reset();
    struct stat made {};
    EXPECT_NE(lstat(path, &made), 0);
    EXPECT_FALSE(MessageSocket::listenAt("/run/missing/provider.sock", echo, {}));
}

}  // namespace
}  // namespace platform::testing
