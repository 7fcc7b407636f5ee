// Hears of every change of packet rules, ours and others', and tells which of them could concern this daemon. An
// address that is added to a set is none: lists of blocked addresses do it each second, and a look at rules beside
// such a list takes seconds. An element of a map is one, where what it maps to may be a mark. One thread.
#pragma once

#include <utility>

#include "Platform/Linux/Netlink/Socket.h"
#include "Platform/Linux/Result.h"

namespace platform::interception {

class RuleEvents {
public:
    static Result<RuleEvents> open();

    // Readable when there are events, of whatever kind.
    int descriptor() const { return socket.descriptor(); }

    // What has changed since the last call.
    struct News {
        bool areOursChanged = false;
        bool areOthersChanged = false;

        bool areAny() const { return areOursChanged || areOthersChanged; }
    };
    News take();

private:
    explicit RuleEvents(netlink::Socket opened) : socket(std::move(opened)) {}

    netlink::Socket socket;
};

}  // namespace platform::interception
