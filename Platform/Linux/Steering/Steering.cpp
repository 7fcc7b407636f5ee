#include "Platform/Linux/Steering/Steering.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/Linux/Attribution/SocketDiagnosis.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/Kernel/SteeringPrograms.h"
#include "Platform/Linux/Network/NetworkMonitor.h"
#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/Rules/ConnectionEntries.h"
#include "Platform/Linux/Rules/RuleEvents.h"
#include "Platform/Linux/Steering/EarlierConnections.h"
#include "Platform/Linux/Steering/Farewells.h"
#include "Platform/Linux/Steering/IpsecPolicies.h"
#include "Platform/Linux/Steering/SteeringRoutes.h"
#include "Platform/Linux/Steering/SteeringTable.h"
#include "Platform/Linux/Steering/StrictFilter.h"
#include "Platform/Linux/Steering/Uplinks.h"
#include "Platform/Linux/SystemError.h"

namespace platform::steering {

namespace {

using interception::ConnectionEntries;
using interception::HeldPacket;
using Clock = std::chrono::steady_clock;

// However many reports come, routes and rules are looked at no closer together than this.
constexpr std::chrono::milliseconds betweenLooks{20};
constexpr std::chrono::milliseconds betweenTries{1000};
// A thread that is woken for each event of each socket takes the processor from those that make the connections.
constexpr std::chrono::milliseconds betweenEvents{5};
// So long after a connection is held back each event counts at once: its entry may not have been there yet.
constexpr std::chrono::seconds afterHoldBack{1};

int otherFamily(int family) { return family == AF_INET ? AF_INET6 : AF_INET; }

// What is so of a socket of which no event comes any more.
SteeredSocket letGo() {
    SteeredSocket seen{};
    seen.isReleased = 1;
    return seen;
}

SteeredSocket endedHere() {
    SteeredSocket seen{};
    seen.isClosed = 1;
    seen.error = ECONNABORTED;
    return seen;
}

// Counts on when another steering takes the place of one: a verdict by the first is not current with the second.
std::atomic<std::uint64_t> wayChangesSoFar{0};

std::vector<Uplink> thoseInBoth(std::vector<Uplink> now, const std::vector<Uplink>& before) {
    std::erase_if(now, [&](const Uplink& uplink) {
        return std::ranges::none_of(before, [&](const Uplink& earlier) {
            return earlier.number == uplink.number &&
                   earlier.interfaceIndex == uplink.interfaceIndex && earlier.name == uplink.name;
        });
    });
    return now;
}

}  // namespace

// The socket of one session.
class Steering::Socket final : public SessionSocket {
public:
    Socket(std::shared_ptr<Work> steeringWork, const HeldPacket& packet, std::uint64_t number)
        : cookie(number),
          sequence(packet.tcpSequence),
          flow(packet.flow),
          work(std::move(steeringWork)) {}

    Way findWay(const std::string& interfaceName) override;
    void destroy() override;
    void finish() override;
    void holdBack() override;

    void keep(std::shared_ptr<void> forIt) { kept = std::move(forIt); }
    bool isEndedInOrder() const { return hasFarewell; }
    // Whether the interface and the address that it took are still there.
    bool hasNetwork(const std::vector<Uplink>& uplinks);

    const std::uint64_t cookie;
    const std::uint32_t sequence;  // of the SYN
    const FlowTuple flow;

private:
    static constexpr unsigned notFollowed = ~0u;
    bool isFollowed(unsigned number);

    const std::shared_ptr<Work> work;
    std::shared_ptr<void> kept;  // set before anyone else has the socket
    // The number of the uplink whose mark it is to get, 0 for none yet.
    std::atomic<unsigned> followedAs{notFollowed};
    std::atomic<bool> hasFarewell{false};
    Mutex lock;
    // Once there was a way by the uplink.
    int interfaceIndex GUARDED_BY(lock) = 0;
    std::array<std::uint8_t, 16> source GUARDED_BY(lock){};
};

// What the thread, the sessions' sockets and the offers share.
class Steering::Work {
public:
    using UplinksPointer = std::shared_ptr<const std::vector<Uplink>>;
    struct Claim {
        std::shared_ptr<SteeredSession> session;
        std::shared_ptr<Socket> socket;
    };

