// What the kernel remembers of a flow for us: one byte of its connection mark, three bits of state
// and five of generation. The verdict on a packet puts the same byte into the packet's mark, from
// where a rule copies it to the connection. All other bits of both marks belong to others, and no
// operation here touches them. Pure values; any thread.
#pragma once

#include <cstdint>

namespace platform::interception {

enum class FlowState : std::uint8_t {
    unseen = 0,             // never offered: not ours, or older than the rules
    declined = 1,           // on the system's own route, not looked at again in this generation
    claimed = 2,            // redirected to the local listener
    watched = 3,            // on the system's own route, its outbound bytes are shown
    claimedAndWatched = 4,  // both
    denied = 5,             // rejected, with every packet to come
    ownTraffic = 6,         // of a socket of this process; the socket bears it too
};

// Generations count flushes; a mark has room for few of them, which come round again and again. The
// last value stands for every generation that is no longer told apart from others, so that a flow that
// slept through many flushes is still offered again.
inline constexpr unsigned staleGeneration = 31;

// What a mark says of a generation. The next flush may be under way: a generation whose turn would
// come with that one counts as stale already.
constexpr unsigned markedGeneration(unsigned generation, unsigned latest) {
    const bool isToldApart = latest - generation < staleGeneration - 1;
    return isToldApart ? generation % staleGeneration : staleGeneration;
}

// Where in a mark the byte lies.
class MarkPlace {
public:
    explicit constexpr MarkPlace(unsigned bitsToTheRight) : shift_(bitsToTheRight) {}

    constexpr unsigned shift() const { return shift_; }
    constexpr std::uint32_t mask() const { return 0xffu << shift_; }
    constexpr std::uint32_t stateMask() const { return 0x07u << shift_; }

    // The byte, in place, of a state and a generation.
    constexpr std::uint32_t value(FlowState state, unsigned generation = 0) const {
        return (static_cast<std::uint32_t>(state) | (generation & 31u) << 3) << shift_;
    }
    constexpr FlowState stateOf(std::uint32_t mark) const {
        return static_cast<FlowState>(mark >> shift_ & 7u);
    }
    constexpr unsigned generationOf(std::uint32_t mark) const { return mark >> shift_ >> 3 & 31u; }
    // `mark` with our byte replaced.
    constexpr std::uint32_t put(std::uint32_t mark, std::uint32_t value) const {
        return (mark & ~mask()) | value;
    }

    friend constexpr bool operator==(MarkPlace, MarkPlace) = default;

private:
    unsigned shift_;
};

}  // namespace platform::interception
