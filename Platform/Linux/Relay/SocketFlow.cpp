#include "Platform/Linux/Relay/SocketFlow.h"

#include <cerrno>
#include <limits>
#include <utility>

#include "Platform/Linux/SystemError.h"

namespace platform {

SocketFlow::SocketFlow() = default;
SocketFlow::~SocketFlow() = default;

void SocketFlow::supplySocket(FileDescriptor newSocket) { arrive(std::move(newSocket)); }

void SocketFlow::failOpening(NSError error) { arrive(std::move(error)); }

void SocketFlow::setEndHandler(Completion<> handler) { endHandler = std::move(handler); }

void SocketFlow::arrive(Arrival arrival) {
    EventLoop& chosen = EventLoopPool::shared().currentOrNext();
    if (chosen.isCurrent()) {
        if (choose(chosen, nullptr)) settle(std::move(arrival));
        return;
    }
    choose(chosen, [self = shared_from_this(), arrival = std::move(arrival)]() mutable {
        self->settle(std::move(arrival));
    });
}

bool SocketFlow::choose(EventLoop& chosen, Completion<> firstWork) {
    const MutexGuard guard(arriving);
    if (loop.load(std::memory_order_relaxed) != nullptr) return false;
    // Under the lock, so that no other thread's operation overtakes it.
    if (firstWork) chosen.post(std::move(firstWork));
    loop.store(&chosen, std::memory_order_release);
    return true;
}

void SocketFlow::settle(Arrival arrival) {
    std::vector<Completion<>> waiting;
    {
        const MutexGuard guard(arriving);
        waiting.swap(beforeArrival);
    }
    if (auto* const descriptor = std::get_if<FileDescriptor>(&arrival)) {
        socket = std::make_shared<StreamSocket>(*loop.load(), std::move(*descriptor), *this);
        socket->setCloseHandler(std::move(endHandler));
    } else {
        openingError = std::move(std::get<NSError>(arrival));
        if (endHandler) later(std::move(endHandler));
    }
    isSettled = true;
    for (auto& work : waiting) work();
}

template <class Work>
void SocketFlow::perform(Work work) {
    EventLoop* present = loop.load(std::memory_order_acquire);
    if (present == nullptr) {
        const MutexGuard guard(arriving);
        present = loop.load(std::memory_order_relaxed);
        // It belongs to this object and runs only while that lives.
        if (present == nullptr) return beforeArrival.push_back(std::move(work));
    }
    // On the loop's thread too the arrival comes first.
    if (present->isCurrent() && isSettled) return work();
    present->post([self = shared_from_this(), work = std::move(work)]() mutable { work(); });
}

template <class Completion, class... Results>
void SocketFlow::later(Completion completion, Results... results) {
    loop.load(std::memory_order_relaxed)
        ->post([completion = std::move(completion), ... results = std::move(results)]() mutable {
            completion(std::move(results)...);
        });
}

void SocketFlow::open(ErrorCompletion completion) {
    perform([this, completion = std::move(completion)]() mutable {
        later(std::move(completion), openingError);
    });
}

void SocketFlow::read(ReadCompletion completion) {
    perform([this, completion = std::move(completion)]() mutable {
        reading = std::move(completion);
        if (isReadClosed || !socket) return cancelReading();
        socket->read(1, std::numeric_limits<std::size_t>::max());
    });
}

void SocketFlow::write(Data data, ErrorCompletion completion) {
    perform([this, data = std::move(data), completion = std::move(completion)]() mutable {
        writing = std::move(completion);
        if (isWriteClosed || !socket) return cancelWriting();
        socket->write(std::move(data));
    });
}

void SocketFlow::closeRead(std::optional<NSError> error) {
    perform([this, error = std::move(error)] { endReading(error); });
}

void SocketFlow::closeWrite(std::optional<NSError> error) {
    perform([this, error = std::move(error)] { endWriting(error); });
}

void SocketFlow::letGo() {
    perform([this] {
        endReading(std::nullopt);
        endWriting(std::nullopt);
    });
}

void SocketFlow::endReading(const std::optional<NSError>& error) {
    if (std::exchange(isReadClosed, true)) return;
    cancelReading();
    if (error) return resetSocket();
    if (isWriteClosed) return finishSocket();
    if (socket) socket->stopReading();
}

void SocketFlow::endWriting(const std::optional<NSError>& error) {
    if (std::exchange(isWriteClosed, true)) return;
    cancelWriting();
    if (error) return resetSocket();
    if (isReadClosed) return finishSocket();
    if (socket) socket->endWriting();
}

void SocketFlow::cancelReading() {
    if (reading)
        later(std::exchange(reading, {}), std::optional<Data>(),
              std::optional<NSError>(systemError(ECANCELED)));
}

void SocketFlow::cancelWriting() {
    if (writing) later(std::exchange(writing, {}), std::optional<NSError>(systemError(ECANCELED)));
}

void SocketFlow::resetSocket() {
    cancelReading();
    cancelWriting();
    if (const auto ended = std::exchange(socket, nullptr)) ended->reset();
}

void SocketFlow::finishSocket() {
    using Farewell = StreamSocket::Farewell;
    if (const auto ended = std::exchange(socket, nullptr))
        ended->finish(failure_->isNoted() ? Farewell::untilReset : Farewell::untilPeerEnds);
}

std::optional<NSError> SocketFlow::noted(int error) {
    if (error == 0) return std::nullopt;
    failure_->note();
    return systemError(error);
}

void SocketFlow::readDone(Data data, bool, int error) {
    const auto self = shared_from_this();
    auto completion = std::exchange(reading, {});
    // An end that came along with bytes is what the next read finds.
    std::optional<Data> bytes;
    if (!data.isEmpty()) bytes = std::move(data);
    completion(std::move(bytes), noted(error));
}

void SocketFlow::writeDone(int error) {
    const auto self = shared_from_this();
    auto completion = std::exchange(writing, {});
    completion(noted(error));
}

NEAppProxyTCPFlow::NEAppProxyTCPFlow(NEFlowMetaData flowMetaData, RemoteEndpoint endpoint,
                                     std::shared_ptr<Implementation> platformSide)
    : NEAppProxyFlow(std::move(flowMetaData), std::move(endpoint)),
      implementation(std::move(platformSide)) {}

NEAppProxyTCPFlow::~NEAppProxyTCPFlow() { implementation->letGo(); }

void NEAppProxyTCPFlow::openWithLocalEndpoint(std::nullptr_t, ErrorCompletion completion) {
    implementation->open(std::move(completion));
}

void NEAppProxyTCPFlow::readData(ReadCompletion completion) {
    implementation->read(std::move(completion));
}

void NEAppProxyTCPFlow::writeData(Data data, ErrorCompletion completion) {
    implementation->write(std::move(data), std::move(completion));
}

void NEAppProxyTCPFlow::closeReadWithError(std::optional<NSError> error) {
    implementation->closeRead(std::move(error));
}

void NEAppProxyTCPFlow::closeWriteWithError(std::optional<NSError> error) {
    implementation->closeWrite(std::move(error));
}

}  // namespace platform
