#include "Platform/Linux/HostChannel/HostChannel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <optional>

#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Logging.h"
#include "Tests/Platform/Linux/HostChannel/MessageClient.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"
#include "Tests/Platform/Linux/HostChannel/StandInBus.h"

namespace platform::testing {
namespace {

class Provider final : public NETransparentProxyProvider {
public:
    void startProxy(std::optional<JSONObject>, ErrorCompletion) override {}
    void stopProxy(NEProviderStopReason, Completion<>) override {}
    bool handleNewFlow(const std::shared_ptr<NEAppProxyFlow>&) override { return false; }
    void handleAppMessage(Data message, Completion<std::optional<Data>> completion) override {
        whenAsked();
        completion(Data("re: " + std::string(*message.bytes())));
    }
    void sleep(Completion<> completion) override {
        const std::lock_guard guard(lock);
        ++sleeps;
        sleepCompletion = std::move(completion);
    }
    void wake() override { ++wakes; }

    void isReadyToSleep() {
        const std::lock_guard guard(lock);
        sleepCompletion();
    }

    std::function<void()> whenAsked = [] {};
    std::atomic<int> sleeps = 0;
    std::atomic<int> wakes = 0;

private:
    std::mutex lock;
    Completion<> sleepCompletion;
};

std::optional<std::string> ask(const std::string& request) {
    return exchanged(places::messageSocket, request);
}

void storePreferences(const std::string& content) { replaceFile(places::preferencesFile, content); }

class HostChannelTest : public PrivateMachine {
protected:
    void SetUp() override {
        PrivateMachine::SetUp();
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/no-bus", 1);
    }
    const std::shared_ptr<Provider> provider = std::make_shared<Provider>();
};

TEST_F(HostChannelTest, OnlyTrustedAccountsMayWriteInItsFolders) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    const HostChannel channel;
    for (const std::string folder :
         {places::notificationsFolder, places::preferencesFolder, places::groupContainer}) {
        const auto writes = [&] { return (std::ofstream(folder + "/file") << std::flush).good(); };
        EXPECT_TRUE(succeedsAs(strangerAccount, {vantryGroupId}, writes)) << folder;
        EXPECT_FALSE(succeedsAs(strangerAccount, {}, writes)) << folder;
    }
}

TEST_F(HostChannelTest, MessagesReachTheProviderUntilTheStop) {
    HostChannel channel;
    EXPECT_EQ(ask("early"), std::nullopt);
    channel.start(provider);
    EXPECT_EQ(ask("hello"), "re: hello");

    // A message that is under way at the stop is carried out before the stop returns.
    std::promise<void> asked;
    std::promise<void> mayAnswer;
    std::atomic<bool> isAnswered = false;
    provider->whenAsked = [&] {
        asked.set_value();
        mayAnswer.get_future().wait();
        isAnswered = true;
    };
    std::thread client([] { ask("last"); });
    asked.get_future().wait();
    std::thread release([&] { mayAnswer.set_value(); });
    channel.stop();
    EXPECT_TRUE(isAnswered);
    EXPECT_EQ(ask("late"), std::nullopt);
    client.join();
    release.join();
    EXPECT_EQ(provider.use_count(), 1);
}

TEST_F(HostChannelTest, TheServiceManagerHearsOfReadinessLifeAndStop) {
    const FileDescriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address{AF_UNIX, "/run/notify"};
    ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", "/run/notify", 1);
    setenv("WATCHDOG_USEC", "100000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    const auto heard = [&](int flags = 0) {
        char buffer[256];
        const ssize_t length = recv(manager.get(), buffer, sizeof buffer, flags);
        return std::string(buffer, length < 0 ? 0 : static_cast<std::size_t>(length));
    };

    HostChannel channel;
    EXPECT_EQ(heard(MSG_DONTWAIT), "");
    channel.start(provider);
    std::vector<std::string> messages;
    while (messages.size() < 4) messages.push_back(heard());
    EXPECT_EQ(std::ranges::count(messages, "READY=1"), 1);
    EXPECT_EQ(std::ranges::count(messages, "WATCHDOG=1"), 3);
    channel.stop();
    std::string last = heard();
    while (last == "WATCHDOG=1") last = heard();
    EXPECT_EQ(last, "STOPPING=1");
}

TEST_F(HostChannelTest, TheLogLevelFollowsThePreferences) {
    const auto isDebugging = [] { return Logger::isEnabled(LogLevel::debug); };
    const auto isInforming = [] { return Logger::isEnabled(LogLevel::info); };
    HostChannel channel;
    EXPECT_FALSE(isDebugging());
    storePreferences(R"({"logLevel":"debug"})");
    channel.start(provider);
    EXPECT_TRUE(eventually(isDebugging));
    storePreferences(R"({"logLevel":"error"})");
    EXPECT_TRUE(eventually([&] { return !isInforming(); }));
    std::filesystem::rename(places::preferencesFolder, "/var/lib/elsewhere");
    EXPECT_TRUE(eventually(isInforming));
    EXPECT_TRUE(eventually([] { return std::filesystem::exists(places::preferencesFolder); }));
    storePreferences(R"({"logLevel":"debug"})");
    EXPECT_TRUE(eventually(isDebugging));
    // What cannot be understood changes nothing: the word behind it shows that it has been read.
    storePreferences("{");
    storePreferences(R"({"logLevel":7})");
    EXPECT_TRUE(eventually([&] { return !isDebugging(); }));
    channel.stop();
}

TEST_F(HostChannelTest, PreferencesThatChangeAtEveryQuestion) {
    const HostChannel channel;
    const auto configuration = [&] {
        return std::dynamic_pointer_cast<const NETunnelProviderProtocol>(
            provider->protocolConfiguration());
    };
    const auto managers = [] {
        std::promise<std::optional<std::vector<NETunnelProviderManager>>> answer;
        NETunnelProviderManager::loadAllFromPreferences([&](auto list, auto error) {
            EXPECT_NE(list.has_value(), error.has_value());
            answer.set_value(std::move(list));
        });
        return answer.get_future().get();
    };
    EXPECT_EQ(configuration(), nullptr);
    EXPECT_EQ(managers()->size(), 0U);
    storePreferences(R"({"protocolConfiguration":{"providerBundleIdentifier":"org.example.proxy",
        "providerConfiguration":[]},
        "tunnelManagers":[{"providerBundleIdentifier":"com.example.vpn.tunnel"},{},7],"x":1})");
    ASSERT_NE(configuration(), nullptr);
    EXPECT_EQ(configuration()->providerBundleIdentifier(), "org.example.proxy");
    EXPECT_EQ(configuration()->providerConfiguration(), std::nullopt);
    ASSERT_EQ(managers()->size(), 3U);
    EXPECT_EQ(managers()->at(2).protocolConfiguration(), nullptr);
    for (const char* unusable : {"", "[]", "{\"a\":1}x"}) {
        storePreferences(unusable);
        EXPECT_EQ(configuration(), nullptr) << unusable;
        EXPECT_EQ(managers(), std::nullopt) << unusable;
    }
}

