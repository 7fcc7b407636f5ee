#include "Extension/proxy-session/ProxySession.h"

#include <utility>

namespace vantry {

using platform::Data;
using platform::DispatchQueue;
using platform::NSError;
using platform::NWConnection;
using platform::QualityOfService;
using Kind = NWConnection::State::Kind;

namespace {

constexpr double longestWaitInSeconds = 30.0;
constexpr std::size_t largestReceive = 65536;

}  // namespace

ProxySession::ProxySession(std::shared_ptr<platform::NEAppProxyTCPFlow> appFlow,
                           std::shared_ptr<NWConnection> networkConnection, std::string appBundleId,
                           std::int64_t id, platform::Logger providerLogger)
    : bundleId(std::move(appBundleId)),
      sessionId(id),
      flow(std::move(appFlow)),
      connection(std::move(networkConnection)),
      logger(providerLogger) {}

void ProxySession::start(std::function<void()> completion) {
    onComplete = std::move(completion);
    connection->setStateUpdateHandler(
        [weakSelf = weak_from_this()](const NWConnection::State& newState) {
            if (const auto self = weakSelf.lock()) self->connectionStateChanged(newState);
        });
    if (!advance(State::created, State::opening)) return;
    flow->openWithLocalEndpoint(nullptr,
                                [weakSelf = weak_from_this()](std::optional<NSError> error) {
                                    if (const auto self = weakSelf.lock()) self->flowOpened(error);
                                });
}

void ProxySession::flowOpened(const std::optional<NSError>& error) {
    if (error) {
        logger.error("Failed to open TCP flow: %{public}s", error->description());
        cancel();
        return;
    }
    advance(State::opening, State::connecting);
    connection->start(DispatchQueue::global(QualityOfService::userInitiated));
}

void ProxySession::connectionStateChanged(const NWConnection::State& newState) {
    isConnectionWaiting = newState.kind == Kind::waiting;
    if (isCancelled()) return;
    const auto description = newState.error ? newState.error->description() : std::string();
    switch (newState.kind) {
        case Kind::ready:
            logger.debug("sid=%ld Connection ready, starting relay", sessionId);
            startRelay();
            break;
        case Kind::waiting:
            logger.error("sid=%ld Connection waiting: %{public}s", sessionId, description);
            armWaitingTimer();
            break;
        case Kind::failed:
            logger.error("sid=%ld Connection failed: %{public}s", sessionId, description);
            cancel();
            break;
        case Kind::setup:
        case Kind::preparing:
        case Kind::cancelled:
            break;
    }
}

void ProxySession::armWaitingTimer() {
    DispatchQueue::global(QualityOfService::defaultQuality)
        .asyncAfter(longestWaitInSeconds, [weakSelf = weak_from_this()] {
            if (const auto self = weakSelf.lock()) self->waitingTimerFired();
        });
}

void ProxySession::waitingTimerFired() {
    if (isCancelled() || !isConnectionWaiting) return;
    logger.error("sid=%ld Connection stuck in .waiting(), cancelling", sessionId);
    cancel();
}

void ProxySession::startRelay() {
    if (!advance(State::connecting, State::relaying)) return;
    relayFlowToConnection();
    relayConnectionToFlow();
}

void ProxySession::relayFlowToConnection() {
    if (isCancelled()) return;
    flow->readData(
        [weakSelf = weak_from_this()](std::optional<Data> data, std::optional<NSError> error) {
            if (const auto self = weakSelf.lock()) self->flowRead(std::move(data), error);
        });
}

void ProxySession::flowRead(std::optional<Data> data, const std::optional<NSError>& error) {
    if (isCancelled()) return;
    if (error || !data || data->isEmpty()) return cancel();
    if (isHeldBack) return;
    connection->send(std::move(*data), NWConnection::ContentContext::defaultMessage, true,
                     [weakSelf = weak_from_this()](std::optional<NSError> sendError) {
                         const auto self = weakSelf.lock();
                         if (!self) return;
                         if (sendError) return self->cancel();
                         self->relayFlowToConnection();
                     });
}

void ProxySession::relayConnectionToFlow() {
    if (isCancelled()) return;
    connection->receive(
        1, largestReceive,
        [weakSelf = weak_from_this()](std::optional<Data> data, NWConnection::ContentContext,
                                      bool isComplete, std::optional<NSError> error) {
            if (const auto self = weakSelf.lock())
                self->connectionReceived(std::move(data), isComplete, error);
        });
}

void ProxySession::connectionReceived(std::optional<Data> data, bool isComplete,
                                      const std::optional<NSError>& error) {
    if (isCancelled()) return;
    if (error) return cancel();
    if (data && !data->isEmpty()) {
        if (isHeldBack) return;
        flow->writeData(std::move(*data), [weakSelf = weak_from_this(),
                                           isComplete](std::optional<NSError> writeError) {
            if (const auto self = weakSelf.lock()) self->flowWritten(isComplete, writeError);
        });
        return;
    }
    if (!isComplete)
        logger.debug("sid=%ld Empty receive without completion, cancelling", sessionId);
    cancel();
}

void ProxySession::flowWritten(bool wasLast, const std::optional<NSError>& error) {
    if (error || wasLast) return cancel();
    relayConnectionToFlow();
}

void ProxySession::holdBack() {
    isHeldBack = true;
    connection->holdBack();
}

void ProxySession::cancel() { end(std::nullopt); }

void ProxySession::cancelGracefully() {
    end(NSError{.domain = platform::NEAppProxyErrorDomain,
                .code = platform::NEAppProxyFlowErrorPeerReset,
                .localizedDescription = "The application's peer reset the flow"});
}

// The one way to the end. Whoever changes the state to `ended` closes both sides; a session that was
// never started has no completion to call.
void ProxySession::end(const std::optional<NSError>& error) {
    const auto before = state.exchange(State::ended);
    if (before == State::ended) return;
    connection->cancel();
    flow->closeReadWithError(error);
    flow->closeWriteWithError(error);
    if (before != State::created && onComplete) onComplete();
}

}  // namespace vantry
