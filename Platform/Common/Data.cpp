#include "Platform/Common/Data.h"

namespace platform {
namespace {

class MemoryStorage final : public Data::Storage {
public:
    explicit MemoryStorage(std::string bytes) : bytes_(std::move(bytes)) {}
    std::optional<std::string_view> bytes() const override { return bytes_; }

private:
    std::string bytes_;
};

}  // namespace

Data::Data(std::string bytes) : length_(bytes.size()) {
    if (length_ != 0) storage_ = std::make_shared<MemoryStorage>(std::move(bytes));
}

std::optional<std::string_view> Data::bytes() const {
    if (length_ == 0) return std::string_view();
    return storage_->bytes();
}

}  // namespace platform
