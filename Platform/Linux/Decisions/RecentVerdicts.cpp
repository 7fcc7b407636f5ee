#include "Platform/Linux/Decisions/RecentVerdicts.h"

namespace platform::interception {

namespace {

// What tells one opening of a flow from another one with the same addresses and ports.
std::uint32_t occasionOf(const HeldPacket& packet, unsigned generation) {
    if (packet.purpose == PacketPurpose::offeredAgain) return generation;
    return packet.flow.protocol == IPPROTO_TCP ? packet.tcpSequence : 0;
}

}  // namespace

std::optional<Verdict> RecentVerdicts::find(const HeldPacket& packet, unsigned generation) {
    const MutexGuard guard(lock);
    const auto found = entries.find(packet.flow);
    if (found == entries.end()) return std::nullopt;
    const Entry& entry = found->second;
    const bool isTheSame = entry.purpose == packet.purpose &&
                           entry.occasion == occasionOf(packet, generation) &&
                           entry.expiry > Clock::now();
    return isTheSame ? std::optional(entry.verdict) : std::nullopt;
}

void RecentVerdicts::remember(const HeldPacket& packet, Verdict verdict) {
    const auto now = Clock::now();
    const MutexGuard guard(lock);
    forgetExpired(now);
    const auto expiry = now + lifetime;
    entries.insert_or_assign(
        packet.flow,
        Entry{packet.purpose, occasionOf(packet, verdict.generation), verdict, expiry});
    byExpiry.push_back({packet.flow, expiry});
}

void RecentVerdicts::forget(const FlowTuple& flow) {
    const MutexGuard guard(lock);
    entries.erase(flow);
}

void RecentVerdicts::forgetExpired(Clock::time_point now) {
    while (!byExpiry.empty() && (byExpiry.front().expiry <= now || byExpiry.size() >= capacity)) {
        const auto found = entries.find(byExpiry.front().flow);
        // A flow that was remembered again since has a later expiry and stays.
        if (found != entries.end() && found->second.expiry == byExpiry.front().expiry)
            entries.erase(found);
        byExpiry.pop_front();
    }
}

}  // namespace platform::interception