    static Result<std::shared_ptr<Work>> begin(MarkPlace place);

    void serve();
    // From here on no claim is taken, and the thread ends.
    void beginEnd();
    void takeAway();

    // False after the end has begun.
    bool enter(const std::shared_ptr<SteeredSession>& session,
               const std::shared_ptr<Socket>& socket);
    Verdict confirmed(const Claim& claim, const Verdict& verdict);
    bool follow(const Socket& socket, std::uint32_t mark, std::uint32_t mask);
    std::shared_ptr<SteeredSession> leave(std::uint64_t cookie, std::uint32_t sequence);
    Claim claimOf(std::uint64_t cookie, std::uint32_t sequence);
    bool isEnding() {
        const MutexGuard guard(lock);
        return hasEndBegun;
    }

    UplinksPointer uplinks() {
        const MutexGuard guard(lock);
        return published;
    }
    void destroy(const FlowTuple& flow, std::uint64_t cookie) {
        const MutexGuard guard(askingLock);
        diagnosis.destroy(flow, cookie);
    }
    void holdBack(const FlowTuple& flow) {
        restsAgainFrom = Clock::now() + afterHoldBack;
        const MutexGuard guard(askingLock);
        entries->setMark(flow, marks.flag(), marks.flag());
    }

    // Of the events of a socket that is over already, there may be more.
    bool isClaimed(std::uint64_t cookie) {
        const MutexGuard guard(lock);
        return claims.contains(cookie);
    }
    Way wayBy(const Uplink& uplink, const FlowTuple& flow) const;
    // Counted first: a verdict whose entry is not there yet finds the change when it is.
    void forgetDatagrams() {
        ++wayChangesSoFar;
        const MutexGuard guard(datagramsLock);
        datagramEntries->removeDatagramsWith([place = marks.place()](std::uint32_t mark) {
            return interception::isClaimed(place.stateOf(mark));
        });
    }

    const SteeringMarks marks;
    const std::unique_ptr<SteeringPrograms> programs;
    const std::unique_ptr<SteeringRoutes> routes;
    Farewells farewells;

private:
    struct Parts {
        std::unique_ptr<SteeringPrograms> programs;
        std::unique_ptr<SteeringRoutes> routes;
        std::unique_ptr<ConnectionEntries> entries;
        std::unique_ptr<ConnectionEntries> datagramEntries;
        interception::RuleEvents ruleEvents;
    };

    Work(SteeringMarks steeringMarks, Parts parts);

    void wait();
    bool takeEvents();
    void look(std::uint64_t cookie);
    void followNetwork();
    void publish(std::vector<Uplink> uplinksNow);
    void sayOfPolicies(const Result<>& put);
    bool putTableInForce(bool hasChanged);
    void sayWhatIsMissing(bool isTableInForce, bool areAnswersTaken);
    void sayWhatIsRefused(const std::string& refused);
    void endThoseWithoutNetwork();
    bool isClaim(const Socket& socket) REQUIRES(lock);
    std::vector<Claim> allClaims();
    std::vector<Claim> takeClaims();

