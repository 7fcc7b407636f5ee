#include "Platform/Linux/HostChannel/MessageSocket.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <utility>
#include <vector>

#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Tests/Platform/Linux/HostChannel/MessageClient.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

namespace platform::testing {
namespace {

constexpr const char* folder = "/run/messages";
constexpr const char* path = "/run/messages/provider.sock";
using Answer = Completion<std::optional<Data>>;

std::optional<std::string> exchanged(const std::string& request) {
    return testing::exchanged(path, request);
}

void echo(Data request, Answer answer) { answer(Data("<" + std::string(*request.bytes()) + ">")); }

Result<> makeFolder() { return prepareSharedFolder(folder, FolderAccess::everyoneMayRead); }

std::unique_ptr<MessageSocket> listening(MessageSocket::Handler handler,
                                         MessageSocket::Limits limits = {}) {
    return std::make_unique<MessageSocket>(path, makeFolder, std::move(handler), limits);
}

struct stat statusOf(const char* place) {
    struct stat status {};
    lstat(place, &status);
    return status;
}

using MessageSocketTest = PrivateMachine;

TEST_F(MessageSocketTest, ARequestHasAtMostOneReply) {
    const auto socket = listening([](Data request, Answer answer) {
        const std::string text(*request.bytes());
        if (text == "none") return answer(std::nullopt);
        if (text == "dropped") return;
        if (text == "later") {
            std::thread([answer = std::move(answer)]() mutable { answer(Data("late")); }).detach();
            return;
        }
        echo(request, std::move(answer));
    });
    EXPECT_EQ(exchanged("hello"), "<hello>");
    EXPECT_EQ(exchanged(""), "<>");
    EXPECT_EQ(exchanged("none"), "");
    EXPECT_EQ(exchanged("dropped"), "");
    EXPECT_EQ(exchanged("later"), "late");
    const std::string large(3 << 20, 'x');
    EXPECT_EQ(exchanged(large), "<" + large + ">");
}

TEST_F(MessageSocketTest, ClientsThatWaitHoldUpNobodyAndAreLetGo) {
    const auto socket =
        listening(echo, {.clients = 2, .clientTime = std::chrono::milliseconds(300)});
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
    auto socket = listening(
        [&](Data, Answer answer) {
            const std::lock_guard guard(lock);
            kept.push_back(std::move(answer));
        },
        {.handlerTime = std::chrono::milliseconds(200)});
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
    auto socket = listening(
        [&](Data, Answer answer) {
            isHandled = true;
            answer(Data("yes"));
        },
        {.requestBytes = 1000});
    EXPECT_EQ(exchanged(std::string(1000, 'x')), "yes");
    isHandled = false;
    EXPECT_NE(exchanged(std::string(1 << 20, 'x')), "yes");
    socket.reset();
    EXPECT_FALSE(isHandled);
}

TEST_F(MessageSocketTest, OnlyTrustedAccountsAreHeard) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    const auto socket = listening(echo);
    EXPECT_EQ(statusOf(path).st_mode & 07777, 0660U);
    EXPECT_EQ(statusOf(path).st_gid, vantryGroupId);
    const auto isHeard = [] { return exchanged("x") == "<x>"; };
    EXPECT_TRUE(succeedsAs(strangerAccount, {vantryGroupId}, isHeard));
    EXPECT_FALSE(succeedsAs(strangerAccount, {}, isHeard));
    // Where the file's mode lets everybody in, the peer's account still decides.
    ASSERT_EQ(chmod(path, 0666), 0);
    EXPECT_FALSE(succeedsAs(strangerAccount, {}, isHeard));
    EXPECT_TRUE(succeedsAs(memberByAccount, {}, isHeard));
}

TEST_F(MessageSocketTest, TakesTheNameOverAndGivesUpOnlyItsOwn) {
    auto first = listening(echo);
    auto second = listening(echo);
    first.reset();
    EXPECT_EQ(exchanged("hello"), "<hello>");
    second.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(MessageSocketTest, IsMadeAsSoonAsItsFolderCanBeTrusted) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    ASSERT_EQ(mkdir(folder, 0755), 0);
    ASSERT_EQ(chown(folder, strangerAccount, strangerAccount), 0);
    const auto socket = listening(echo);
    EXPECT_FALSE(std::filesystem::exists(path));
    ASSERT_EQ(chown(folder, 0, 0), 0);
    EXPECT_TRUE(eventually([] { return exchanged("hello") == "<hello>"; }));
}

}  // namespace
}  // namespace platform::testing
