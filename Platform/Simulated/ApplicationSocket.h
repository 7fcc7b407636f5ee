// The application's side of a TCP flow: what the proxy's operations on the flow meet. A script says
// what the application sends and when it takes what it is given; every operation of the proxy is
// recorded. Any thread.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform {

class NEAppProxyTCPFlow::Implementation
    : public std::enable_shared_from_this<NEAppProxyTCPFlow::Implementation> {
public:
    using Close = std::optional<NSError>;  // the error that a direction was closed with
    struct Record {
        int opens = 0;
        int reads = 0;                   // readData calls
        int writes = 0;                  // writeData calls
        std::vector<Close> readCloses;   // every call, also those behind the first
        std::vector<Close> writeCloses;  // likewise
    };

    // The test's and the platform's side.
    void applicationSends(std::string bytes);
    void applicationEndsSending();
    void applicationFails(NSError error);
    void applicationStopsReading();
    void applicationReadsOn();
    void failNextWrite(NSError error);
    void failOpening(NSError error);
    void delayOpening(double seconds);
    std::string receivedByApplication() const;
    Record record() const;
    bool isClosed() const;

    // While a flow is being offered its opening waits; what comes of the offer lets it go on.
    void holdOpening();
    void admit(bool isClaimed);
    void drop();

    // The proxy's side.
    void open(ErrorCompletion completion);
    void read(ReadCompletion completion);
    void write(Data data, ErrorCompletion completion);
    void closeRead(Close error);
    void closeWrite(Close error);
    void letGo();

private:
    enum class Opening { notAsked, held, underWay, open, failed };
    struct Piece {
        enum class Kind { bytes, end, error } kind;
        std::string bytes;
        std::optional<NSError> error;
    };
    struct PendingWrite {
        Data data;
        ErrorCompletion completion;
    };

    void proceedWithOpening() REQUIRES(mutex);
    void finishOpening(ErrorCompletion completion);
    std::optional<NSError> outcomeOfOpening() REQUIRES(mutex);
    void serveRead() REQUIRES(mutex);
    void serveWrite() REQUIRES(mutex);
    void completeRead(std::optional<Data> data, std::optional<NSError> error) REQUIRES(mutex);
    void completeWrite(std::optional<NSError> error) REQUIRES(mutex);
    std::string takeBytes() REQUIRES(mutex);
    bool isReadClosed() const REQUIRES(mutex);
    bool isWriteClosed() const REQUIRES(mutex);

    mutable Mutex mutex;
    Record done GUARDED_BY(mutex);
    Opening opening GUARDED_BY(mutex) = Opening::notAsked;
    bool isHeld GUARDED_BY(mutex) = false;
    bool isDropped GUARDED_BY(mutex) = false;
    bool isDeclined GUARDED_BY(mutex) = false;
    bool isLetGo GUARDED_BY(mutex) = false;
    double openingDelay GUARDED_BY(mutex) = 0;
    std::optional<NSError> openingError GUARDED_BY(mutex);
    ErrorCompletion openCompletion GUARDED_BY(mutex);
    std::list<Piece> toRead GUARDED_BY(mutex);
    ReadCompletion pendingRead GUARDED_BY(mutex);
    bool isReadOutstanding GUARDED_BY(mutex) = false;
    std::optional<PendingWrite> pendingWrite GUARDED_BY(mutex);
    bool isWriteOutstanding GUARDED_BY(mutex) = false;
    bool applicationReads GUARDED_BY(mutex) = true;
    std::optional<NSError> nextWriteError GUARDED_BY(mutex);
    std::string received GUARDED_BY(mutex);
};

}  // namespace platform
