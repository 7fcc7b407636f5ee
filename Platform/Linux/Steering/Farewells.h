// Ends the sockets of applications in order: takes a copy of the descriptor, shuts both directions down,
// so that what has been sent arrives before the end, and the application reads its end. A socket that
// cannot be had that way is ended at once. To find the holder of a socket takes a while, so it is done on
// a thread of its own, and at the end of the process for all that wait. Any thread may call.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Linux/Attribution/SocketDiagnosis.h"
#include "Platform/Linux/Attribution/SocketHolders.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform::steering {

class Farewells {
public:
    Farewells();
    ~Farewells() { cutShort(); }
    Farewells(const Farewells&) = delete;
    Farewells& operator=(const Farewells&) = delete;

    void say(const FlowTuple& flow, std::uint64_t cookie);
    // Waits until all have been said and what was sent has arrived, or for so long.
    void await(std::chrono::milliseconds longest);
    // What still waits is ended at once, and so is what has not arrived. Nothing is said after that.
    void cutShort();

private:
    struct Farewell {
        FlowTuple flow;
        std::uint64_t cookie;
    };

    struct Ending {
        Farewell farewell;
        SocketFacts socket;
    };

    void serve();
    void awaitWork() REQUIRES(lock);
    void endAll(const std::vector<Farewell>& present);
    void endThoseOf(pid_t pid, std::unordered_map<std::uint32_t, Ending>& byInode);
    bool hasToHurry();
    void keepUndelivered(FileDescriptor socket);

    // For the thread alone.
    SocketDiagnosis diagnosis;
    SocketHolders holders;

    Mutex lock;
    Condition changed;
    std::vector<Farewell> waiting GUARDED_BY(lock);
    std::vector<FileDescriptor> undelivered GUARDED_BY(lock);
    bool isBusy GUARDED_BY(lock) = false;
    bool isEnding GUARDED_BY(lock) = false;
    std::thread thread;
};

}  // namespace platform::steering
