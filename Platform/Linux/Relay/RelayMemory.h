// How much memory the bytes under way in relays take. Pipes are bounded by themselves; what finds no
// pipe lies in the process, and peers that do not read must not fill it: once much is under way, each
// further read takes little. Any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Common/Data.h"

namespace platform {

class RelayMemory final : public Data::Storage {
public:
    // Blocks up to this size are not counted, and any read may be as large as that: with the 9,900
    // sessions that 20,000 descriptors allow, two directions each, these come to 80 MB at most.
    static constexpr std::size_t smallBlock = 4 * 1024;
    // From here on reads are small.
    static constexpr std::size_t budget = 32 * 1024 * 1024;

    // As much of `wanted` bytes as one read may take now.
    static std::size_t allowanceFor(std::size_t wanted) {
        if (wanted <= smallBlock || taken().load(std::memory_order_relaxed) < budget) return wanted;
        return smallBlock;
    }
    static Data block(std::string bytes) {
        if (bytes.size() <= smallBlock) return bytes;
        const std::size_t length = bytes.size();
        return {std::make_shared<const RelayMemory>(std::move(bytes)), length};
    }

    explicit RelayMemory(std::string blockOfBytes) : bytes_(std::move(blockOfBytes)) {
        taken().fetch_add(bytes_.size(), std::memory_order_relaxed);
    }
    ~RelayMemory() override { taken().fetch_sub(bytes_.size(), std::memory_order_relaxed); }
    RelayMemory(const RelayMemory&) = delete;
    RelayMemory& operator=(const RelayMemory&) = delete;

    std::optional<std::string_view> bytes() const override { return bytes_; }

private:
    static std::atomic<std::size_t>& taken() {
        static std::atomic<std::size_t> count{0};
        return count;
    }

    const std::string bytes_;
};

}  // namespace platform
