// The simulated machine: everything that the seam's operations act on, in one place. Each part
// guards itself. The present one is reached through `machine()`; a World makes it.
#pragma once

#include <atomic>

#include "Platform/Simulated/Files.h"
#include "Platform/Simulated/Flow.h"
#include "Platform/Simulated/Interfaces.h"
#include "Platform/Simulated/Log.h"
#include "Platform/Simulated/Notifications.h"
#include "Platform/Simulated/Preferences.h"
#include "Platform/Simulated/Processes.h"
#include "Platform/Simulated/ProviderHost.h"
#include "Platform/Simulated/Scheduler.h"
#include "Platform/Simulated/SimulatedNetwork.h"
#include "Platform/Simulated/WallClock.h"

namespace platform::simulated {

class Machine {
public:
    explicit Machine(const Options& options);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Stops everything and lets go of the providers and of all that is under way. Calls into the
    // platform still work afterwards; nothing calls back any more.
    void end();
    bool isEnding() const { return ending.load(); }

private:
    std::atomic<bool> ending = false;

public:
    Scheduler scheduler;
    const Scheduler::Lane mainQueue;
    Log log;
    WallClock wallClock;
    Files files;
    Processes processes;
    Interfaces interfaces;
    CFNotificationCenter notifications;
    Preferences preferences;
    Network network;
    ProviderHost providers;
    Flows flows;
};

// The machine of the present world. Without a world it is one on which nothing ever calls back.
Machine& machine();
// Makes a fresh machine the present one; the one before it goes.
void replaceMachine(const Options& options);

}  // namespace platform::simulated
