#include "Platform/Linux/HostChannel/HostChannel.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "Platform/Linux/Attribution/SystemAccounts.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Files/UnreadFile.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"
#include "Platform/Linux/HostChannel/HostChannelLog.h"
#include "Platform/Linux/HostChannel/MessageSocket.h"
#include "Platform/Linux/HostChannel/Preferences.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Platform/Linux/HostChannel/SleepSignal.h"

namespace platform {

namespace {

constexpr std::string_view preferencesName = "preferences.json";

Result<> makePreferencesFolder() {
    return prepareSharedFolder(places::preferencesFolder, FolderAccess::trustedGroupOnly);
}

Result<> makeRuntimeFolder() {
    return prepareSharedFolder(places::runtimeFolder, FolderAccess::everyoneMayRead);
}

void makeFolders() {
    makeSharedFolder(places::runtimeFolder, FolderAccess::everyoneMayRead);
    makeSharedFolder(places::notificationsFolder, FolderAccess::trustedGroupOnly);
    makeSharedFolder(places::groupContainer, FolderAccess::trustedGroupOnly);
    makeSharedFolder(places::preferencesFolder, FolderAccess::trustedGroupOnly);
}

// Preferences that cannot be read leave everything as it is.
void applyPreferences(const HostChannel::PreferencesListener& listener) {
    const auto preferences = Preferences::load();
    if (!preferences) return;
    Logger::setLowestLevel(preferences->logLevel);
    setPersonalAccounts(preferences->personalAccounts);
    if (listener) listener(*preferences);
}

void tellServiceManager(const char* state) {
    if (const int result = sd_notify(0, state); result < 0)
        hostChannelLog.error("The service manager cannot be told %{public}s: %{public}s", state,
                             std::strerror(-result));
}

struct DropEventLoop {
    void operator()(sd_event* loop) const { sd_event_unref(loop); }
};

}  // namespace

// What exists between start and stop: two sockets, which have a thread each, and one thread
// for the preferences, the sleep signal and the service manager's watchdog.
class HostChannel::Running {
public:
    Running(std::shared_ptr<NETransparentProxyProvider> toServe, Questions::Sources sources,
            IsAlive isAlive, PreferencesListener preferencesListener);
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    MessageSocket::Handler messageHandler();
    SleepSignal::Listener sleepListener();
    void follow();
    int runLoop(sd_event& loop);
    int servePreferences(sd_event& loop);
    void readPreferences();
    void readPreferencesEvents();
    static int nextTryIsDue(sd_event_source* source, std::uint64_t due, void* self);

    int giveSignsOfLife(sd_event& loop);
    static int signOfLifeIsDue(sd_event_source* source, std::uint64_t due, void* self);
    static int stopIsAsked(sd_event_source* source, int descriptor, std::uint32_t events, void*);
    static int preferencesChanged(sd_event_source*, int, std::uint32_t, void* self);

