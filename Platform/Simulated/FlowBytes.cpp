#include "Platform/Simulated/FlowBytes.h"

#include <memory>
#include <utility>

#include "Platform/Simulated/Contracts.h"

namespace platform::simulated {
namespace {

class FlowBytes final : public Data::Storage {
public:
    explicit FlowBytes(std::string text) : bytesHeld(std::move(text)) {}
    const std::string bytesHeld;
};

}  // namespace

Data makeFlowBytes(std::string bytes) {
    const auto length = bytes.size();
    return Data(std::make_shared<const FlowBytes>(std::move(bytes)), length);
}

std::string bytesOf(const Data& data) {
    if (const auto* flowBytes = dynamic_cast<const FlowBytes*>(data.storage().get()))
        return flowBytes->bytesHeld;
    const auto bytes = data.bytes();
    if (!bytes) breach("a block of bytes is handed over that this platform did not make");
    return std::string(bytes.value_or(std::string_view()));
}

}  // namespace platform::simulated
