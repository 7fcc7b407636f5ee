#include "Platform/Linux/Packets/PacketWorkers.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

#include "Platform/Linux/ThreadPriority.h"

namespace platform::interception {

namespace {
constexpr std::size_t workersAtStart = 2;
// How many packets of one flow are decided before their verdicts go out together.
constexpr std::size_t packetsInOneGo = 16;
// More than the kernel's queues hold.
constexpr int readsUntilEmpty = 2048;
}  // namespace

PacketWorkers::PacketWorkers(PacketQueue& packetQueue, Decide decision, Given verdictGiven,
                             Report reportExcess, Limits workLimits)
    : queue(packetQueue),
      events(epoll_create1(EPOLL_CLOEXEC)),
      help(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      decide(std::move(decision)),
      given(std::move(verdictGiven)),
      report(std::move(reportExcess)),
      limits(workLimits),
      flows(workLimits.ofAccount),
      lastMovement(Clock::now()) {
    for (const int descriptor : {queue.descriptor(), help.get()}) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.fd = descriptor;
        epoll_ctl(events.get(), EPOLL_CTL_ADD, descriptor, &event);
    }
    const MutexGuard hold(lock);
    for (std::size_t index = 0; index < workersAtStart; ++index) startWorker();
    watchdog = std::thread([this] { watch(); });
}

PacketWorkers::~PacketWorkers() {
    MutexGuard hold(lock);
    isStopping = true;
    stopped.notifyAll();
    eventfd_write(help.get(), 1);
    releaseOlderThan(Clock::time_point::max());
    std::vector<std::thread> ending = std::exchange(workers, {});
    hold.unlock();
    for (std::thread& worker : ending) worker.join();
    watchdog.join();
    // No one reads any more: what came in meanwhile is ours to pass.
    hold.lock();
    readAll();
    releaseOlderThan(Clock::time_point::max());
}

void PacketWorkers::startWorker() {
    workers.emplace_back([this] { work(); });
}

void PacketWorkers::work() {
    // The whole machine's connections wait here, most of all when many programs want to run.
    runBeforeOrdinaryPrograms();
    MutexGuard hold(lock);
    while (!isStopping) {
        // What came is read before more is decided: until then no one knows whose it is.
        if (hasUnread) {
            read();
            if (hasUnread && flows.isAnyReady()) callForHelp();
        } else if (flows.isAnyReady()) {
            WaitingFlows::Flow& flow = flows.take();
            // A decision may take long: some thread has to be there for what comes meanwhile.
            if (idleWorkers == 0 || flows.isAnyReady()) callForHelp();
            workOn(flow);
        } else {
            waitForPackets();
        }
    }
    // One event wakes one worker, which wakes the next one when all have to leave.
    eventfd_write(help.get(), 1);
}

void PacketWorkers::waitForPackets() {
    ++idleWorkers;
    lock.unlock();
    epoll_event event{};
    const int count = epoll_wait(events.get(), &event, 1, -1);
    lock.lock();
    --idleWorkers;
    if (count == 1 && event.data.fd == queue.descriptor()) hasUnread = true;
}

void PacketWorkers::read() {
    std::vector<HeldPacket> packets;
    std::vector<PacketVerdict> dropped;
    hasUnread = queue.receive(packets);
    const auto now = Clock::now();
    for (const HeldPacket& packet : packets)
        if (!flows.add(packet, now)) dropped.push_back(PacketVerdict::drop(packet));
    if (dropped.empty()) return;
    queue.release(dropped);
    report({0, dropped.size()});
}

void PacketWorkers::readAll() {
    for (int count = 0; count < readsUntilEmpty; ++count) {
        read();
        if (!hasUnread) return;
    }
}

void PacketWorkers::callForHelp() {
    if (idleWorkers > 0)
        eventfd_write(help.get(), 1);
    else if (!isStopping && workers.size() < limits.mostWorkers)
        startWorker();
}

void PacketWorkers::workOn(WaitingFlows::Flow& flow) {
    while (!flow.packets.empty()) decideOn(flow, std::min(flow.packets.size(), packetsInOneGo));
    flows.finish(flow);
}

void PacketWorkers::decideOn(WaitingFlows::Flow& flow, std::size_t count) {
    std::vector<Waiting>& waiting = flow.packets;
    // The packets stay filed until they are decided, within the watchdog's sight.
    std::vector<HeldPacket> taken;
    for (std::size_t index = 0; index < count; ++index) taken.push_back(waiting[index].packet);
    // A packet that the watchdog has passed before its turn is not decided any more.
    const bool isOverdue = waiting[count - 1].isReleased;
    std::vector<PacketVerdict> verdicts;
    if (!isOverdue) {
        lock.unlock();
        for (const HeldPacket& packet : taken) verdicts.push_back(decide(packet));
        lock.lock();
        for (std::size_t index = count; index-- > 0;)
            if (waiting[index].isReleased)
                verdicts.erase(verdicts.begin() + static_cast<std::ptrdiff_t>(index));
    }
    flows.removeFirst(flow, count);
    verdictsGiven += verdicts.size();
    if (verdicts.empty()) return;
    lock.unlock();
    queue.release(verdicts);
    for (const PacketVerdict& verdict : verdicts) given(flow.tuple, verdict);
    lock.lock();
}

void PacketWorkers::watch() {
    runBeforeOrdinaryPrograms();
    const auto interval = std::max(limits.longestWait / 4, std::chrono::milliseconds(1));
    MutexGuard hold(lock);
    std::size_t givenBefore = 0;
    while (!waitForStop(interval)) {
        // With every worker busy, what no one has read could not be found overdue.
        if (idleWorkers == 0) readAll();
        const std::size_t overdue = releaseOlderThan(Clock::now() - limits.longestWait);
        if (overdue == 0 || verdictsGiven != givenBefore) lastMovement = Clock::now();
        givenBefore = verdictsGiven;
        if (overdue == 0) continue;
        hold.unlock();
        report({overdue, 0});
        hold.lock();
    }
}

bool PacketWorkers::areVerdictsMoving() const {
    return Clock::now() - lastMovement.load() < limits.longestWait * 2 + limits.patience;
}

bool PacketWorkers::waitForStop(std::chrono::milliseconds longest) {
    const auto deadline = Condition::Clock::now() + longest;
    while (!isStopping && stopped.waitUntil(lock, deadline)) {
    }
    return isStopping;
}

std::size_t PacketWorkers::releaseOlderThan(Clock::time_point limit) {
    std::vector<PacketVerdict> verdicts;
    flows.visitPackets([&](Waiting& waiting) {
        if (waiting.isReleased || waiting.arrival > limit) return;
        waiting.isReleased = true;
        verdicts.push_back(PacketVerdict::pass(waiting.packet));
    });
    queue.release(verdicts);
    return verdicts.size();
}

}  // namespace platform::interception
