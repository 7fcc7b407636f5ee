#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "Platform/Linux/ClosedLast.h"
#include "Platform/Linux/Daemon/Arguments.h"
#include "Platform/Linux/Daemon/RunningInterception.h"
#include "Platform/Linux/Dispatch/MainQueue.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/HostChannel/HostChannel.h"
#include "Platform/Linux/HostChannel/Preferences.h"
#include "Platform/Linux/LastWords.h"
#include "Platform/Linux/Logging/LogStore.h"
#include "Platform/Linux/Network/StoredRoutes.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/Recording/RecordedProviders.h"
#include "Platform/NEProvider.h"

namespace platform {

namespace {

using interception::Interception;
using interception::Providers;
using interception::RunningInterception;

constexpr std::chrono::seconds longestStart{10};
constexpr std::chrono::milliseconds betweenLooks{50};
constexpr std::chrono::milliseconds longestStop{800};
constexpr std::chrono::milliseconds longestFarewell{1000};
constexpr std::chrono::milliseconds longestEnd{2500};
constexpr std::chrono::milliseconds longestFlush{300};

sigset_t endSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

// Calls `operation` with a completion and waits for that, so long as is reasonable. What the
// completion was given; null if it did not come.
template <class Result, class Operation>
std::optional<Result> await(std::chrono::milliseconds longest, Operation operation) {
    const auto done = std::make_shared<std::promise<Result>>();
    auto result = done->get_future();
    operation(done);
    if (result.wait_for(longest) != std::future_status::ready) return std::nullopt;
    return result.get();
}

bool isToEnd() {
    sigset_t pending;
    return sigpending(&pending) == 0 &&
           (sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1);
}

// A start that is refused for now is not waited for when the process is to end.
template <class Operation>
void awaitStart(Operation operation) {
    const auto done = std::make_shared<std::promise<void>>();
    const auto result = done->get_future();
    const auto deadline = std::chrono::steady_clock::now() + longestStart;
    operation(done);
    while (result.wait_for(betweenLooks) != std::future_status::ready && !isToEnd() &&
           std::chrono::steady_clock::now() < deadline) {
    }
}

void startFilter(const Providers& providers) {
    awaitStart([&](auto done) {
        providers.filter->startFilter([done](const std::optional<NSError>&) { done->set_value(); });
    });
}

void startProxy(const Providers& providers) {
    awaitStart([&](auto done) {
        providers.proxy->startProxy(std::nullopt,
                                    [done](const std::optional<NSError>&) { done->set_value(); });
    });
}

// From here on nothing is asked of the providers. What their end does to the state that they share
// would otherwise meet connections which go on without us.
void endOffers(Interception& interception) {
    await<bool>(longestStop, [&](auto done) {
        interception.endOffers(
            [done](const std::optional<NSError>& error) { done->set_value(!error); });
    });
}

void stopProxy(const Providers& providers) {
    await<bool>(longestStop, [&](auto done) {
        providers.proxy->stopProxy(NEProviderStopReason::userInitiated,
                                   [done] { done->set_value(true); });
    });
}

void stopFilter(const Providers& providers) {
    await<bool>(longestStop, [&](auto done) {
        providers.filter->stopFilter(NEProviderStopReason::userInitiated,
                                     [done] { done->set_value(true); });
    });
}

// Whatever a provider or a verdict hangs in, the process ends in time.
void endInAnyCase(int status) {
    std::thread([status] {
        std::this_thread::sleep_for(longestEnd);
        platformLog.error("The end took too long; leaving at once");
        flushLog(longestFlush);
        _exit(status);
    }).detach();
}

// A relayed connection takes two descriptors; the usual soft limit would do for a few hundred. Nothing here
// uses select(), for which that limit is made.
void allowAsManyDescriptorsAsPermitted() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// A datagram of an application whose connections are direct goes with them.
JSONObject explainedWithSteering(const Providers& providers, const FlowQuestion& question) {
    const auto route = [](const JSONObject& answer) {
        const auto found = answer.find("route");
        const auto* text = found == answer.end() ? nullptr : found->second.as<std::string>();
        return text == nullptr ? std::string() : *text;
    };
    auto explained = providers.explain(question);
    if (!question.isDatagram || question.remote.port == "53" || route(explained) != "system")
        return explained;
    auto asConnection = providers.explain({question.metaData, question.remote});
    return route(asConnection) == "direct" ? asConnection : explained;
}

Providers makeProviders() {
    const auto proxy = registeredProviders.makeProxyProvider();
    const auto filter = registeredProviders.makeFilterProvider();
    return {recording::followed(proxy), recording::followed(filter),
            recording::followed([proxy, filter](const FlowQuestion& question) {
                return registeredProviders.explain(*proxy, *filter, question);
            })};
}

// What the host application's questions need of others.
Questions::Sources answersFrom(const Providers& providers) {
    return {.explain =
                [providers](const FlowQuestion& question) {
                    const auto interception = RunningInterception::get();
                    const bool areDatagramsSteered =
                        interception && interception->areDatagramsDirect();
                    return areDatagramsSteered ? explainedWithSteering(providers, question)
                                               : providers.explain(question);
                },
            .ownerOf = [](const FlowTuple& flow) -> std::optional<FlowOwner> {
                const auto interception = RunningInterception::get();
                return interception ? interception->ownerOf(flow) : std::nullopt;
            }};
}

// Waits until flows are decided, and says so; then for the signal to end. The status to end with: a start
// that cannot succeed ends at once.
int serve(const Interception& interception, HostChannel& channel) {
    const sigset_t signals = endSignals();
    constexpr timespec moment{0, std::chrono::nanoseconds(betweenLooks).count()};
    while (!interception.isInForce()) {
        if (const auto failure = interception.failure()) {
            platformLog.error("Flows cannot be decided: %{public}s", failure->text());
            return EXIT_FAILURE;
        }
        if (sigtimedwait(&signals, nullptr, &moment) > 0) return EXIT_SUCCESS;
    }
    channel.sayReady();
    int received = 0;
    sigwait(&signals, &received);
    return EXIT_SUCCESS;
}

Interception::Choices choicesInPreferences() {
    const auto preferences = Preferences::load();
    const bool isRelayWanted = preferences && preferences->isRelayWanted;
    Interception::Choices choices;
    if (!isRelayWanted) choices.carriage = interception::Carriage::kernel;
    return choices;
}

// The life of the extension, on a thread of its own.
void runExtension() {
    const health::Gauge lostLines(health::Place::log, "logLinesLost", "Log lines lost",
                                  lostLogLines);
    HostChannel channel;
    const StoredRoutes storedRoutes;
    const auto providers = makeProviders();
    auto interception = std::make_shared<Interception>(providers, choicesInPreferences());
    RunningInterception::set(interception);
    startFilter(providers);
    startProxy(providers);
    channel.start(
        providers.proxy, answersFrom(providers),
        [interception] { return interception->areVerdictsMoving(); },
        [interception](const Preferences& preferences) {
            interception->setDirectDatagrams(preferences.areDatagramsDirect);
        });
    const int status = serve(*interception, channel);

    endInAnyCase(status);
    channel.stop();
    endOffers(*interception);
    stopProxy(providers);
    interception->awaitEndsOfClaimed(longestFarewell);
    stopFilter(providers);
    RunningInterception::set(nullptr);
    interception.reset();
    flushLog(longestFlush);
    MainQueue::shared().stop(status);
}

}  // namespace

void NEProvider::startSystemExtensionMode() {
    answerArguments();
    endInWordsWhereRefused();
    closedLast::keepFree();
    // Every thread inherits this: only the one that waits for them sees these signals.
    const sigset_t signals = endSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    allowAsManyDescriptorsAsPermitted();
    std::thread(runExtension).detach();
}

}  // namespace platform