    // For the thread alone, and before and after it.
    SteeringTable table{marks};
    Uplinks known;
    IpsecPolicies ipsec{marks};
    StrictFilter strictFilter;
    interception::RuleEvents ruleEvents;
    bool isLookDue = false;
    Clock::time_point nextLook;
    // Of what the kernel refuses, if nothing is reported before.
    std::optional<Clock::time_point> nextTry;
    Clock::time_point restsUntil;  // no event of a socket is taken before
    std::atomic<Clock::time_point> restsAgainFrom{Clock::time_point()};
    std::array<pollfd, 5> polled;
    // The monitor's thread may just be waking us when we go.
    const std::shared_ptr<const FileDescriptor> wakeUp =
        std::make_shared<const FileDescriptor>(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    NetworkMonitor::Token following;

    Mutex askingLock;
    SocketDiagnosis diagnosis GUARDED_BY(askingLock);
    const std::unique_ptr<ConnectionEntries> entries PT_GUARDED_BY(askingLock);

    // A walk through the kernel's table takes its time, and no verdict waits for it.
    Mutex datagramsLock;
    const std::unique_ptr<ConnectionEntries> datagramEntries PT_GUARDED_BY(datagramsLock);

    Mutex lock;
    std::unordered_map<std::uint64_t, Claim> claims GUARDED_BY(lock);
    UplinksPointer published GUARDED_BY(lock) = std::make_shared<const std::vector<Uplink>>();
    bool hasEndBegun GUARDED_BY(lock) = false;

    health::Problem rulesProblem{health::Place::steering, "steeringRules",
                                 "Direct connections lack rules"};
    health::Problem ipsecProblem{health::Place::steering, "ipsecPolicies",
                                 "Direct connections may go into IPsec tunnels"};
    health::Problem routesProblem{health::Place::steering, "steeringRoutes",
                                  "Routes of direct connections are refused"};
    health::Gauge connections{health::Place::steering, "steeredConnections",
                              "Direct connections carried by the kernel", [this] {
                                  const MutexGuard guard(lock);
                                  return std::uint64_t{claims.size()};
                              }};
};

Way Steering::Work::wayBy(const Uplink& uplink, const FlowTuple& flow) const {
    using Lead = SteeringRoutes::Lead;
    const Lead lead = routes->leadOf(uplink, flow.family, flow.destinationAddress);
    if (lead != Lead::nowhere) return {Way::Kind::open, uplink.number, lead == Lead::out};
    // Somebody has just changed rules or routes, and ours are on their way: the packet comes again.
    if (uplink.reach(flow.family).isUsable()) return {Way::Kind::none, 0};
    const bool hasOther = uplink.reach(otherFamily(flow.family)).isUsable();
    return {hasOther ? Way::Kind::otherFamilyOnly : Way::Kind::none, 0};
}

Way Steering::Socket::findWay(const std::string& interfaceName) {
    const auto uplinks = work->uplinks();
    const auto uplink = std::ranges::find(*uplinks, interfaceName, &Uplink::name);
    const bool isThere = uplink != uplinks->end();
    // Without room to hear of it there would be no end of it.
    if (!isFollowed(isThere ? uplink->number : 0))
        return {work->isEnding() ? Way::Kind::gone : Way::Kind::otherFamilyOnly, 0};
    if (!isThere) {
        // What the core does not know yet is waited for in vain: it may have another one by now.
        const bool exists = NetworkMonitor::shared().state()->named(interfaceName) != nullptr;
        return {exists ? Way::Kind::none : Way::Kind::gone, 0};
    }
    const Way way = work->wayBy(*uplink, flow);
    if (way.kind == Way::Kind::open && way.needsUplink) {
        const MutexGuard guard(lock);
        interfaceIndex = uplink->interfaceIndex;
        // An address of the uplink's that the application has chosen stays.
        const auto& reach = uplink->reach(flow.family);
        source = reach.has(flow.sourceAddress) ? flow.sourceAddress : reach.source->bytes;
    }
    return way;
}

// One that waits may get its uplink, or another one, with an opening that comes again: then its entry is made again.
bool Steering::Socket::isFollowed(unsigned number) {
    if (followedAs.exchange(number) == number) return true;
    const SteeringMarks& marks = work->marks;
    const bool hasEntry = number == 0 ? work->follow(*this, 0, 0)
                                      : work->follow(*this, marks.ofSocket(number), marks.mask());
    if (!hasEntry) followedAs = notFollowed;
    return hasEntry;
}

void Steering::Socket::destroy() { work->destroy(flow, cookie); }

void Steering::Socket::finish() {
    work->farewells.say(flow, cookie);
    // From here on the end of all leaves it to the farewell.
    hasFarewell = true;
}

void Steering::Socket::holdBack() { work->holdBack(flow); }

bool Steering::Socket::hasNetwork(const std::vector<Uplink>& uplinks) {
    const MutexGuard guard(lock);
    if (interfaceIndex == 0) return true;
    const auto uplink = std::ranges::find(uplinks, interfaceIndex, &Uplink::interfaceIndex);
    if (uplink == uplinks.end()) return false;
    return uplink->reach(flow.family).has(source);
}

Result<std::shared_ptr<Steering::Work>> Steering::Work::begin(MarkPlace place) {
    const SteeringMarks marks(place);
    auto programs = SteeringPrograms::attach();
    if (!programs) return programs.error();
    auto routes = SteeringRoutes::open(marks);
    if (!routes) return routes.error();
    auto entries = ConnectionEntries::open();
    if (!entries) return entries.error();
    auto datagramEntries = ConnectionEntries::open();
    if (!datagramEntries) return datagramEntries.error();
    auto events = interception::RuleEvents::open();
    if (!events) return events.error();
    // Before the marks and rules are ours.
    endEarlierConnections((*routes)->marksInRules(), **entries);
    const std::shared_ptr<Work> work(
        new Work(marks, {std::move(*programs), std::move(*routes), std::move(*entries),
                         std::move(*datagramEntries), std::move(*events)}));
    work->followNetwork();
    if (!work->rulesProblem.isProblem()) return work;
    work->beginEnd();
    work->takeAway();
    return Error(ENOTSUP, "put the packet rules of direct connections in force");
}

Steering::Work::Work(SteeringMarks steeringMarks, Parts parts)
    : marks(steeringMarks),
      programs(std::move(parts.programs)),
      routes(std::move(parts.routes)),
      ruleEvents(std::move(parts.ruleEvents)),
      following(NetworkMonitor::shared().observe(
          [wake = wakeUp](const auto&) { eventfd_write(wake->get(), 1); })),
      entries(std::move(parts.entries)),
      datagramEntries(std::move(parts.datagramEntries)) {}

// Until something happens or is due. Events of sockets wait while it rests.
void Steering::Work::wait() {
    const auto now = Clock::now();
    const bool isResting = now < restsUntil;
    polled = {{{isResting ? -1 : programs->eventDescriptor(), POLLIN, 0},
               {ruleEvents.descriptor(), POLLIN, 0},
               {wakeUp->get(), POLLIN, 0},
               {routes->eventDescriptor(), POLLIN, 0},
               {ipsec.eventDescriptor(), POLLIN, 0}}};
    auto due = Clock::time_point::max();
    if (isLookDue) due = nextLook;
    if (nextTry) due = std::min(due, *nextTry);
    if (isResting) due = std::min(due, restsUntil);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
    const bool hasEnd = due != Clock::time_point::max();
    poll(polled.data(), polled.size(), hasEnd ? std::max(0, static_cast<int>(left)) : -1);
}

void Steering::Work::serve() {
    for (;;) {
        wait();
        // Before the look for the end: one that comes after it wakes the next wait.
        eventfd_t ignored = 0;
        const bool isWoken = eventfd_read(wakeUp->get(), &ignored) == 0;
        if (isEnding()) return;
        if (const auto now = Clock::now(); now >= restsUntil && takeEvents())
            restsUntil = now >= restsAgainFrom.load() ? now + betweenEvents : now;
        const bool areRulesChanged = ruleEvents.take().areAny();
        const bool isChanged =
            isWoken || areRulesChanged || polled[3].revents != 0 || polled[4].revents != 0;
        if (isChanged) {
            routes->discardEvents();
            ipsec.discardEvents();
            isLookDue = true;
        } else if (!isLookDue && !nextTry) {
            routes->settle();
        }
        const auto now = Clock::now();
        if ((isLookDue && now >= nextLook) || (nextTry && now >= *nextTry)) followNetwork();
    }
}

void Steering::Work::beginEnd() {
    following.reset();
    const MutexGuard guard(lock);
    hasEndBegun = true;
    published = std::make_shared<const std::vector<Uplink>>();
    eventfd_write(wakeUp->get(), 1);
}

// Ends what is left while the rules that its last packets need are there. The order is the header's.
void Steering::Work::takeAway() {
    for (const Claim& claim : takeClaims()) {
        if (!claim.socket->isEndedInOrder()) claim.socket->destroy();
        claim.session->socketChanged(endedHere());
    }
    farewells.cutShort();
    forgetDatagrams();
    table.remove();
    ipsec.takeAway();
    routes->takeAway();
    strictFilter.takeBack();
}

// False if there were none.
bool Steering::Work::takeEvents() {
    bool wereAny = false;
    const bool isComplete = programs->takeEvents([&](std::uint64_t cookie) {
        wereAny = true;
        look(cookie);
    });
    if (isComplete) return wereAny;
    for (const Claim& claim : allClaims()) look(claim.socket->cookie);
    return true;
}

void Steering::Work::look(std::uint64_t cookie) {
    if (!isClaimed(cookie)) return;
    const auto seen = programs->look(cookie);
    if (!seen) return;
    const bool isOver = seen->isReleased != 0 || seen->isClosed != 0;
    Claim claim;
    {
        const MutexGuard guard(lock);
        const auto found = claims.find(cookie);
        if (found == claims.end() || found->second.socket->sequence != seen->attempt) return;
        claim = found->second;
        if (isOver) {
            programs->forget(cookie);
            claims.erase(found);
        }
    }
    claim.session->socketChanged(*seen);
    if (!isOver) return;
    // Whoever has the port next is not to find what was decided of this one.
    if (seen->isEstablished == 0) {
        const MutexGuard guard(askingLock);
        entries->remove(claim.socket->flow);
    }
}

void Steering::Work::followNetwork() {
    isLookDue = false;
    nextLook = Clock::now() + betweenLooks;
    const auto network = NetworkMonitor::shared().state();
    const auto before = known.all();
    auto policies = ipsec.look();
    const bool hasNumbers = known.follow(*network, ipsec.tunnelAddresses());
    // Without its packet rules a new one's number would lead nowhere but the system's own way.
    publish(thoseInBoth(known.all(), before));
    const auto updated = routes->update(known.all(), *network);
    const std::string refused = updated ? "" : updated.error().text();
    if (policies) policies = ipsec.exempt(known.all());
    sayOfPolicies(policies);
    bool areAnswersTaken = true;
    for (const Uplink& uplink : known.all())
        areAnswersTaken &= strictFilter.letMarksCount(uplink.name);
    const bool isTableInForce = putTableInForce(before != known.all());
    publish(known.all());
    sayWhatIsMissing(isTableInForce, areAnswersTaken);
    sayWhatIsRefused(refused);
    if (!hasNumbers) platformLog.error("There are more physical interfaces than can be used");
    endThoseWithoutNetwork();
    if (before != known.all()) forgetDatagrams();
}

void Steering::Work::publish(std::vector<Uplink> uplinksNow) {
    auto next = std::make_shared<const std::vector<Uplink>>(std::move(uplinksNow));
    const MutexGuard guard(lock);
    published = std::move(next);
}

void Steering::Work::sayOfPolicies(const Result<>& put) {
    if (put)
        ipsecProblem.end();
    else if (ipsecProblem.begin(put.error().text()))
        platformLog.error("Direct connections may go into an IPsec tunnel: %{public}s",
                          put.error().text());
}

bool Steering::Work::putTableInForce(bool hasChanged) {
    const bool wasThere = table.isComplete();
    if (wasThere && !hasChanged) return true;
    const bool isFirst = !table.wasInstalled();
    if (!table.install(known.all())) return false;
    if (!wasThere && !isFirst)
        platformLog.error(
            "The packet rules of direct connections had been removed and were put back");
    return true;
}

void Steering::Work::sayWhatIsMissing(bool isTableInForce, bool areAnswersTaken) {
    std::string missing;
    if (!isTableInForce)
        missing = table.failure();
    else if (!routes->hasRoomForRules())
        missing = "a routing rule of others leaves no preference for ours: give it a greater one";
    else if (!areAnswersTaken)
        missing =
            "the strict reverse-path filter drops their answers while a VPN is up: set "
            "net.ipv4.conf.all.src_valid_mark to 1";
    if (missing.empty()) {
        if (rulesProblem.end())
            platformLog.info("The packet rules of direct connections are in force again");
    } else if (rulesProblem.begin(missing)) {
        platformLog.error("Direct connections lack rules: %{public}s", missing);
    }
}

// As a rule it is something that has just changed, of which there is another report at once: that counts before the
// next try, and only what is refused then is said.
void Steering::Work::sayWhatIsRefused(const std::string& refused) {
    const auto now = Clock::now();
    const bool isLasting = nextTry && now >= *nextTry;
    if (refused.empty()) {
        nextTry.reset();
        if (routesProblem.end())
            platformLog.info("The routes of direct connections are there again");
        return;
    }
    if (!nextTry || isLasting) nextTry = now + betweenTries;
    if (isLasting && routesProblem.begin(refused))
        platformLog.error(
            "The routes of direct connections are refused and tried again: %{public}s", refused);
}

void Steering::Work::endThoseWithoutNetwork() {
    for (const Claim& claim : allClaims())
        if (!claim.socket->hasNetwork(known.all())) claim.session->networkLost();
}

std::vector<Steering::Work::Claim> Steering::Work::allClaims() {
    std::vector<Claim> all;
    const MutexGuard guard(lock);
    all.reserve(claims.size());
    for (const auto& [cookie, claim] : claims) all.push_back(claim);
    return all;
}

std::vector<Steering::Work::Claim> Steering::Work::takeClaims() {
    std::vector<Claim> all;
    const MutexGuard guard(lock);
    all.reserve(claims.size());
    for (auto& [cookie, claim] : claims) {
        programs->forget(cookie);
        all.push_back(std::move(claim));
    }
    claims.clear();
    return all;
}

// Two attempts of one socket may be decided at the same time: the claim that comes later counts, whichever it is of.
// The entry that the programs know always belongs to the claim, as both change under the lock.
bool Steering::Work::enter(const std::shared_ptr<SteeredSession>& session,
                           const std::shared_ptr<Socket>& socket) {
    Claim overtaken;
    {
        const MutexGuard guard(lock);
        if (hasEndBegun) return false;
        overtaken = std::exchange(claims[socket->cookie], Claim{session, socket});
    }
    if (overtaken.session) overtaken.session->socketChanged(letGo());
    return true;
}

bool Steering::Work::follow(const Socket& socket, std::uint32_t mark, std::uint32_t mask) {
    const MutexGuard guard(lock);
    return isClaim(socket) && programs->follow(socket.cookie, socket.sequence, mark, mask);
}

bool Steering::Work::isClaim(const Socket& socket) {
    const auto found = claims.find(socket.cookie);
    return found != claims.end() && found->second.socket.get() == &socket;
}

// Of a socket that ended before its entry was made there are no events, and of one whose claim has gone meanwhile
// no one looks at them.
Steering::Verdict Steering::Work::confirmed(const Claim& claim, const Verdict& verdict) {
    bool isFollowedStill = false;
    {
        const MutexGuard guard(lock);
        isFollowedStill = isClaim(*claim.socket);
    }
    const bool isAlive = isFollowedStill && verdict.decision != SteeredSession::Decision::deny &&
                         !programs->wasOverBefore(claim.socket->cookie);
    if (isAlive) return verdict;
    if (isFollowedStill) leave(claim.socket->cookie, claim.socket->sequence);
    claim.session->socketChanged(letGo());
    return {};
}

// Takes the session of that attempt; null if it has none any more.
std::shared_ptr<SteeredSession> Steering::Work::leave(std::uint64_t cookie,
                                                      std::uint32_t sequence) {
    const MutexGuard guard(lock);
    const auto found = claims.find(cookie);
    if (found == claims.end() || found->second.socket->sequence != sequence) return nullptr;
    programs->forget(cookie);
    auto session = std::move(found->second.session);
    claims.erase(found);
    return session;
}

// Another number tells another connection of the same socket, whose earlier one is over.
Steering::Work::Claim Steering::Work::claimOf(std::uint64_t cookie, std::uint32_t sequence) {
    std::uint32_t earlier = 0;
    {
        const MutexGuard guard(lock);
        const auto found = claims.find(cookie);
        if (found == claims.end()) return {};
        earlier = found->second.socket->sequence;
        if (earlier == sequence) return found->second;
    }
    // Its event may wait still.
    auto seen = programs->look(cookie).value_or(letGo());
    seen.isReleased = 1;
    if (const auto overtaken = leave(cookie, earlier)) overtaken->socketChanged(seen);
    return {};
}

Result<std::unique_ptr<Steering>> Steering::start(MarkPlace place) {
    auto work = Work::begin(place);
    if (!work) return work.error();
    return std::unique_ptr<Steering>(new Steering(std::move(*work)));
}

Steering::Steering(std::shared_ptr<Work> begun)
    : work(std::move(begun)), thread([held = work] { held->serve(); }) {}

void Steering::end() {
    if (!thread.joinable()) return;
    work->beginEnd();
    thread.join();
    work->takeAway();
}

MarkPlace Steering::place() const { return work->marks.place(); }

std::optional<Steering::Verdict> Steering::verdictOnKnown(const HeldPacket& packet,
                                                          std::uint64_t cookie) {
    const auto claim = work->claimOf(cookie, packet.tcpSequence);
    if (!claim.session) return std::nullopt;
    const Verdict verdict = claim.session->decideAgain();
    const bool isSteered = verdict.decision == SteeredSession::Decision::steer;
    return isSteered ? work->confirmed(claim, verdict) : verdict;
}

std::unique_ptr<Steering::Offer> Steering::offer(const HeldPacket& packet, std::uint64_t cookie) {
    return std::make_unique<Offer>(work, packet, std::make_shared<Socket>(work, packet, cookie));
}

bool Steering::isForDatagrams(const FlowTuple& flow) {
    constexpr std::uint16_t names = 53;
    const auto& address = flow.destinationAddress;
    const bool isNear =
        flow.family == AF_INET
            ? address[0] >= 224 || (address[0] == 169 && address[1] == 254)
            : address[0] == 0xff || (address[0] == 0xfe && (address[1] & 0xc0) == 0x80);
    return !isNear && flow.destinationPort != names;
}

Way Steering::wayOfDatagrams(const FlowTuple& flow, const std::string& interfaceName) {
    const auto uplinks = work->uplinks();
    const auto uplink = std::ranges::find(*uplinks, interfaceName, &Uplink::name);
    return uplink == uplinks->end() ? Way() : work->wayBy(*uplink, flow);
}

void Steering::forgetDatagrams() { work->forgetDatagrams(); }

std::uint64_t Steering::wayChanges() const { return wayChangesSoFar; }

void Steering::awaitEnds(std::chrono::milliseconds longest) { work->farewells.await(longest); }

Steering::Offer::Offer(std::shared_ptr<Work> steeringWork, const HeldPacket& packet,
                       std::shared_ptr<Socket> offeredSocket)
    : work(std::move(steeringWork)),
      socket(std::move(offeredSocket)),
      session(std::make_shared<SteeredSession>(socket)),
      flowTuple(packet.flow) {}

std::shared_ptr<NWConnection::Implementation> Steering::Offer::Pairing::pairWith(
    const std::string& host, std::uint16_t port, const NWParameters& parameters) {
    if (!parameters.requiredInterface || port != offer.flowTuple.destinationPort ||
        host != destinationText(offer.flowTuple))
        return nullptr;
    offer.session->setInterface(parameters.requiredInterface->name());
    return connectionOf(offer.session);
}

Steering::Verdict Steering::Offer::claim(std::shared_ptr<void> kept) {
    socket->keep(std::move(kept));
    if (work->enter(session, socket)) return work->confirmed({session, socket}, session->decide());
    refuse(systemError(ECONNABORTED));
    return {SteeredSession::Decision::drop, 0};
}

}  // namespace platform::steering
