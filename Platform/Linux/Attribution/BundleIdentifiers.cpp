#include "Platform/Linux/Attribution/BundleIdentifiers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <pugixml.hpp>
#include <unordered_map>

#include "Platform/Common/Mutex.h"
#include "Platform/Common/Text.h"
#include "Platform/Linux/Attribution/FileLook.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

namespace {

constexpr std::size_t largestPropertyList = 1 << 20;
constexpr std::size_t longestIdentifier = 255;
constexpr std::array<std::string_view, 3> suffixes = {".app", ".xpc", ".appex"};

bool isUsable(std::string_view identifier) {
    return !identifier.empty() && identifier.size() <= longestIdentifier &&
           isValidUTF8(identifier) && !holdsControlCharacter(identifier);
}

std::string textOf(const pugi::xml_node& element) {
    std::string text;
    for (const auto& child : element.children()) text += child.value();
    return text;
}

pugi::xml_node nextElement(pugi::xml_node node) {
    do node = node.next_sibling();
    while (node && node.type() != pugi::node_element);
    return node;
}

// Tells one state of a file from another.
struct FileVersion {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t changed = 0;  // in nanoseconds

    bool operator==(const FileVersion&) const = default;
};

FileVersion versionOf(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size,
            std::int64_t{status.st_ctim.tv_sec} * 1'000'000'000 + status.st_ctim.tv_nsec};
}

std::optional<std::string> readPropertyList(const std::string& path) {
    // Not blocking: the file may be exchanged for a pipe after it was looked at.
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    std::string text(largestPropertyList + 1, '\0');
    std::size_t length = 0;
    while (length < text.size()) {
        const auto count = ::read(file.get(), text.data() + length, text.size() - length);
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    if (length > largestPropertyList) return std::nullopt;
    text.resize(length);
    return text;
}

// The identifiers of the property lists seen so far, by path.
class KnownPropertyLists {
public:
    static KnownPropertyLists& shared() {
        static auto& lists = *new KnownPropertyLists;  // a look may outlive everything else
        return lists;
    }

    // Where the file system hangs, what was known last.
    std::optional<std::string> identifier(const std::string& path) {
        auto known = find(path);
        if (known && Clock::now() - known->seen <= lifetime) return known->identifier;
        lookWithPatience("property list " + path, [path] { shared().look(path); });
        known = find(path);
        return known ? known->identifier : std::nullopt;
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        FileVersion version;
        std::optional<std::string> identifier;
        Clock::time_point seen;
    };
    static constexpr std::size_t limit = 1000;
    static constexpr std::chrono::milliseconds lifetime{500};

    std::optional<Entry> find(const std::string& path) {
        const MutexGuard guard(lock);
        const auto found = entries.find(path);
        return found == entries.end() ? std::nullopt : std::optional(found->second);
    }

    void look(const std::string& path) {
        auto entry = entryFor(path);
        if (!entry) return;
        entry->seen = Clock::now();
        const MutexGuard guard(lock);
        if (entries.size() >= limit) entries.clear();
        entries.insert_or_assign(path, std::move(*entry));
    }

    // None where the file system doesn't tell, as one that has just stopped to hang: what is known holds.
    std::optional<Entry> entryFor(const std::string& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            if (errno == ENOENT || errno == ENOTDIR) return Entry{};
            return std::nullopt;
        }
        Entry entry;
        if (!S_ISREG(status.st_mode) || status.st_size > static_cast<off_t>(largestPropertyList))
            return entry;
        entry.version = versionOf(status);
        if (auto known = find(path); known && known->version == entry.version) return known;
        const auto text = readPropertyList(path);
        if (!text) return std::nullopt;
        entry.identifier = identifierInPropertyList(*text);
        return entry;
    }

    Mutex lock;  // held for table work only
    std::unordered_map<std::string, Entry> entries GUARDED_BY(lock);
};

// The end of the bundle path that `suffix` marks in `path`, searched from the left; npos if none.
std::size_t bundleEnd(std::string_view path, std::string_view suffix) {
    auto start = path.find(std::string(suffix) + "/");
    if (start == std::string_view::npos) start = path.find(suffix);
    return start == std::string_view::npos ? start : start + suffix.size();
}

bool isBundlePath(std::string_view path) {
    return std::any_of(suffixes.begin(), suffixes.end(),
                       [&](std::string_view suffix) { return path.ends_with(suffix); });
}

}  // namespace

std::optional<std::string> identifierInPropertyList(std::string_view text) {
    pugi::xml_document document;
    // A piece of text that is only white space belongs to its text like any other.
    constexpr auto flags = pugi::parse_default | pugi::parse_ws_pcdata;
    if (!document.load_buffer(text.data(), text.size(), flags)) return std::nullopt;
    std::optional<std::string> identifier;
    for (const auto& key : document.child("plist").child("dict").children("key")) {
        if (textOf(key) != "CFBundleIdentifier") continue;
        const auto value = nextElement(key);
        identifier.reset();
        if (std::string_view(value.name()) == "string") identifier = textOf(value);
    }
    if (identifier && !isUsable(*identifier)) return std::nullopt;
    return identifier;
}

std::optional<std::string> bundleIdentifierAt(const std::string& path) {
    auto& lists = KnownPropertyLists::shared();
    if (auto identifier = lists.identifier(path + "/Contents/Info.plist")) return identifier;
    return lists.identifier(path + "/Info.plist");
}

std::optional<std::string> innermostBundleIdentifier(const std::string& path) {
    for (auto end = path.rfind('/'); end != std::string::npos && end > 0;
         end = path.rfind('/', end - 1)) {
        const auto directory = path.substr(0, end);
        if (!isBundlePath(directory)) continue;
        if (auto identifier = bundleIdentifierAt(directory)) return identifier;
    }
    return std::nullopt;
}

bool showsBundle(const std::string& path) {
    return std::any_of(suffixes.begin(), suffixes.end(), [&](std::string_view suffix) {
        const auto end = bundleEnd(path, suffix);
        return end != std::string::npos && bundleIdentifierAt(path.substr(0, end)).has_value();
    });
}

}  // namespace platform
