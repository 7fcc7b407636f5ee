// The platform's side of the two providers: it builds them from the registration table, starts and
// stops them, puts their settings in force and answers their calls as scripted. Tests call the
// operations on their own thread; any thread may.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/NEProvider.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform::simulated {

// What came of a call whose completion says whether it worked.
class Outcome {
public:
    bool hasCome() const;
    // The error that came, if one did.
    std::optional<NSError> error() const;
    bool succeeded() const { return hasCome() && !error(); }

    // The platform's side.
    void come(std::optional<NSError> error) const;

private:
    struct State {
        Mutex mutex;
        bool hasCome GUARDED_BY(mutex) = false;
        std::optional<NSError> error GUARDED_BY(mutex);
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

// What came back for a message.
class Reply {
public:
    bool hasCome() const;
    // The reply's bytes; null if none came or the answer was none.
    std::optional<std::string> text() const;

    // The platform's side.
    void come(std::optional<Data> data) const;

private:
    struct State {
        Mutex mutex;
        bool hasCome GUARDED_BY(mutex) = false;
        std::optional<std::string> text GUARDED_BY(mutex);
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

// A call of setTunnelNetworkSettings or applySettings, and what came of it.
template <class Settings>
struct SettingsCall {
    Settings settings;
    bool isAnswered = false;
    std::optional<NSError> error = {};
};

// The calls that put one kind of settings in force: carried out in their order, each with the
// outcome that was scripted for it, success where none was.
template <class Settings>
class SettingsInForce {
public:
    using ErrorCompletion = Completion<std::optional<NSError>>;

    explicit SettingsInForce(Scheduler& source) : scheduler(source), order(source.makeLane()) {}

    // The outcomes of the next calls, in order: an error, or nothing for success.
    void script(std::vector<std::optional<NSError>> outcomes);
    // Lets calls wait until they are released.
    void hold();
    void release();

    std::vector<SettingsCall<Settings>> calls() const;
    std::optional<Settings> inForce() const;
    void withdraw();

    // The core's side. `appliedHook` hears of the settings that come into force: old, new.
    using AppliedHook = void (*)(const std::optional<Settings>& old, const Settings& now);
    void call(Settings settings, ErrorCompletion completion, AppliedHook appliedHook);

private:
    struct Pending {
        std::size_t index;
        ErrorCompletion completion;
        AppliedHook appliedHook;
    };
    void schedule();
    void carryOutNext();

    Scheduler& scheduler;
    const Scheduler::Lane order;
    mutable Mutex mutex;
    std::deque<std::optional<NSError>> scripted GUARDED_BY(mutex);
    bool isHeld GUARDED_BY(mutex) = false;
    std::size_t waiting GUARDED_BY(mutex) = 0;  // pending calls without an event
    std::vector<SettingsCall<Settings>> made GUARDED_BY(mutex);
    std::deque<Pending> pending GUARDED_BY(mutex);
    std::optional<Settings> present GUARDED_BY(mutex);
};

class ProviderHost {
public:
    explicit ProviderHost(Scheduler& source)
        : proxySettings(source), filterSettings(source), scheduler(source) {}

    // The provider objects, built when first asked for.
    std::shared_ptr<NETransparentProxyProvider> proxy();
    std::shared_ptr<NEFilterDataProvider> filter();
    // The platform's reference is dropped; what is under way finds its owner gone.
    void letGoOfProxy();
    void letGoOfFilter();

    // The platform's calls, on the caller's thread. The outcome comes when the provider answers.
    Outcome startFilter();
    Outcome stopFilter(NEProviderStopReason reason);
    Outcome startProxy(const std::optional<JSONObject>& options);
    Outcome stopProxy(NEProviderStopReason reason);
    Outcome sleep();
    void wake();
    Reply message(Data data);
    void messageWithoutReply(Data data);
    // What the extension's `main` sets off: both starts, as events, the filter's first.
    void startExtension();

    // Whether new flows are shown to a provider now.
    bool isProxyOffered(NENetworkRule::Protocol protocol, const RemoteEndpoint& remote) const;
    bool isFilterAsked() const;

    SettingsInForce<NETransparentProxyNetworkSettings> proxySettings;
    SettingsInForce<NEFilterSettings> filterSettings;

private:
    Scheduler& scheduler;
    mutable Mutex mutex;
    std::shared_ptr<NETransparentProxyProvider> proxyProvider GUARDED_BY(mutex);
    std::shared_ptr<NEFilterDataProvider> filterProvider GUARDED_BY(mutex);
};

}  // namespace platform::simulated
