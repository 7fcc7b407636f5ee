#include "Platform/Linux/Attribution/FlowOwner.h"

#include <netinet/in.h>

#include <chrono>
#include <utility>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/InstalledApplications.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/Attribution/RecentMemory.h"
#include "Platform/Linux/Attribution/SocketDiagnosis.h"
#include "Platform/Linux/Attribution/SocketHolders.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// Among them those that their applications have closed, which still send what they hold.
constexpr std::size_t rememberedSockets = 8192;
// A datagram may leave after its socket was closed; a port is not used again so soon.
constexpr auto memoryOfSource = 2s;
// A socket that no one was found to hold is not searched for again at once.
constexpr auto memoryOfNobody = 1s;
constexpr int deepestInheritance = 16;

using ProcessPointer = std::shared_ptr<const Process>;

struct KnownSocket {
    SocketHolder holder;
    FlowOwner owner;
};

struct KnownSource {
    FlowOwner owner;
    Clock::time_point seen;
};

// The local end of a flow, as a key.
std::string sourceOf(const FlowTuple& flow) {
    std::string key(flow.sourceAddress.begin(), flow.sourceAddress.end());
    for (const int number : {flow.family, int{flow.sourcePort}})
        key += ":" + std::to_string(number);
    return key;
}

// A socket as a note tells of it.
SocketFacts factsOf(const KernelNote& note) {
    return {.cookie = note.cookie,
            .uid = note.programs[0].effectiveUserId,
            .isBoundToDevice = note.boundDevice != 0};
}

FlowOwner unnamedOwner(const SocketFacts& socket, uid_t account) {
    return {.signingIdentifier = {},
            .auditToken = makeAuditToken({.effectiveUserId = account}),
            .uid = account,
            .socketCookie = socket.cookie,
            .isBoundToDevice = socket.isBoundToDevice,
            .path = {}};
}

// Of a system account's programs only applications are named.
FlowOwner ownerFor(const SocketFacts& socket, const Process& process) {
    auto owner = unnamedOwner(socket, process.status.effectiveUserId);
    if (isSystemAccount(owner.uid) && !isApplication(process.kind)) return owner;
    owner.signingIdentifier = process.signingIdentifier;
    owner.auditToken = process.auditToken();
    owner.pid = process.pid;
    owner.path = process.shownPath;
    return owner;
}

// A child has an inherited socket at the same descriptor as its parent. The socket is the parent's
// as long as the parent has it and runs under the account that made it.
ProcessPointer inheritedFrom(ProcessPointer process, int descriptor, const SocketFacts& socket) {
    for (int generation = 0; process && generation < deepestInheritance; ++generation) {
        const auto parentPid = process->status.parentPid;
        if (parentPid <= 1 || !holdsSocket({parentPid, descriptor}, socket.inode)) break;
        auto parent = ProcessTable::shared().examine(parentPid);
        if (!parent || parent->status.effectiveUserId != socket.uid) break;
        process = std::move(parent);
    }
    return process;
}

}  // namespace

FlowOwner ownerOfProcess(const Process& process) { return ownerFor({}, process); }

NEFlowMetaData metaDataOf(const FlowOwner& owner) {
    const auto& token = owner.auditToken;
    return {owner.signingIdentifier,
            Data(std::string(reinterpret_cast<const char*>(token.data()), token.size()))};
}

// What one look-up needs of the others: connections to the kernel, and what they have found.
class FlowAttribution::Search {
public:
    explicit Search(std::unique_ptr<SocketNotes> kernelNotes) : notes(std::move(kernelNotes)) {}

    std::optional<FlowOwner> ownerOf(const FlowTuple& flow) {
        if (const auto note = notes ? notes->ofOpenSocket(flow) : std::nullopt) {
            if (auto owner = ownerByNote(*note, factsOf(*note))) {
                if (flow.protocol == IPPROTO_TCP) sockets.remember(note->cookie, {{}, *owner});
                return owner;
            }
        }
        const auto socket = find(flow);
        if (!socket) return ownerOfClosedSocket(flow);
        auto owner = ownerOf(*socket, flow);
        if (owner && !notes && flow.protocol == IPPROTO_UDP) {
            sources.remember(sourceOf(flow), {*owner, Clock::now()});
        }
        return owner;
    }

    std::optional<std::uint64_t> cookieOf(const FlowTuple& flow) {
        auto note = notes ? notes->ofOpenSocket(flow) : std::nullopt;
        if (note) return note->cookie;
        if (const auto socket = find(flow)) return socket->cookie;
        if (notes) note = notes->ofLostSocket(flow);
        return note ? std::optional<std::uint64_t>(note->cookie) : std::nullopt;
    }

    bool hasNotes() const { return notes != nullptr; }

    void keepHouse() const {
        if (notes) notes->forgetClosed();
    }

    bool destroySocket(const FlowTuple& flow) {
        auto diagnosis = borrowDiagnosis();
        const auto socket = diagnosis->find(flow);
        const bool isEnded = socket && socket->hasPeer && diagnosis->destroy(flow, socket->cookie);
        giveBack(std::move(diagnosis));
        return isEnded;
    }

private:
    std::optional<SocketFacts> find(const FlowTuple& flow) {
        auto diagnosis = borrowDiagnosis();
        const auto socket = diagnosis->find(flow);
        giveBack(std::move(diagnosis));
        return socket;
    }

