#include "Platform/Linux/OwnTraffic.h"

#include <sys/socket.h>

#include <charconv>
#include <filesystem>
#include <string>

namespace platform {

namespace {

void changeMark(int descriptor, std::uint32_t from, std::uint32_t to) {
    std::uint32_t present = 0;
    socklen_t length = sizeof present;
    const bool hasMark =
        getsockopt(descriptor, SOL_SOCKET, SO_MARK, &present, &length) == 0 && present == from;
    // One that is just being closed needs none.
    if (hasMark) static_cast<void>(setsockopt(descriptor, SOL_SOCKET, SO_MARK, &to, sizeof to));
}

}  // namespace

void OwnTraffic::setMark(std::uint32_t mark) {
    const std::uint32_t before = value.exchange(mark);
    if (before == 0 || before == mark) return;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
        const std::string name = entry.path().filename();
        int descriptor = -1;
        std::from_chars(name.data(), name.data() + name.size(), descriptor);
        changeMark(descriptor, before, mark);
    }
}

}  // namespace platform
