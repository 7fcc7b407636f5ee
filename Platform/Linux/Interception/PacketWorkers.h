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
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Interception/HeldPacket.h"
#include "Platform/Linux/Interception/PacketQueue.h"

namespace platform::interception {

class PacketWorkers {
public:
    // Gives the mark under which the packet goes on.
    using Decide = std::function<std::uint32_t(const HeldPacket&)>;
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
    using Hold = std::unique_lock<std::mutex>;

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
    void waitForPackets(Hold& hold);
    // These need the lock.
    void read();
    void file(const std::vector<HeldPacket>& packets);
    void callForHelp();
    void startWorker();
    std::size_t releaseOlderThan(Clock::time_point limit);

    void workOn(Flows::value_type& flow, Hold& hold);
    void watch();

    PacketQueue& queue;
    // Reports the queue and calls for help, each event to one waiting worker.
    const FileDescriptor events;
    const FileDescriptor help;
    const Decide decide;
    const ReportOverdue reportOverdue;
    const Limits limits;

    // Guards all that follows.
    std::mutex lock;
    std::condition_variable stopped;
    Flows flows;
    std::deque<Flows::value_type*> ready;
    std::vector<std::thread> workers;
    std::size_t idleWorkers = 0;
    bool hasUnread = false;  // the queue may hold packets that nobody has been woken for
    bool isStopping = false;

    std::thread watchdog;
};

}  // namespace platform::interception
