// The settings service as it runs: a socket for requests, a watch over the two files and over the
// machine's network, and timers, all served by one thread that runs the owner of the settings.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Host/vantry-settings/SettingsOwner.h"
#include "Host/vantry-settings/TunnelMemory.h"
#include "Host/vantry-settings/TunnelState.h"
#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Common/Mutex.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"
#include "Platform/Linux/HostChannel/MessageSocket.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantrysettings {

class SettingsService {
public:
    SettingsService();
    SettingsService(const SettingsService&) = delete;
    SettingsService& operator=(const SettingsService&) = delete;

    // Puts the settings in force, tells the service manager that it is ready, and serves until `stop`.
    void run();
    // Any thread, and signal handlers.
    void stop();

private:
    using Answer = platform::Completion<std::optional<platform::Data>>;
    using Request = std::pair<platform::Data, Answer>;

    void serveOneRound();
    int millisecondsToWait() const;
    void setAlarm();
    void lookAtClock();
    void lookAtTunnel();
    void keepTunnels();
    void readFileEvents();
    void answerRequests();
    void sayProblems();

    SettingsOwner owner;
    TunnelState tunnelState{routesLeadTo, TunnelMemory::read()};
    TunnelKinds keptKinds;
    TunnelView tunnel;
    std::vector<std::string> saidProblems;
    std::optional<bool> saidToBeUp;

    const platform::FileDescriptor stopSignal;
    const platform::FileDescriptor requestSignal;
    const platform::FileDescriptor networkSignal;
    // Of the time of day, so that it rings after a sleep too, and when the clock is set.
    const platform::FileDescriptor alarm;
    vantryhost::SecondsSince1970 bootTime;
    platform::FolderWatch preferencesFolder;
    platform::FolderWatch rulesFolder;
    std::optional<platform::netlink::Socket> routeEvents;
    platform::Mutex requestsLock;
    std::vector<Request> requests GUARDED_BY(requestsLock);
    platform::NetworkMonitor::Token networkToken;
    // Last: its thread hands requests over.
    std::optional<platform::MessageSocket> socket;
};

}  // namespace vantrysettings
