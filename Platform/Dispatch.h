// Queues of work. The main queue is serial and belongs to the main thread; the global queues share
// one pool of threads, run side by side and in no promised order. Work handed over is held until it
// has run and is then let go. No work runs inside the call that hands it over. Any thread may call.
#pragma once

#include "Platform/Common/Completion.h"

namespace platform {

enum class QualityOfService { userInitiated, defaultQuality, utility };

// A queue by its name; a value that can be copied and kept.
class DispatchQueue {
public:
    using Work = Completion<>;

    static DispatchQueue main() {
        return DispatchQueue(Kind::main, QualityOfService::defaultQuality);
    }
    static DispatchQueue global(QualityOfService quality) {
        return DispatchQueue(Kind::global, quality);
    }

    void async(Work work) const;
    // Runs `work` once, `seconds` from now or as soon after as the queue is free. Measured on a
    // clock that the wall clock's jumps don't move. Zero and less mean at once, still through the
    // queue.
    void asyncAfter(double seconds, Work work) const;

    bool isMain() const { return kind == Kind::main; }
    QualityOfService qualityOfService() const { return quality; }

    friend bool operator==(DispatchQueue, DispatchQueue) = default;

private:
    enum class Kind { main, global };
    DispatchQueue(Kind queueKind, QualityOfService queueQuality)
        : kind(queueKind), quality(queueQuality) {}

    Kind kind;
    QualityOfService quality;
};

// Hands the calling thread, the process's first, to the main queue for good.
[[noreturn]] void dispatch_main();

}  // namespace platform
