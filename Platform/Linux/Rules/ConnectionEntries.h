// The kernel's table of connections, as far as it holds marks of ours. Marks outlive the process
// that put them there, so a start wipes them; a flush of which the generation number was in use
// before makes the old holders of that number stale. One thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Result.h"

namespace platform::interception {

class ConnectionEntries {
public:
    // Fails if the kernel gives no socket.
    static Result<std::unique_ptr<ConnectionEntries>> open();

    // Null then, for whoever can do without.
    static std::unique_ptr<ConnectionEntries> openOrNull();

    // Goes through all entries; where `change` gives a mark, the bits in `mask` are set
    // to it.
    using Change = std::function<std::optional<std::uint32_t>(std::uint32_t mark)>;
    Result<> changeMarks(std::uint32_t mask, const Change& change);

    // Sets the bits in `mask` of the mark of an outbound flow's entry to `value`.
    void setMark(const FlowTuple& flow, std::uint32_t mask, std::uint32_t value);
    // The flows of those entries whose mark is meant, as their first packets opened them.
    Result<std::vector<FlowTuple>> flowsWith(
        const std::function<bool(std::uint32_t mark)>& isMeant);

    // Removes the entry of an outbound flow. Its next packet counts as the first of a new one.
    bool remove(const FlowTuple& flow);
    // The same of many, those left out that have none.
    void remove(std::span<const FlowTuple> flows);
    // Removes those of all datagrams from ports of this machine, and gives their flows.
    std::vector<FlowTuple> removeDatagramsFrom(const std::set<std::uint16_t>& ports);
    // Removes those of all datagrams whose mark is meant.
    void removeDatagramsWith(const std::function<bool(std::uint32_t mark)>& isMeant);
    bool has(const FlowTuple& flow) { return markOf(flow).has_value(); }
    // None if there is no entry.
    std::optional<std::uint32_t> markOf(const FlowTuple& flow);

    // The flow as its first packet opened it, before any translation, found by what its answers
    // look like. Null if there is no such entry.
    std::optional<FlowTuple> openingOf(const FlowTuple& answers);

private:
    explicit ConnectionEntries(netlink::Socket opened) : socket(std::move(opened)) {}

    netlink::Socket socket;
};

// What messages about entries tell and ask, apart from the socket that they go over. An entry that lacks
// what is needed gives nothing.
std::optional<FlowTuple> openingIn(const netlink::Message& entry);
// Appends the message that sets the bits of `mask` in the entry's mark to `value`.
void appendMarkUpdate(std::vector<std::byte>& updates, const netlink::Message& entry,
                      std::uint32_t mask, std::uint32_t value);

}  // namespace platform::interception
