#include "Platform/Linux/Attribution/AppImage.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>

#include "Platform/Linux/Attribution/ProcessStatus.h"
#include "Platform/Linux/Attribution/RecentMemory.h"

namespace platform {

namespace {

constexpr std::string_view kindPrefix = "fuse.";
constexpr std::string_view markOfMount = "/.mount_";

// The folder that an image is mounted at, of which its runtime chooses the name.
std::string mountAround(const std::string& path) {
    const auto mark = path.find(markOfMount);
    return mark == std::string::npos ? std::string()
                                     : path.substr(0, path.find('/', mark + markOfMount.size()));
}

// The image's file name: a runtime mounts it as a file system called after it.
std::optional<std::string> imageMountedAt(const std::string& folder) {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream words(line);
        std::string word, place, kind, source;
        words >> word >> word >> word >> word >> place;
        while (words >> word && word != "-") {
        }
        words >> kind >> source;
        if (place == folder && kind == std::string(kindPrefix) + source) return source;
    }
    return std::nullopt;
}

// The executable of this name that a process of the account runs.
std::optional<std::string> executableCalled(const std::string& name, uid_t account) {
    std::error_code failure;
    for (std::filesystem::directory_iterator each("/proc", failure), end; !failure && each != end;
         each.increment(failure)) {
        const auto text = each->path().filename().string();
        pid_t pid = 0;
        if (std::from_chars(text.data(), text.data() + text.size(), pid).ec != std::errc{})
            continue;
        const auto status = readProcessStatus(openProcess(pid));
        if (status && status->effectiveUserId == account &&
            status->executableLink.ends_with("/" + name))
            return status->executableLink;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> appImageAround(const std::string& path, uid_t account) {
    static auto& known = *new RecentMemory<std::string, std::string>(64);
    const auto folder = mountAround(path);
    if (folder.empty()) return std::nullopt;
    if (auto image = known.find(folder)) return image;
    const auto name = imageMountedAt(folder);
    auto image = name ? executableCalled(*name, account) : std::nullopt;
    if (image) known.remember(folder, *image);
    return image;
}

}  // namespace platform
