// A block of bytes, handed from one platform call to the next. Its length is always known; where
// the bytes are is the storage's business: in memory, in a kernel pipe that a relay moves on
// without looking, or nowhere at all for a packet of which only the length was read. Copying a Data
// copies the handle. A Data is immutable; handles may be used from several threads.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace platform {

class Data {
public:
    // Where the bytes of a block live. A platform derives from it for bytes outside memory.
    class Storage {
    public:
        virtual ~Storage() = default;
        // The bytes, if they are in memory; nothing otherwise. The view lives as long as the
        // storage.
        virtual std::optional<std::string_view> bytes() const { return std::nullopt; }
    };

    // No bytes.
    Data() = default;
    // Bytes in memory. Not explicit: texts and encoded documents are handed over as data.
    Data(std::string bytes);
    Data(std::string_view bytes) : Data(std::string(bytes)) {}
    Data(const char* text) : Data(std::string(text)) {}
    // Bytes held by `storage`, of the given length.
    Data(std::shared_ptr<const Storage> storage, std::size_t length)
        : storage_(std::move(storage)), length_(length) {}

    std::size_t length() const { return length_; }
    bool isEmpty() const { return length_ == 0; }

    // The bytes, if they are in memory. Messages, tokens and file contents always are; bytes of a
    // flow need not be. An empty block gives an empty view.
    std::optional<std::string_view> bytes() const;

    const std::shared_ptr<const Storage>& storage() const { return storage_; }

private:
    std::shared_ptr<const Storage> storage_;
    std::size_t length_ = 0;
};

}  // namespace platform