TEST_F(HostChannelTest, SleepWaitsForTheProviderAndSurvivesTheBus) {
    if (!StandInBus::isAvailable()) GTEST_SKIP() << "dbus-daemon is not installed";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", StandInBus::address, 1);
    std::optional<StandInBus> bus{std::in_place};
    std::optional<StandInLoginManager> manager{std::in_place};
    HostChannel channel;
    channel.start(provider);
    const auto sees = [&](const std::atomic<int>& count, int wanted) {
        return manager->servesUntil([&] { return count == wanted; });
    };
    const auto hasGiven = [&](std::size_t number) {
        return manager->servesUntil([&] { return manager->inhibitorsGiven() >= number; });
    };
    ASSERT_TRUE(hasGiven(1));

    manager->announceSleep(true);
    ASSERT_TRUE(sees(provider->sleeps, 1));
    EXPECT_TRUE(manager->isLastInhibitorHeld());
    provider->isReadyToSleep();
    EXPECT_FALSE(manager->isLastInhibitorHeld());
    EXPECT_EQ(provider->wakes, 0);
    manager->announceSleep(false);
    ASSERT_TRUE(sees(provider->wakes, 1));
    ASSERT_TRUE(hasGiven(2));

    // A login manager that starts anew is asked again.
    manager->giveUpItsName();
    manager->takeItsName();
    ASSERT_TRUE(hasGiven(3));
    EXPECT_TRUE(manager->isLastInhibitorHeld());

    // So is a bus; a waking that was missed meanwhile is made up for.
    manager->announceSleep(true);
    ASSERT_TRUE(sees(provider->sleeps, 2));
    provider->isReadyToSleep();
    manager.reset();
    bus.reset();
    bus.emplace();
    manager.emplace();
    ASSERT_TRUE(hasGiven(1));
    ASSERT_TRUE(sees(provider->wakes, 2));
    manager->announceSleep(true);
    ASSERT_TRUE(sees(provider->sleeps, 3));
    provider->isReadyToSleep();
    channel.stop();
    EXPECT_EQ(provider->wakes, 2);
}

}  // namespace
}  // namespace platform::testing
