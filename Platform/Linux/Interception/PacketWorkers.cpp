#include "Platform/Linux/Interception/PacketWorkers.h"

#include <algorithm>
#include <utility>

namespace platform::interception {

namespace {
constexpr std::size_t workersAtStart = 2;
// How many packets of one flow are decided before their verdicts go out together.
constexpr std::size_t packetsInOneGo = 16;
}  // namespace

PacketWorkers::PacketWorkers(PacketQueue& packetQueue, Decide decision, ReportOverdue report,
                             Limits workLimits)
    : queue(packetQueue),
      decide(std::move(decision)),
      reportOverdue(std::move(report)),
      limits(workLimits) {
    const Hold hold(lock);
    for (std::size_t index = 0; index < workersAtStart; ++index)
        workers.emplace_back([this] { work(); });
    watchdog = std::thread([this] { watch(); });
}

PacketWorkers::~PacketWorkers() {
    Hold hold(lock);
    isStopping = true;
    changed.notify_all();
    stopped.notify_all();
    queue.wake();
    releaseOlderThan(Clock::time_point::max(), hold);
    std::vector<std::thread> ending = std::exchange(workers, {});
    hold.unlock();
    for (std::thread& worker : ending) worker.join();
    watchdog.join();
    // Nobody reads any more: what came in meanwhile is ours to let go.
    hold.lock();
    std::vector<HeldPacket> left;
    do {
        left.clear();
        queue.receiveWaiting(left);
        file(left);
    } while (!left.empty());
    releaseOlderThan(Clock::time_point::max(), hold);
}

void PacketWorkers::work() {
    Hold hold(lock);
    while (!isStopping) {
        if (!ready.empty()) {
            Flows::value_type& flow = *ready.front();
            ready.pop_front();
            workOn(flow, hold);
        } else if (!isReading) {
            read(hold);
        } else {
            ++idleWorkers;
            changed.wait(hold);
            --idleWorkers;
        }
    }
}

void PacketWorkers::read(Hold& hold) {
    std::vector<HeldPacket> packets;
    isReading = true;
    hold.unlock();
    const bool goesOn = queue.receive(packets);
    hold.lock();
    isReading = false;
    file(packets);
    if (goesOn && !ready.empty()) letAnotherRead(hold);
}

void PacketWorkers::file(const std::vector<HeldPacket>& packets) {
    const auto now = Clock::now();
    for (const HeldPacket& packet : packets) {
        const auto [flow, isNew] = flows.try_emplace(packet.flow);
        flow->second.packets.push_back({packet, now});
        if (isNew) ready.push_back(&*flow);
    }
}

// The caller is about to decide, which may take long: the reading must not wait for it.
void PacketWorkers::letAnotherRead(Hold&) {
    if (idleWorkers > 0) {
        changed.notify_one();
    } else if (!isStopping && workers.size() < limits.mostWorkers) {
        workers.emplace_back([this] { work(); });
    }
}

void PacketWorkers::workOn(Flows::value_type& flow, Hold& hold) {
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
            hold.unlock();
            for (const HeldPacket& packet : taken)
                verdicts.push_back({packet.queueNumber, packet.id, decide(packet)});
            hold.lock();
            for (std::size_t index = count; index-- > 0;)
                if (waiting[index].isReleased)
                    verdicts.erase(verdicts.begin() + static_cast<std::ptrdiff_t>(index));
        }
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(count));
        if (!verdicts.empty()) {
            hold.unlock();
            queue.release(verdicts);
            hold.lock();
        }
    }
    flows.erase(flows.find(flow.first));
}

void PacketWorkers::watch() {
    const auto interval = std::max(limits.longestWait / 4, std::chrono::milliseconds(1));
    Hold hold(lock);
    while (!stopped.wait_for(hold, interval, [this] { return isStopping; })) {
        if (!isReading && idleWorkers == 0) {
            // Every worker is busy: what nobody has read could not be found overdue.
            std::vector<HeldPacket> packets;
            queue.receiveWaiting(packets);
            file(packets);
        }
        const std::size_t count = releaseOlderThan(Clock::now() - limits.longestWait, hold);
        if (count == 0) continue;
        hold.unlock();
        reportOverdue(count);
        hold.lock();
    }
}

std::size_t PacketWorkers::releaseOlderThan(Clock::time_point limit, Hold&) {
    std::vector<PacketVerdict> verdicts;
    for (auto& [tuple, flow] : flows) {
        for (Waiting& waiting : flow.packets) {
            if (waiting.isReleased || waiting.arrival > limit) continue;
            waiting.isReleased = true;
            const HeldPacket& packet = waiting.packet;
            verdicts.push_back({packet.queueNumber, packet.id, packet.mark});
        }
    }
    queue.release(verdicts);
    return verdicts.size();
}

}  // namespace platform::interception
