// The last bytes of a stream, received along with its end. Whoever hands them on ends its own stream
// behind them, so the system may keep them until that end and send both at once: the peer is woken
// once and not twice. Should no end follow, it sends them by itself after a fifth of a second.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Common/Data.h"

namespace platform {

class LastBytes final : public Data::Storage {
public:
    explicit LastBytes(std::string lastBytes) : bytes_(std::move(lastBytes)) {}
    std::optional<std::string_view> bytes() const override { return bytes_; }

private:
    const std::string bytes_;
};

}  // namespace platform
