// The network of the simulated machine: the interfaces that are usable now, the monitors that follow
// them, and the peers that connections meet. Any thread.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Network.h"
#include "Platform/Simulated/PeerConnection.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform {

class NWPathMonitor::Implementation : public std::enable_shared_from_this<Implementation> {
public:
    Implementation();

    void setHandler(std::function<void(const NWPath&)> newHandler);
    bool start();
    void cancel();
    void letGo();
    void pathChanges(NWPath path);

private:
    using Handler = std::shared_ptr<const std::function<void(const NWPath&)>>;
    void deliver(const NWPath& path);

    const simulated::Scheduler::Lane updates;
    Mutex mutex;
    Handler handler GUARDED_BY(mutex);
    bool isStarted GUARDED_BY(mutex) = false;
    bool isOver GUARDED_BY(mutex) = false;
};

namespace simulated {

using Connection = NWConnection::Implementation;

class Network;

// A peer of the core's connections, by host and port. Each operation holds for every connection to
// it, those that there are and those to come. At first connections become ready, and the peer takes all
// bytes and sends none.
class Peer {
public:
    void refuses();
    void isUnreachable();
    // The first `times` attempts wait, a second apart, and then it accepts.
    void waits(int times);

    void sends(std::string bytes);
    // The last bytes of the stream, its end with them.
    void sendsLast(std::string bytes);
    // The end of the stream, alone.
    void ends();
    // A receive without bytes, end or error.
    void sendsNothing();
    // An error to the receive, bytes with it or none.
    void breaks(NSError error, std::string bytesWithIt = {});
    void echoes();
    void stopsReading();
    void readsOn();
    void failsNextSend(NSError error);
    // Puts the connections that there are into this state.
    void fails(NSError error);
    void makesWaiting(NSError error);

    // The connections to it, in the order in which they were started; `received` is what all of
    // them brought.
    std::vector<std::shared_ptr<Connection>> connections() const;
    std::shared_ptr<Connection> connection(std::size_t index = 0) const;
    std::string received() const;

private:
    friend class Network;
    using Step = std::function<void(Connection&)>;
    Peer(Network& itsNetwork, std::pair<std::string, std::uint16_t> itsName)
        : network(itsNetwork), name(std::move(itsName)) {}
    void become(Reachability reachability, int attemptsThatWait);
    void forAll(const Step& step, bool alsoThoseToCome);

    Network& network;
    std::pair<std::string, std::uint16_t> name;
};

struct MonitorCounts {
    int made = 0;
    int started = 0;
    int cancelled = 0;
    int letGoWithoutCancel = 0;
};

class Network {
public:
    explicit Network(Scheduler& source) : scheduler(source) {}

    // Changes the usable interfaces, preferred first. Monitors hear of it, waiting connections try
    // again, and from the first call on a connection to an interface that is not there waits.
    void setPath(std::vector<NWInterface> interfaces);
    NWPath path() const;
    // Whether watched flows are to be kept in the tunnel.
    bool keepsWatchedFlowsInTunnel() const { return areWatchedFlowsKept; }
    void keepWatchedFlowsInTunnel(bool isWanted) { areWatchedFlowsKept = isWanted; }
    MonitorCounts monitors() const;
    // Monitors that were started and neither cancelled nor let go.
    std::size_t monitorsAtWork() const;

    Peer peer(std::string host, std::uint16_t port);
    // Every connection that was made, in order, started or not.
    std::vector<std::shared_ptr<Connection>> connections() const;
    // Forgets those so far, which a long run would keep for good.
    void forgetConnections();

    // Lets go of what connections and monitors hold; for the end of a world.
    void end();

    // The core's side.
    struct Outcome {
        Reachability reachability = Reachability::accepts;
        std::optional<NSError> error = {};
        std::optional<double> retryAfter = {};
    };
    void connectionIsMade(const std::shared_ptr<Connection>& connection);
    void connectionStarts(const std::shared_ptr<Connection>& connection);
    Outcome outcomeOfAttempt(const Connection& connection);
    void monitorIsMade();
    void monitorStarts(const std::shared_ptr<NWPathMonitor::Implementation>& monitor);
    void monitorEnds(const NWPathMonitor::Implementation* monitor, bool byCancel);

private:
    friend class Peer;
    using PeerName = std::pair<std::string, std::uint16_t>;
    struct PeerState {
        Reachability reachability = Reachability::accepts;
        int attemptsThatWait = 0;
        std::vector<Peer::Step> script;
        std::vector<std::shared_ptr<Connection>> connections;
    };

    Scheduler& scheduler;
    std::atomic<bool> areWatchedFlowsKept{false};
    mutable Mutex mutex;
    std::optional<NWPath> currentPath GUARDED_BY(mutex);
    MonitorCounts counts GUARDED_BY(mutex);
    std::vector<std::shared_ptr<NWPathMonitor::Implementation>> running GUARDED_BY(mutex);
    std::map<PeerName, PeerState> peers GUARDED_BY(mutex);
    std::vector<std::shared_ptr<Connection>> made GUARDED_BY(mutex);
};

}  // namespace simulated
}  // namespace platform
