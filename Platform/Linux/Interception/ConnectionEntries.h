// The kernel's table of connections, as far as it holds marks of ours. Marks outlive the process
// that put them there, so a start wipes them; a flush of which the generation number was in use
// before makes the old holders of that number stale. One thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Interception/NetlinkSocket.h"

namespace platform::interception {

class ConnectionEntries {
public:
    // Nothing if the kernel gives no socket.
    static std::unique_ptr<ConnectionEntries> open();

    // Goes through all entries; where `change` gives a mark, the bits in `mask` are set to it.
    // 0 or an errno.
    using Change = std::function<std::optional<std::uint32_t>(std::uint32_t mark)>;
    int changeMarks(std::uint32_t mask, const Change& change);

    // Removes the entry of an outbound flow. Its next packet counts as the first of a new one.
    void remove(const FlowTuple& flow);
    bool has(const FlowTuple& flow);

    // The flow as its first packet opened it, before any translation, found by what its answers
    // look like. Nothing if there is no such entry.
    std::optional<FlowTuple> openingOf(const FlowTuple& answers);

private:
    explicit ConnectionEntries(std::unique_ptr<NetlinkSocket> opened) : socket(std::move(opened)) {}

    std::unique_ptr<NetlinkSocket> socket;
};

}  // namespace platform::interception
