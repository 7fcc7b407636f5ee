// The application's side of a claimed TCP flow, over the socket that its redirected connection was
// accepted as. The interception makes it for every TCP flow that it offers, before that socket
// exists, and hands the socket over when the connection has come, or says that it never will; the
// extension's operations may come before and after that. Any thread may call any operation. It owns
// the socket, which is served by one event loop from the moment it is handed over.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Mutex.h"
#include "Platform/Common/ThreadAnnotations.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/CarriedEnds.h"
#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Relay/RelayPairing.h"
#include "Platform/Linux/Relay/StreamSocket.h"

namespace platform {

class SocketFlow final : public NEAppProxyTCPFlow::Implementation,
                         public std::enable_shared_from_this<SocketFlow>,
                         public StreamSocket::Owner {
public:
    using ErrorCompletion = NEAppProxyTCPFlow::ErrorCompletion;
    using ReadCompletion = NEAppProxyTCPFlow::ReadCompletion;

    SocketFlow();
    ~SocketFlow() override;

    // For the interception. The first of the two calls counts. Waiting no longer than is reasonable
    // before `failOpening` is the interception's task.

    // The application's connection has come: `socket` is connected and non-blocking, TCP_NODELAY is
    // set (by inheritance from its listener, say). Called on an event loop, the flow stays on that
    // loop. If the extension has closed the flow by now, the socket gets the end that it asked for.
    void supplySocket(FileDescriptor socket);
    // The application's connection will not come; an opening that waits, or comes later, completes
    // with this error.
    void failOpening(NSError error);
    // Runs once, on any thread, when the application's side is over: its socket is closed for good,
    // or the opening failed. Set before the flow is offered.
    void setEndHandler(Completion<> handler);
    // For the connection that carries the flow on. Once either end has noted a failure, a plain close shows
    // as a reset, after the bytes that were written.
    const std::shared_ptr<RelayFailure>& failure() const { return failure_; }

    // The extension's operations; their contracts are those of the flow.
    void open(ErrorCompletion completion) override;
    void read(ReadCompletion completion) override;
    void write(Data data, ErrorCompletion completion) override;
    void closeRead(std::optional<NSError> error) override;
    void closeWrite(std::optional<NSError> error) override;
    void letGo() override;

private:
    void readDone(Data data, bool isEnd, int error) override;
    void writeDone(int error) override;

    // What the interception brings: the socket, or why there is none.
    using Arrival = std::variant<FileDescriptor, NSError>;
    void arrive(Arrival arrival);
    // Makes `chosen` the flow's loop, with `firstWork` (it may be empty) as the first that it does;
    // false if there is a loop already.
    bool choose(EventLoop& chosen, Completion<> firstWork);
    void settle(Arrival arrival);
    // Does `work` on the flow's loop: at once if this is its thread, later if it is another, and
    // once there is a loop if there is none yet.
    template <class Work>
    void perform(Work work);
    // Runs a completion in a turn of its own.
    template <class Completion, class... Results>
    void later(Completion completion, Results... results);

    void endReading(const std::optional<NSError>& error);
    void endWriting(const std::optional<NSError>& error);
    // The error of an operation, none for 0; noted for the other end.
    std::optional<NSError> noted(int error);
    void cancelReading();
    void cancelWriting();
    void resetSocket();
    void finishSocket();

    const std::shared_ptr<RelayFailure> failure_ = std::make_shared<RelayFailure>();
    Mutex arriving;
    std::vector<Completion<>> beforeArrival GUARDED_BY(arriving);
    std::atomic<EventLoop*> loop{nullptr};  // set once, under `arriving`

    // The rest belongs to the loop's thread.
    bool isSettled = false;  // what the interception brought is here
    std::shared_ptr<StreamSocket> socket;
    std::optional<NSError> openingError;
    ReadCompletion reading;
    ErrorCompletion writing;
    bool isReadClosed = false;
    bool isWriteClosed = false;
    Completion<> endHandler;
};

}  // namespace platform
