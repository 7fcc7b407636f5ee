// Owns an open file descriptor and closes it. Empty when an opening failed.
#pragma once

#include <unistd.h>

#include <utility>

namespace platform {

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int toOwn) : descriptor(toOwn) {}
    FileDescriptor(FileDescriptor&& other) noexcept
        : descriptor(std::exchange(other.descriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    ~FileDescriptor() {
        if (descriptor >= 0) ::close(descriptor);
    }

    explicit operator bool() const { return descriptor >= 0; }
    int get() const { return descriptor; }

private:
    int descriptor = -1;
};

}  // namespace platform
