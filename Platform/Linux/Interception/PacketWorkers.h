// The threads that work on held packets. The kernel wakes one that is free, which reads the queue,
// files what came by flow, and works on a flow that is ready itself, so that a packet in a quiet
// moment costs no change of threads.
// Packets of one flow are decided one after the other in their order; a flow that takes long holds
// up no other. A watchdog lets packets go that have waited too long, whatever the workers do.
//
// `decide` is called on any of the threads, for one packet of a flow at a time. Everything else is
// for the owner.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Interception/HeldPacket.h"
#include "Platform/Linux/Interception/PacketQueue.h"

namespace platform::interception {

class PacketWorkers {
public:
    using Decide = std::function<PacketVerdict(const HeldPacket&)>;
    // Told how many packets the watchdog let go at once.
    using ReportOverdue = std::function<void(std::size_t)>;

    struct Limits {
        // Long enough that a crowded machine does not let a blocked application through, short
        // enough that a name look-up or a connection that waits in vain for a verdict still succeeds.
        std::chrono::milliseconds longestWait{2000};
        std::size_t mostWorkers = 32;
    };

    PacketWorkers(PacketQueue& packetQueue, Decide decision, ReportOverdue reportOverdue,
                  Limits workLimits);
    // Lets every held packet go and waits for decisions that are under way.
    ~PacketWorkers();
    PacketWorkers(const PacketWorkers&) = delete;
    PacketWorkers& operator=(const PacketWorkers&) = delete;

private:
    using Clock = std::chrono::steady_clock;

    struct Waiting {
        HeldPacket packet;
        Clock::time_point arrival;
        bool isReleased = false;  // its verdict has been given, or is just being given
    };
    // The packets of one flow that wait; the flow is ready, or in work, while there are any.
    struct Flow {
        std::vector<Waiting> packets;
    };
    using Flows = std::unordered_map<FlowTuple, Flow, FlowHash, SameFlow>;

    void work();
    void read() REQUIRES(lock);
    void file(const std::vector<HeldPacket>& packets) REQUIRES(lock);
    void callForHelp() REQUIRES(lock);
    void startWorker() REQUIRES(lock);
    std::size_t releaseOlderThan(Clock::time_point limit) REQUIRES(lock);
    // These let go of the lock while they wait or decide.
    void waitForPackets() REQUIRES(lock);
    void workOn(Flows::value_type& flow) REQUIRES(lock);
    void watch();
    bool waitForStop(std::chrono::milliseconds longest) REQUIRES(lock);

    PacketQueue& queue;
    // Reports the queue and calls for help, each event to one waiting worker.
    const FileDescriptor events;
    const FileDescriptor help;
    const Decide decide;
    const ReportOverdue reportOverdue;
    const Limits limits;

    Mutex lock;
    Condition stopped;
    Flows flows GUARDED_BY(lock);
    std::deque<Flows::value_type*> ready GUARDED_BY(lock);
    std::vector<std::thread> workers GUARDED_BY(lock);
    std::size_t idleWorkers GUARDED_BY(lock) = 0;
    // The queue may hold packets that nobody has been woken for.
    bool hasUnread GUARDED_BY(lock) = false;
    bool isStopping GUARDED_BY(lock) = false;

    std::thread watchdog;
};

}  // namespace platform::interception