    std::optional<FlowOwner> ownerOf(const SocketFacts& socket, const FlowTuple& flow) {
        if (const auto note = notes ? notes->ofSocket(socket.cookie) : std::nullopt) {
            if (auto owner = ownerByNote(*note, socket)) return owner;
        }
        // Before the search, in whose time another socket may come to the port.
        if (auto owner = ownerOfClosingSocket(flow, socket.cookie)) return owner;
        const bool isHeld = socket.inode != 0;
        if (isHeld) {
            if (auto owner = ownerByHolder(socket)) return owner;
        }
        if (auto known = sockets.find(socket.cookie)) {
            // What it holds is sent after its application has closed it.
            known->owner.isGivenUp = !isHeld && flow.protocol == IPPROTO_TCP;
            return known->owner;
        }
        // The account says enough.
        const bool isSystems = isHeld && isSystemAccount(socket.uid);
        return isSystems ? std::optional(unnamedOwner(socket, socket.uid)) : std::nullopt;
    }

    // The process may have ended.
    std::optional<FlowOwner> ownerByNote(const KernelNote& note, const SocketFacts& socket) {
        const auto process = ProcessTable::shared().ofNote(*notes, note);
        return process ? std::optional(ownerFor(socket, *process)) : std::nullopt;
    }

    std::optional<FlowOwner> ownerByHolder(const SocketFacts& socket) {
        const auto known = sockets.find(socket.cookie);
        if (known && holdsSocket(known->holder, socket.inode)) {
            if (auto owner = remember(known->holder, socket)) return owner;
        }
        if (isHeldByNobody(socket)) return std::nullopt;
        const auto holder = holders.find(socket.inode, socket.uid);
        if (!holder) nobodys.remember(socket.cookie, Clock::now());
        return holder ? remember(*holder, socket) : std::nullopt;
    }

    std::optional<FlowOwner> remember(const SocketHolder& holder, const SocketFacts& socket) {
        const auto process =
            inheritedFrom(ProcessTable::shared().examine(holder.pid), holder.descriptor, socket);
        if (!process) return std::nullopt;
        auto owner = ownerFor(socket, *process);
        sockets.remember(socket.cookie, {{process->pid, holder.descriptor}, owner});
        return owner;
    }

    // A socket that is being closed has no holder and no note any more while the kernel still tells of it.
    std::optional<FlowOwner> ownerOfClosingSocket(const FlowTuple& flow, std::uint64_t cookie) {
        auto owner = notes ? ownerOfClosedSocket(flow) : std::nullopt;
        return owner && owner->socketCookie == cookie ? std::move(owner) : std::nullopt;
    }

    std::optional<FlowOwner> ownerOfClosedSocket(const FlowTuple& flow) {
        if (notes) {
            const auto note = notes->ofLostSocket(flow);
            auto owner = note ? ownerByNote(*note, factsOf(*note)) : std::nullopt;
            if (owner) owner->isGivenUp = flow.protocol == IPPROTO_TCP;
            return owner;
        }
        if (flow.protocol != IPPROTO_UDP) return std::nullopt;
        const auto known = sources.find(sourceOf(flow));
        const bool isFresh = known && Clock::now() - known->seen <= memoryOfSource;
        return isFresh ? std::optional(known->owner) : std::nullopt;
    }

    bool isHeldByNobody(const SocketFacts& socket) {
        const auto searched = nobodys.find(socket.cookie);
        return searched && Clock::now() - *searched <= memoryOfNobody;
    }

    using DiagnosisPointer = std::unique_ptr<SocketDiagnosis>;

    DiagnosisPointer borrowDiagnosis() {
        const MutexGuard guard(lock);
        if (idle.empty()) return std::make_unique<SocketDiagnosis>();
        auto diagnosis = std::move(idle.back());
        idle.pop_back();
        return diagnosis;
    }

    void giveBack(DiagnosisPointer diagnosis) {
        if (!diagnosis->isOpen()) return;
        const MutexGuard guard(lock);
        idle.push_back(std::move(diagnosis));
    }

    const std::unique_ptr<SocketNotes> notes;
    const InstalledApplicationsWatch applicationsWatch;
    SocketHolders holders;
    RecentMemory<std::uint64_t, KnownSocket> sockets{rememberedSockets};
    RecentMemory<std::uint64_t, Clock::time_point> nobodys{rememberedSockets};
    RecentMemory<std::string, KnownSource> sources{rememberedSockets};  // for want of notes
    Mutex lock;
    std::vector<DiagnosisPointer> idle GUARDED_BY(lock);
};

FlowAttribution::FlowAttribution(std::unique_ptr<SocketNotes> notes)
    : search(std::make_unique<Search>(std::move(notes))) {}
FlowAttribution::~FlowAttribution() = default;

std::optional<FlowOwner> FlowAttribution::ownerOf(const FlowTuple& flow) {
    return search->ownerOf(flow);
}

std::optional<std::uint64_t> FlowAttribution::cookieOf(const FlowTuple& flow) {
    return search->cookieOf(flow);
}

bool FlowAttribution::hasNotes() const { return search->hasNotes(); }

void FlowAttribution::keepHouse() { search->keepHouse(); }

bool FlowAttribution::destroySocket(const FlowTuple& flow) { return search->destroySocket(flow); }

}  // namespace platform
