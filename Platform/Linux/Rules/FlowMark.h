// What the kernel remembers of a flow for us: one byte of its connection mark, three bits of state
// (FlowTable.h) and five of generation. The same byte of the packet's mark tells our own sockets' packets
// and nothing else. All other bits of both marks belong to others, and no operation here touches them.
// Pure values; any thread.
#pragma once

#include <cstdint>

#include "Platform/Linux/Rules/FlowTable.h"

namespace platform::interception {

// Generations count how often declined flows were offered again: to both providers by a flush, or to the
// filter alone. A mark has room for few of them, which come round again and again. Two values more stand for
// every generation that is no longer told apart from others, of before the last flush and of after it, so
// that a flow that slept through many is still offered again.
inline constexpr unsigned countedGenerations = 30;
inline constexpr unsigned staleForFilter = 30;
inline constexpr unsigned staleGeneration = 31;

// What a mark says of a generation. The next one may be about to begin: one whose turn would come with
// that counts as stale already.
constexpr unsigned markedGeneration(unsigned generation, unsigned latest) {
    const bool isToldApart = latest - generation < countedGenerations - 1;
    return isToldApart ? generation % countedGenerations : staleGeneration;
}

// Whether a flow that bears this was declined after the last flush, `latest` being in force.
constexpr bool isAfterFlush(unsigned marked, unsigned flush, unsigned latest) {
    if (marked >= countedGenerations) return marked == staleForFilter;
    const unsigned age = (latest % countedGenerations + countedGenerations - marked);
    return age % countedGenerations <= latest - flush;
}

constexpr std::uint8_t markByte(FlowState state, unsigned generation = 0) {
    return static_cast<std::uint8_t>(static_cast<unsigned>(state) | (generation & 31u) << 3);
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
        return std::uint32_t{markByte(state, generation)} << shift_;
    }
    // The byte on our own sockets and their connections. The other bits tell it from marks of others that
    // happen to have these three.
    constexpr std::uint32_t ownValue() const { return value(FlowState::ownTraffic, 0b10101); }
    constexpr FlowState stateOf(std::uint32_t mark) const {
        return static_cast<FlowState>(mark >> shift_ & 7u);
    }
    constexpr unsigned generationOf(std::uint32_t mark) const { return mark >> shift_ >> 3 & 31u; }

    friend constexpr bool operator==(MarkPlace, MarkPlace) = default;

private:
    unsigned shift_;
};

}  // namespace platform::interception
