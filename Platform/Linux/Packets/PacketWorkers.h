// The threads that work on held packets. The kernel wakes one that is free, which reads the queue,
// files what came by flow, and works on a flow whose turn it is itself, so that a packet in a quiet
// moment costs no change of threads.
// Packets of one flow are decided one after the other in their order; a flow that takes long holds
// up no other, and a flood from one account none of another's. A watchdog passes packets that have waited
// too long, whatever the workers do, and knows whether verdicts move.
//
// `decide` is called on any of the threads, for one packet of a flow at a time, and `given` when the kernel
// has the verdict. Everything else is for the owner.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Packets/HeldPacket.h"
#include "Platform/Linux/Packets/PacketQueue.h"
#include "Platform/Linux/Packets/WaitingFlows.h"

namespace platform::interception {

class PacketWorkers {
public:
    using Decide = std::function<PacketVerdict(const HeldPacket&)>;
    using Given = std::function<void(const FlowTuple&, const PacketVerdict&)>;
    // Told how many packets could not wait for a verdict: passed by the watchdog, or dropped as more of
    // their account's than it may have waiting. Must not wait.
    struct Excess {
        std::size_t overdue = 0;
        std::size_t overShare = 0;
    };
    using Report = std::function<void(const Excess&)>;

    struct Limits {
        // Long enough that a crowded machine does not let a blocked application through, short
        // enough that a name look-up or a connection that waits in vain for a verdict still succeeds.
        std::chrono::milliseconds longestWait{2000};
        std::size_t mostWorkers = 32;
        WaitingFlows::Shares ofAccount;
        // How long packets may be overdue, without any verdict, before that counts as standing still.
        std::chrono::milliseconds patience{5000};
    };

    PacketWorkers(PacketQueue& packetQueue, Decide decision, Given verdictGiven,
                  Report reportExcess, Limits workLimits);
    // Passes every held packet and waits for decisions that are under way.
    ~PacketWorkers();
    PacketWorkers(const PacketWorkers&) = delete;
    PacketWorkers& operator=(const PacketWorkers&) = delete;

    // False if packets have waited for long and no verdict was given, or the watchdog itself is stuck.
    bool areVerdictsMoving() const;

private:
    using Clock = WaitingFlows::Clock;
    using Waiting = WaitingFlows::Waiting;

    void work();
    void read() REQUIRES(lock);
    void callForHelp() REQUIRES(lock);
    void startWorker() REQUIRES(lock);
    std::size_t releaseOlderThan(Clock::time_point limit) REQUIRES(lock);
    // These give up the lock while they wait or decide.
    void waitForPackets() REQUIRES(lock);
    void workOn(WaitingFlows::Flow& flow) REQUIRES(lock);
    void decideOn(WaitingFlows::Flow& flow, std::size_t count) REQUIRES(lock);
    void watch();
    void readAll() REQUIRES(lock);
    bool waitForStop(std::chrono::milliseconds longest) REQUIRES(lock);

    PacketQueue& queue;
    // Reports the queue and calls for help, each event to one waiting worker.
    const FileDescriptor events;
    const FileDescriptor help;
    const Decide decide;
    const Given given;
    const Report report;
    const Limits limits;

    Mutex lock;
    Condition stopped;
    WaitingFlows flows GUARDED_BY(lock);
    std::vector<std::thread> workers GUARDED_BY(lock);
    std::size_t idleWorkers GUARDED_BY(lock) = 0;
    std::size_t verdictsGiven GUARDED_BY(lock) = 0;  // by workers
    // The queue may hold packets that no one has been woken for.
    bool hasUnread GUARDED_BY(lock) = false;
    bool isStopping GUARDED_BY(lock) = false;

    std::atomic<Clock::time_point> lastMovement;
    std::thread watchdog;
};

}  // namespace platform::interception