    const std::shared_ptr<NETransparentProxyProvider> provider;
    const IsAlive isAlive;
    const PreferencesListener listener;
    std::uint64_t betweenSigns = 0;  // in microseconds
    const FileDescriptor stopSignal{eventfd(0, EFD_CLOEXEC)};
    FolderWatch preferencesWatch{places::preferencesFolder, makePreferencesFolder,
                                 IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE};
    bool isWatchServed = false;
    bool isUnread = false;
    health::Problem unreadPreferences{health::Place::hostChannel, "unreadPreferences",
                                      "The preferences cannot be read, it is tried again"};
    sd_event_source* nextTry = nullptr;
    MessageSocket messages;
    const Questions questions;
    std::thread follower;
};

HostChannel::Running::Running(std::shared_ptr<NETransparentProxyProvider> toServe,
                              Questions::Sources sources, IsAlive alive,
                              PreferencesListener preferencesListener)
    : provider(std::move(toServe)),
      isAlive(std::move(alive)),
      listener(std::move(preferencesListener)),
      messages(places::messageSocket, makeRuntimeFolder, messageHandler(), {}),
      questions(std::move(sources)),
      follower([this] { follow(); }) {}

HostChannel::Running::~Running() {
    eventfd_write(stopSignal.get(), 1);
    follower.join();
}

MessageSocket::Handler HostChannel::Running::messageHandler() {
    return [this](Data request, Completion<std::optional<Data>> answer) {
        if (request.bytes() == health::reportRequest) return answer(Data(health::report()));
        provider->handleAppMessage(std::move(request), std::move(answer));
    };
}

SleepSignal::Listener HostChannel::Running::sleepListener() {
    return {[this](Completion<> completion) { provider->sleep(std::move(completion)); },
            [this] { provider->wake(); }};
}

void HostChannel::Running::follow() {
    // What was stored before the watch began.
    readPreferences();
    sd_event* made = nullptr;
    int result = sd_event_new(&made);
    const std::unique_ptr<sd_event, DropEventLoop> loop(made);
    if (result >= 0) result = runLoop(*loop);
    if (result < 0)
        hostChannelLog.error("Preferences, sleep and the watchdog are not served: %{public}s",
                             std::strerror(-result));
}

int HostChannel::Running::runLoop(sd_event& loop) {
    if (const int result = sd_event_add_io(&loop, nullptr, stopSignal.get(), EPOLLIN,
                                           &Running::stopIsAsked, nullptr);
        result < 0)
        return result;
    if (const int result = servePreferences(loop); result < 0) return result;
    if (const int result = giveSignsOfLife(loop); result < 0) return result;
    const SleepSignal sleepSignal(loop, sleepListener());
    return sd_event_loop(&loop);
}

// Until they are watched, and have been read, each second.
int HostChannel::Running::servePreferences(sd_event& loop) {
    if (!isWatchServed && preferencesWatch.isWatching()) {
        const int result = sd_event_add_io(&loop, nullptr, preferencesWatch.descriptor(), EPOLLIN,
                                           &Running::preferencesChanged, this);
        if (result < 0) return result;
        isWatchServed = true;
    }
    if (isWatchServed && !isUnread) return 0;
    constexpr std::uint64_t microsecondsToNextTry = 1'000'000;
    if (nextTry == nullptr) {
        const int result =
            sd_event_add_time_relative(&loop, &nextTry, CLOCK_MONOTONIC, microsecondsToNextTry, 0,
                                       &Running::nextTryIsDue, this);
        if (result < 0) return result;
        // From here on it is the loop's.
        sd_event_source_set_floating(nextTry, 1);
        sd_event_source_unref(nextTry);
        return 0;
    }
    const int result = sd_event_source_set_time_relative(nextTry, microsecondsToNextTry);
    return result < 0 ? result : sd_event_source_set_enabled(nextTry, SD_EVENT_ONESHOT);
}

int HostChannel::Running::nextTryIsDue(sd_event_source* source, std::uint64_t, void* self) {
    return preferencesChanged(source, -1, 0, self);
}

int HostChannel::Running::giveSignsOfLife(sd_event& loop) {
    std::uint64_t longestSilence = 0;
    if (const int result = sd_watchdog_enabled(0, &longestSilence); result <= 0) return result;
    betweenSigns = longestSilence / 2;
    return sd_event_add_time_relative(&loop, nullptr, CLOCK_MONOTONIC, 0, 0,
                                      &Running::signOfLifeIsDue, this);
}

int HostChannel::Running::signOfLifeIsDue(sd_event_source* source, std::uint64_t, void* self) {
    const auto& running = *static_cast<const Running*>(self);
    if (running.isAlive()) tellServiceManager("WATCHDOG=1");
    const int result = sd_event_source_set_time_relative(source, running.betweenSigns);
    return result < 0 ? result : sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
}

int HostChannel::Running::stopIsAsked(sd_event_source* source, int, std::uint32_t, void*) {
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

int HostChannel::Running::preferencesChanged(sd_event_source* source, int, std::uint32_t,
                                             void* self) {
    auto& running = *static_cast<Running*>(self);
    running.readPreferencesEvents();
    return running.servePreferences(*sd_event_source_get_event(source));
}

void HostChannel::Running::readPreferencesEvents() {
    const auto batch = preferencesWatch.read();
    const auto concernsPreferences = [](const auto& event) {
        return event.name == preferencesName;
    };
    if (isUnread || batch.mayHaveMissedSome ||
        std::ranges::any_of(batch.events, concernsPreferences))
        readPreferences();
}

void HostChannel::Running::readPreferences() {
    static_cast<void>(takeUnreadFile());
    applyPreferences(listener);
    const auto file = takeUnreadFile();
    isUnread = file.has_value();
    if (file && unreadPreferences.begin(*file))
        hostChannelLog.error(
            "%{public}s. The preferences hold as they were; it is tried again each second", *file);
    if (!file && unreadPreferences.end())
        hostChannelLog.info("The preferences have been read, and are in force");
}

HostChannel::HostChannel() {
    makeFolders();
    applyPreferences({});
}

HostChannel::~HostChannel() { stop(); }

void HostChannel::start(std::shared_ptr<NETransparentProxyProvider> provider,
                        Questions::Sources sources, IsAlive isAlive, PreferencesListener listener) {
    running = std::make_unique<Running>(std::move(provider), std::move(sources), std::move(isAlive),
                                        std::move(listener));
}

void HostChannel::sayReady() { tellServiceManager("READY=1"); }

void HostChannel::stop() {
    if (!running) return;
    tellServiceManager("STOPPING=1");
    running.reset();
}

}  // namespace platform
