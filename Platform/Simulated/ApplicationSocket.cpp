#include "Platform/Simulated/ApplicationSocket.h"

#include <utility>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/FlowBytes.h"
#include "Platform/Simulated/Machine.h"

namespace platform {

using simulated::breach;
using simulated::machine;

namespace {

NSError notConnected() { return {NEAppProxyErrorDomain, 1, "The flow is not connected"}; }
NSError aborted() { return {NEAppProxyErrorDomain, 5, "The flow was ended by the filter"}; }

}  // namespace

void NEAppProxyTCPFlow::Implementation::applicationSends(std::string bytes) {
    const MutexGuard guard(mutex);
    toRead.push_back({Piece::Kind::bytes, std::move(bytes), std::nullopt});
    serveRead();
}

void NEAppProxyTCPFlow::Implementation::applicationEndsSending() {
    const MutexGuard guard(mutex);
    toRead.push_back({Piece::Kind::end, {}, std::nullopt});
    serveRead();
}

void NEAppProxyTCPFlow::Implementation::applicationFails(NSError error) {
    const MutexGuard guard(mutex);
    toRead.push_back({Piece::Kind::error, {}, std::move(error)});
    serveRead();
}

void NEAppProxyTCPFlow::Implementation::applicationStopsReading() {
    const MutexGuard guard(mutex);
    applicationReads = false;
}

void NEAppProxyTCPFlow::Implementation::applicationReadsOn() {
    const MutexGuard guard(mutex);
    applicationReads = true;
    serveWrite();
}

void NEAppProxyTCPFlow::Implementation::failNextWrite(NSError error) {
    const MutexGuard guard(mutex);
    nextWriteError = std::move(error);
}

void NEAppProxyTCPFlow::Implementation::failOpening(NSError error) {
    const MutexGuard guard(mutex);
    openingError = std::move(error);
}

void NEAppProxyTCPFlow::Implementation::delayOpening(double seconds) {
    const MutexGuard guard(mutex);
    openingDelay = seconds;
}

std::string NEAppProxyTCPFlow::Implementation::receivedByApplication() const {
    const MutexGuard guard(mutex);
    return received;
}

NEAppProxyTCPFlow::Implementation::Record NEAppProxyTCPFlow::Implementation::record() const {
    const MutexGuard guard(mutex);
    return done;
}

bool NEAppProxyTCPFlow::Implementation::isClosed() const {
    const MutexGuard guard(mutex);
    return isReadClosed() && isWriteClosed();
}

bool NEAppProxyTCPFlow::Implementation::isReadClosed() const {
    return isLetGo || !done.readCloses.empty();
}

bool NEAppProxyTCPFlow::Implementation::isWriteClosed() const {
    return isLetGo || !done.writeCloses.empty();
}

void NEAppProxyTCPFlow::Implementation::holdOpening() {
    const MutexGuard guard(mutex);
    isHeld = true;
}

void NEAppProxyTCPFlow::Implementation::admit(bool isClaimed) {
    const MutexGuard guard(mutex);
    isHeld = false;
    isDeclined = !isClaimed;
    if (isDeclined && done.opens > 0) breach("a flow is opened by a proxy that then declines it");
    if (isDeclined && (isReadClosed() || isWriteClosed()))
        breach("a flow is closed by a proxy that then declines it");
    proceedWithOpening();
}

void NEAppProxyTCPFlow::Implementation::drop() {
    const MutexGuard guard(mutex);
    isHeld = false;
    isDropped = true;
    if (opening == Opening::open) {
        toRead.clear();
        toRead.push_back({Piece::Kind::error, {}, aborted()});
        serveRead();
        serveWrite();
    }
    proceedWithOpening();
}

void NEAppProxyTCPFlow::Implementation::open(ErrorCompletion completion) {
    const MutexGuard guard(mutex);
    if (++done.opens > 1) return breach("openWithLocalEndpoint is called a second time");
    if (isDeclined) return breach("a flow is opened that was declined");
    openCompletion = std::move(completion);
    opening = Opening::held;
    proceedWithOpening();
}

void NEAppProxyTCPFlow::Implementation::proceedWithOpening() {
    if (isHeld || opening != Opening::held) return;
    opening = Opening::underWay;
    // The event owns the completion, so that a world that ends before it lets go of both.
    auto finish = [self = shared_from_this(), completion = std::move(openCompletion)]() mutable {
        self->finishOpening(std::move(completion));
    };
    // An application that takes its time is waited for as a timer is: only by letting time pass.
    if (openingDelay > 0)
        machine().scheduler.startTimer(openingDelay, "flow open", std::move(finish));
    else
        machine().scheduler.deliver("flow open", std::move(finish));
}

void NEAppProxyTCPFlow::Implementation::finishOpening(ErrorCompletion completion) {
    std::optional<NSError> error;
    {
        const MutexGuard guard(mutex);
        error = outcomeOfOpening();
        opening = error ? Opening::failed : Opening::open;
    }
    completion(std::move(error));
}

std::optional<NSError> NEAppProxyTCPFlow::Implementation::outcomeOfOpening() {
    if (openingError) return openingError;
    if (isDropped) return aborted();
    // Closed before it was open: either answer is within the contract.
    const bool wasClosed = isReadClosed() || isWriteClosed();
    if (wasClosed && machine().scheduler.takesLiberty(2)) return notConnected();
    return std::nullopt;
}

void NEAppProxyTCPFlow::Implementation::read(ReadCompletion completion) {
    const MutexGuard guard(mutex);
    ++done.reads;
    if (done.opens == 0) return breach("readData is called on a flow that was not opened");
    if (isReadOutstanding) return breach("readData is called while a read is outstanding");
    isReadOutstanding = true;
    pendingRead = std::move(completion);
    serveRead();
}

void NEAppProxyTCPFlow::Implementation::serveRead() {
    if (!pendingRead) return;
    if (isReadClosed() || opening == Opening::failed)
        return completeRead(std::nullopt, notConnected());
    if (toRead.empty()) return;
    switch (toRead.front().kind) {
        case Piece::Kind::bytes:
            return completeRead(simulated::makeFlowBytes(takeBytes()), std::nullopt);
        case Piece::Kind::end:
            if (machine().scheduler.takesLiberty(2)) return completeRead(Data(), std::nullopt);
            return completeRead(std::nullopt, std::nullopt);
        case Piece::Kind::error:
            return completeRead(std::nullopt, toRead.front().error);
    }
}

// The next bytes, all of a piece or, at times, only its beginning.
std::string NEAppProxyTCPFlow::Implementation::takeBytes() {
    auto& front = toRead.front().bytes;
    auto& scheduler = machine().scheduler;
    if (front.size() > 1 && scheduler.takesLiberty(4)) {
        const auto length = static_cast<std::size_t>(1 + scheduler.draw(front.size() - 1));
        std::string head = front.substr(0, length);
        front.erase(0, length);
        return head;
    }
    std::string whole = std::move(front);
    toRead.pop_front();
    return whole;
}

void NEAppProxyTCPFlow::Implementation::completeRead(std::optional<Data> data,
                                                     std::optional<NSError> error) {
    machine().scheduler.deliver("flow read",
                                [self = shared_from_this(), completion = std::move(pendingRead),
                                 result = std::move(data), failure = std::move(error)]() mutable {
                                    {
                                        const MutexGuard guard(self->mutex);
                                        self->isReadOutstanding = false;
                                    }
                                    completion(std::move(result), std::move(failure));
                                });
}

void NEAppProxyTCPFlow::Implementation::write(Data data, ErrorCompletion completion) {
    const MutexGuard guard(mutex);
    ++done.writes;
    if (done.opens == 0) return breach("writeData is called on a flow that was not opened");
    if (isWriteOutstanding) return breach("writeData is called while a write is outstanding");
    if (data.isEmpty()) return breach("writeData is called with no bytes");
    isWriteOutstanding = true;
    pendingWrite = PendingWrite{std::move(data), std::move(completion)};
    serveWrite();
}

void NEAppProxyTCPFlow::Implementation::serveWrite() {
    if (!pendingWrite) return;
    if (isWriteClosed() || opening == Opening::failed) return completeWrite(notConnected());
    if (isDropped) return completeWrite(aborted());
    if (nextWriteError) return completeWrite(std::exchange(nextWriteError, std::nullopt));
    if (!applicationReads) return;
    received += simulated::bytesOf(pendingWrite->data);
    completeWrite(std::nullopt);
}

void NEAppProxyTCPFlow::Implementation::completeWrite(std::optional<NSError> error) {
    machine().scheduler.deliver(
        "flow write", [self = shared_from_this(), completion = std::move(pendingWrite->completion),
                       failure = std::move(error)]() mutable {
            {
                const MutexGuard guard(self->mutex);
                self->isWriteOutstanding = false;
            }
            completion(std::move(failure));
        });
    pendingWrite.reset();
}

void NEAppProxyTCPFlow::Implementation::closeRead(Close error) {
    const MutexGuard guard(mutex);
    done.readCloses.push_back(std::move(error));
    serveRead();
}

void NEAppProxyTCPFlow::Implementation::closeWrite(Close error) {
    const MutexGuard guard(mutex);
    done.writeCloses.push_back(std::move(error));
    serveWrite();
}

void NEAppProxyTCPFlow::Implementation::letGo() {
    const MutexGuard guard(mutex);
    if (isDeclined) return;
    isLetGo = true;
    serveRead();
    serveWrite();
}

NEAppProxyTCPFlow::NEAppProxyTCPFlow(NEFlowMetaData metaData, RemoteEndpoint remoteEndpoint,
                                     std::shared_ptr<Implementation> platformSideOfFlow)
    : NEAppProxyFlow(std::move(metaData), std::move(remoteEndpoint)),
      implementation(std::move(platformSideOfFlow)) {}

NEAppProxyTCPFlow::~NEAppProxyTCPFlow() { implementation->letGo(); }

void NEAppProxyTCPFlow::openWithLocalEndpoint(std::nullptr_t, ErrorCompletion completion) {
    simulated::checkPlatformCall("NEAppProxyTCPFlow.openWithLocalEndpoint");
    implementation->open(std::move(completion));
}

void NEAppProxyTCPFlow::readData(ReadCompletion completion) {
    simulated::checkPlatformCall("NEAppProxyTCPFlow.readData");
    implementation->read(std::move(completion));
}

void NEAppProxyTCPFlow::writeData(Data data, ErrorCompletion completion) {
    simulated::checkPlatformCall("NEAppProxyTCPFlow.writeData");
    implementation->write(std::move(data), std::move(completion));
}

void NEAppProxyTCPFlow::closeReadWithError(std::optional<NSError> error) {
    simulated::checkPlatformCall("NEAppProxyTCPFlow.closeReadWithError");
    implementation->closeRead(std::move(error));
}

void NEAppProxyTCPFlow::closeWriteWithError(std::optional<NSError> error) {
    simulated::checkPlatformCall("NEAppProxyTCPFlow.closeWriteWithError");
    implementation->closeWrite(std::move(error));
}

}  // namespace platform
