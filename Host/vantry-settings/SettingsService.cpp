#include "Host/vantry-settings/SettingsService.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <utility>

#include "Host/settings/Documents.h"
#include "Host/settings/Places.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Platform/Logging.h"

namespace vantrysettings {

using platform::Data;
using platform::FolderAccess;
using platform::FolderWatch;
using platform::JSONObject;
using platform::MutexGuard;
using Clock = TunnelState::Clock;
namespace places = vantryhost::places;

namespace {

const platform::Logger logger("org.quillmere.Vantry.Settings", "Settings");

constexpr std::string_view preferencesName = "preferences.json";
constexpr std::string_view rulesName = "org.quillmere.Vantry.rules.json";
// Files that could not be written are tried again.
constexpr int retryMilliseconds = 5000;

constexpr std::array<unsigned, 4> routeGroups{RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV4_RULE,
                                              RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV6_RULE};

// The clock counts as set back from here on; less is its being kept in step.
constexpr vantryhost::SecondsSince1970 smallestStep = 2;

vantryhost::SecondsSince1970 secondsBy(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec;
}

vantryhost::SecondsSince1970 now() { return secondsBy(CLOCK_REALTIME); }
vantryhost::SecondsSince1970 timeOfBoot() { return now() - secondsBy(CLOCK_BOOTTIME); }

platform::Result<> makeRuntimeFolder() {
    return platform::prepareSharedFolder(places::runtimeFolder, FolderAccess::everyoneMayRead);
}

platform::Result<> makePreferencesFolder() {
    return platform::prepareSharedFolder(places::preferencesFolder, FolderAccess::trustedGroupOnly);
}

bool concerns(const FolderWatch::Batch& batch, std::string_view name) {
    return batch.mayHaveMissedSome ||
           std::ranges::any_of(batch.events, [&](const auto& event) { return event.name == name; });
}

Data documentOf(const JSONObject& object) { return Data(vantryhost::documentOf(object)); }

JSONObject requestIn(const Data& data) {
    auto parsed = vantryhost::objectFrom("the request", data.bytes().value_or(""));
    auto* object = std::get_if<JSONObject>(&parsed);
    return object == nullptr ? JSONObject{} : std::move(*object);
}

// Of an event counter or a timer.
void readCounter(int counter) {
    eventfd_t ignored = 0;
    eventfd_read(counter, &ignored);
}

}  // namespace

SettingsService::SettingsService()
    : stopSignal(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      requestSignal(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      networkSignal(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      alarm(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)),
      bootTime(timeOfBoot()),
      preferencesFolder(places::preferencesFolder, makePreferencesFolder,
                        IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE),
      rulesFolder(
          "/tmp", [] { return platform::Result<>(); },
          IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB) {
    auto events = platform::netlink::Socket::open(NETLINK_ROUTE, routeGroups);
    if (events)
        routeEvents = std::move(*events);
    else
        logger.error("Routes cannot be followed, only interfaces: %{public}s",
                     events.error().text());
    networkToken = platform::NetworkMonitor::shared().observe(
        [this](const auto&) { eventfd_write(networkSignal.get(), 1); });
    // The socket says what is wrong with it.
    static_cast<void>(makeRuntimeFolder());
    owner.start(now());
    lookAtTunnel();
    sayProblems();
}

void SettingsService::run() {
    socket.emplace(
        places::settingsSocket, makeRuntimeFolder,
        [this](Data request, Answer answer) {
            {
                const MutexGuard hold(requestsLock);
                requests.emplace_back(std::move(request), std::move(answer));
            }
            eventfd_write(requestSignal.get(), 1);
        },
        platform::MessageSocket::Limits{});
    sd_notify(0, "READY=1");
    eventfd_t isStopped = 0;
    while (eventfd_read(stopSignal.get(), &isStopped) != 0) serveOneRound();
    sd_notify(0, "STOPPING=1");
    socket.reset();
}

void SettingsService::stop() { eventfd_write(stopSignal.get(), 1); }

void SettingsService::serveOneRound() {
    setAlarm();
    std::array<pollfd, 7> events{{{stopSignal.get(), POLLIN, 0},
                                  {requestSignal.get(), POLLIN, 0},
                                  {networkSignal.get(), POLLIN, 0},
                                  {alarm.get(), POLLIN, 0},
                                  {routeEvents ? routeEvents->descriptor() : -1, POLLIN, 0},
                                  {preferencesFolder.descriptor(), POLLIN, 0},
                                  {rulesFolder.descriptor(), POLLIN, 0}}};
    poll(events.data(), events.size(), millisecondsToWait());
    readCounter(requestSignal.get());
    readCounter(networkSignal.get());
    readCounter(alarm.get());
    if (routeEvents) routeEvents->discard();
    lookAtClock();
    lookAtTunnel();
    readFileEvents();
    owner.timePassed(now());
    answerRequests();
    sayProblems();
}

void SettingsService::setAlarm() {
    itimerspec time{};
    do {
        lookAtClock();
        const auto end = owner.nextEnd();
        time.it_value.tv_sec = end ? std::max<vantryhost::SecondsSince1970>(*end, 1) : 0;
        // Cancelled where the clock was set since it was looked at.
    } while (timerfd_settime(alarm.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &time,
                             nullptr) != 0 &&
             errno == ECANCELED);
}

// Set forward, the clock has what is temporary end early. Set back, it must not have it last.
void SettingsService::lookAtClock() {
    const auto before = std::exchange(bootTime, timeOfBoot());
    if (before - bootTime >= smallestStep) owner.clockWasSetBack(before - bootTime);
}

int SettingsService::millisecondsToWait() const {
    const bool isWatching = preferencesFolder.isWatching() && rulesFolder.isWatching();
    const int wait = owner.problems().empty() && isWatching ? -1 : retryMilliseconds;
    const auto look = tunnelState.looksAgainAt();
    if (!look) return wait;
    const auto untilLook = static_cast<int>(std::clamp<std::int64_t>(
        std::chrono::ceil<std::chrono::milliseconds>(*look - Clock::now()).count(), 0, 3'600'000));
    return wait < 0 ? untilLook : std::min(wait, untilLook);
}

void SettingsService::lookAtTunnel() {
    const auto* interfaces = owner.followedInterfaces();
    if (interfaces == nullptr) return;
    auto view =
        tunnelState.look(*platform::NetworkMonitor::shared().state(), *interfaces, Clock::now());
    keepTunnels();
    if (saidToBeUp == view.isUp() && view == tunnel) return;
    tunnel = std::move(view);
    if (saidToBeUp != tunnel.isUp())
        logger.info("The VPN is %{public}s",
                    tunnel.isUp() ? "up: " + tunnel.carrying.front() : std::string("down"));
    if (!tunnel.isUp() && !tunnel.split.empty())
        logger.info(
            "%{public}s carries some networks only and does not count as the VPN, as another "
            "tunnel carried all (vantryctl vpn follow -i INTERFACE says otherwise)",
            tunnel.split.front());
    saidToBeUp = tunnel.isUp();
    owner.tunnelChanged(tunnel);
}

void SettingsService::keepTunnels() {
    auto kinds = tunnelState.kinds();
    if (kinds == keptKinds) return;
    keptKinds = std::move(kinds);
    const auto kept = TunnelMemory::keep(keptKinds);
    if (const auto* failure = failureOf(kept))
        logger.error(
            "%{public}s If this service starts again while the VPN has no routes, that may count "
            "as up",
            failure->what);
}

void SettingsService::readFileEvents() {
    if (concerns(preferencesFolder.read(), preferencesName)) owner.preferencesTouched(now());
    // One that could not be written is tried again as well.
    if (concerns(rulesFolder.read(), rulesName) || !owner.problems().empty())
        owner.rulesFileTouched();
}

void SettingsService::answerRequests() {
    std::vector<Request> taken;
    {
        const MutexGuard hold(requestsLock);
        taken.swap(requests);
    }
    for (auto& [request, answer] : taken) {
        auto reply = owner.answer(requestIn(request), now());
        // Which interfaces are the VPN may have been chosen just now.
        lookAtTunnel();
        if (reply.find("revision") != reply.end()) reply = owner.report();
        answer(documentOf(reply));
    }
}

// Each problem once when it begins; that it has ended, too.
void SettingsService::sayProblems() {
    const auto& problems = owner.problems();
    for (const auto& problem : problems)
        if (std::ranges::find(saidProblems, problem) == saidProblems.end())
            logger.error("%{public}s", problem);
    for (const auto& problem : saidProblems)
        if (std::ranges::find(problems, problem) == problems.end())
            logger.info("No longer so: %{public}s", problem);
    saidProblems = problems;
}

}  // namespace vantrysettings
