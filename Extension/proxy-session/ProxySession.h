// One claimed TCP flow being relayed: the application's side and a connection that is already bound to
// the physical interface. A session opens the flow, starts the connection, moves bytes both ways until
// either side ends, and then tears both down exactly once and tells its owner. There is no half-close:
// when one direction ends, the session ends.
//
// It lives in shared ownership: the table of sessions owns it while it runs, whoever kills it owns it
// until then. Callbacks that it gives away hold it weakly and do nothing once it is gone. Its callbacks,
// its timers and both cancels may overlap; the end is one atomic step and there is no lock. No one may
// cancel a session while holding `sessionsLock`: the completion takes that lock.
//
//   created ──start──► opening ──opened──► connecting ──ready──► relaying
//      └──────────────────┴──── cancel, cancelGracefully ──┴─────────┴──────► ended
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Logging.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/Network.h"

namespace vantry {

class ProxySession : public std::enable_shared_from_this<ProxySession> {
public:
    // Nothing starts yet. `sessionId` names the session in every line of its log.
    ProxySession(std::shared_ptr<platform::NEAppProxyTCPFlow> flow,
                 std::shared_ptr<platform::NWConnection> connection, std::string bundleId,
                 std::int64_t sessionId, platform::Logger logger);

    // Opens the flow and, once it is open, the connection. Called once. `onComplete` is called when the
    // session ends and must not own it. A session that was cancelled before its start opens nothing
    // and does not call it.
    void start(std::function<void()> onComplete);

    // From now on no byte passes either way; the session goes on until it is cancelled. Any thread.
    void holdBack();

    // Ends the session; the application sees an orderly end. Any thread, any number of times.
    void cancel();
    // Ends the session; the application sees a reset. Likewise.
    void cancelGracefully();

    const std::string bundleId;
    const std::int64_t sessionId;

private:
    // Asks whether a session has ended, for tests.
    friend class ProxyProbe;

    enum class State { created, opening, connecting, relaying, ended };

    bool isCancelled() const { return state == State::ended; }
    // Goes from one state to the next; false if the session is not in `from`, as when it has ended.
    bool advance(State from, State to) { return state.compare_exchange_strong(from, to); }
    void end(const std::optional<platform::NSError>& error);

    void flowOpened(const std::optional<platform::NSError>& error);
    void connectionStateChanged(const platform::NWConnection::State& newState);
    void armWaitingTimer();
    void waitingTimerFired();

    void startRelay();
    void relayFlowToConnection();
    void flowRead(std::optional<platform::Data> data,
                  const std::optional<platform::NSError>& error);
    void relayConnectionToFlow();
    void connectionReceived(std::optional<platform::Data> data, bool isComplete,
                            const std::optional<platform::NSError>& error);
    void flowWritten(bool wasLast, const std::optional<platform::NSError>& error);

    const std::shared_ptr<platform::NEAppProxyTCPFlow> flow;
    const std::shared_ptr<platform::NWConnection> connection;
    const platform::Logger logger;
    // Written by `start` before the state leaves `created`, read only after a later state was seen.
    std::function<void()> onComplete;
    std::atomic<State> state{State::created};
    std::atomic<bool> isHeldBack{false};
    // Whether the connection was waiting when its state was last heard of.
    std::atomic<bool> isConnectionWaiting{false};
};

}  // namespace vantry
