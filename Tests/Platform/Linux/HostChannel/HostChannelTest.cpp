#include "Platform/Linux/HostChannel/HostChannel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <optional>

#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Tests/Platform/Linux/Attribution/RealPrograms.h"
#include "Tests/Platform/Linux/HostChannel/MessageClient.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

namespace platform::testing {
namespace {

using ::testing::HasSubstr;

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
        // Where this was built may be below a folder that is about to be hidden.
        const std::string program = contentOf(LOGIN_MANAGER);
        PrivateMachine::SetUp();
        if (IsSkipped()) return;
        writeFile(loginManager, program);
        chmod(loginManager, 0755);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/no-bus", 1);
    }
    static constexpr const char* loginManager = "/run/login-manager";
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
    channel.start(provider, {}, [] { return true; });
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

// A program of the bus; its lines are read and written here.
class BusProgram {
public:
    explicit BusProgram(std::vector<const char*> command)
        : program([&](int) {
              for (const int stream : {STDIN_FILENO, STDOUT_FILENO})
                  dup2(channel.far.get(), stream);
              command.push_back(nullptr);
              execv(command.front(), const_cast<char**>(command.data()));
          }) {}

    void tell(const std::string& line) const { sendAll(channel.near, line + "\n"); }
    // What it says next; null if it says nothing for so long.
    std::string said(int milliseconds = 20'000) const {
        pollfd state{channel.near.get(), POLLIN, 0};
        std::string line;
        while (!line.ends_with('\n') && poll(&state, 1, milliseconds) == 1)
            line += receive(channel.near, 1);
        return line;
    }

private:
    const SocketPair channel = connectedPair();
    const RunningProgram program;
};

constexpr const char* busConfiguration =
    "<busconfig><type>system</type><listen>unix:path=/run/bus</listen><auth>EXTERNAL</auth>"
    "<policy context='default'><allow send_destination='*'/><allow receive_sender='*'/>"
    "<allow own='*'/></policy></busconfig>";

TEST_F(HostChannelTest, SleepWaitsForTheProviderAndSurvivesTheBus) {
    if (access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/bus", 1);
    writeFile("/run/bus.conf", busConfiguration);
    std::optional<BusProgram> bus, manager;
    const auto startBus = [&] {
        bus.emplace(std::vector{"/usr/bin/dbus-daemon", "--config-file=/run/bus.conf", "--nofork",
                                "--print-address"});
        EXPECT_THAT(bus->said(), HasSubstr("/run/bus"));
    };
    const auto startManager = [&] {
        manager.emplace(std::vector{loginManager, "unix:path=/run/bus"});
        EXPECT_EQ(manager->said(), "ready\n");
        EXPECT_EQ(manager->said(), "taken\n");
    };
    startBus();
    HostChannel channel;
    channel.start(provider, {}, [] { return true; });
    startManager();
    const auto goToSleep = [&](int time) {
        manager->tell("sleep");
        ASSERT_TRUE(eventually([&] { return provider->sleeps == time; }));
        EXPECT_EQ(manager->said(50), "") << "the provider is not ready yet";
        provider->isReadyToSleep();
        EXPECT_EQ(manager->said(), "let go\n");
    };
    goToSleep(1);
    EXPECT_EQ(provider->wakes, 0);
    manager->tell("wake");
    EXPECT_EQ(manager->said(), "taken\n");
    EXPECT_TRUE(eventually([&] { return provider->wakes == 1; }));

    // A login manager that starts again is asked again.
    manager.reset();
    startManager();
    // So is a bus; a waking that was missed meanwhile is made up for.
    goToSleep(2);
    manager.reset();
    bus.reset();
    startBus();
    startManager();
    EXPECT_TRUE(eventually([&] { return provider->wakes == 2; }));
    goToSleep(3);
    channel.stop();
    EXPECT_EQ(provider->wakes, 2);
}

}  // namespace
}  // namespace platform::testing
