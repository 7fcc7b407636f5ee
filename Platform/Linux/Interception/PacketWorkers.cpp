#include "Platform/Linux/Interception/PacketWorkers.h"

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
}  // namespace

PacketWorkers::PacketWorkers(PacketQueue& packetQueue, Decide decision, ReportOverdue report,
                             Limits workLimits)
    : queue(packetQueue),
      events(epoll_create1(EPOLL_CLOEXEC)),
      help(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      decide(std::move(decision)),
      reportOverdue(std::move(report)),
      limits(workLimits) {
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
    // Nobody reads any more: what came in meanwhile is ours to let go.
    hold.lock();
    do read();
    while (hasUnread);
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
        if (!ready.empty()) {
            Flows::value_type& flow = *ready.front();
            ready.pop_front();
            // A decision may take long: somebody has to be there for what comes meanwhile.
            if (idleWorkers == 0 || hasUnread || !ready.empty()) callForHelp();
            workOn(flow);
        } else if (hasUnread) {
            read();
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
    hasUnread = queue.receive(packets);
    file(packets);
}

void PacketWorkers::callForHelp() {
    if (idleWorkers > 0)
        eventfd_write(help.get(), 1);
    else if (!isStopping && workers.size() < limits.mostWorkers)
        startWorker();
}

void PacketWorkers::file(const std::vector<HeldPacket>& packets) {
    const auto now = Clock::now();
    for (const HeldPacket& packet : packets) {
        const auto [flow, isNew] = flows.try_emplace(packet.flow);
        flow->second.packets.push_back({packet, now});
        if (isNew) ready.push_back(&*flow);
    }
}

void PacketWorkers::workOn(Flows::value_type& flow) {
    std::vector<Waiting>& waiting = flow.second.packets;
    std::vector<HeldPacket> taken;
    std::vector<PacketVerdict> verdicts;
    while (!waiting.empty()) {
        // The packets stay filed until they are decided, within the watchdog's sight.
        const std::size_t count = std::min(waiting.size(), packetsInOneGo);
        taken.clear();
        for (std::size_t index = 0; index < count; ++index) taken.push_back(waiting[index].packet);
        // A packet that the watchdog has let go before its turn is not decided any more.
        const bool isOverdue = waiting[count - 1].isReleased;
        verdicts.clear();
        if (!isOverdue) {
            lock.unlock();
            for (const HeldPacket& packet : taken) verdicts.push_back(decide(packet));
            lock.lock();
            for (std::size_t index = count; index-- > 0;)
                if (waiting[index].isReleased)
                    verdicts.erase(verdicts.begin() + static_cast<std::ptrdiff_t>(index));
        }
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(count));
        if (!verdicts.empty()) {
            lock.unlock();
            queue.release(verdicts);
            lock.lock();
        }
    }
    flows.erase(flows.find(flow.first));
}

void PacketWorkers::watch() {
    runBeforeOrdinaryPrograms();
    const auto interval = std::max(limits.longestWait / 4, std::chrono::milliseconds(1));
    MutexGuard hold(lock);
    while (!waitForStop(interval)) {
        // With every worker busy, what nobody has read could not be found overdue.
        if (idleWorkers == 0) read();
        const std::size_t count = releaseOlderThan(Clock::now() - limits.longestWait);
        if (count == 0) continue;
        hold.unlock();
        reportOverdue(count);
        hold.lock();
    }
}

bool PacketWorkers::waitForStop(std::chrono::milliseconds longest) {
    const auto deadline = Condition::Clock::now() + longest;
    while (!isStopping && stopped.waitUntil(lock, deadline)) {
    }
    return isStopping;
}

std::size_t PacketWorkers::releaseOlderThan(Clock::time_point limit) {
    std::vector<PacketVerdict> verdicts;
    for (auto& [tuple, flow] : flows) {
        for (Waiting& waiting : flow.packets) {
            if (waiting.isReleased || waiting.arrival > limit) continue;
            waiting.isReleased = true;
            verdicts.push_back(PacketVerdict::pass(waiting.packet));
        }
    }
    queue.release(verdicts);
    return verdicts.size();
}

}  // namespace platform::interception
