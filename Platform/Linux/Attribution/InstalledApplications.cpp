#include "Platform/Linux/Attribution/InstalledApplications.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "Platform/Common/Text.h"
#include "Platform/Linux/Attribution/DesktopEntry.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"
#include "Platform/Linux/Attribution/VirtualBundle.h"

namespace platform {

namespace {

constexpr std::string_view entrySuffix = ".desktop";
constexpr std::size_t largestEntry = 1 << 18;
constexpr const char* snapFolder = "/var/lib/snapd/desktop/applications";
// An installation writes many files: they are read once it has paused.
constexpr int settledMilliseconds = 300;
constexpr std::uint32_t folderChanges = IN_CLOSE_WRITE | IN_MOVE | IN_CREATE | IN_DELETE |
                                        IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

std::vector<std::string> foldersOfMachine() {
    return {"/usr/local/share/applications", "/usr/share/applications", snapFolder};
}

std::string lastPartOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }
std::string folderAround(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Programs that run others: an application that is started by one of them is not that program.
bool isLauncher(const std::string& program) {
    constexpr std::array exact = {
        "sh",     "bash",   "dash",    "zsh",          "env",        "java",      "gjs",
        "node",   "nodejs", "flatpak", "snap",         "bwrap",      "xdg-open",  "pkexec",
        "sudo",   "su",     "mono",    "gapplication", "gtk-launch", "systemctl", "gjs-console",
        "busctl", "setsid", "nice",    "dbus-launch"};
    constexpr std::array beginnings = {"python", "perl",  "ruby", "lua",      "php",
                                       "wish",   "tclsh", "wine", "electron", "qemu-"};
    const auto isExact = [&](const char* name) { return program == name; };
    const auto begins = [&](const char* name) { return program.starts_with(name); };
    return std::ranges::any_of(exact, isExact) || std::ranges::any_of(beginnings, begins);
}

// Folders of programs that have nothing to do with each other.
bool isSharedFolder(const std::string& folder) {
    const auto name = lastPartOf(folder);
    constexpr std::array shared = {"bin",   "sbin", "games", "lib", "lib64", "libexec",
                                   "share", "opt",  "local", "usr", ""};
    return std::ranges::any_of(shared, [&](const char* each) { return name == each; });
}

// The file that a command runs, without symbolic links; empty if there is none.
std::string resolved(const std::string& program) {
    std::vector<std::string> candidates{program};
    if (program.find('/') == std::string::npos) {
        candidates.clear();
        for (const auto* folder : {"/usr/local/bin/", "/usr/bin/", "/bin/", "/usr/local/games/",
                                   "/usr/games/", "/usr/sbin/"})
            candidates.push_back(folder + program);
    }
    std::array<char, PATH_MAX> path{};
    for (const auto& candidate : candidates)
        if (::realpath(candidate.c_str(), path.data()) != nullptr) return path.data();
    return {};
}

std::string readText(const std::string& path, std::size_t limit) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    std::string text(limit, '\0');
    std::size_t length = 0;
    while (file && length < limit) {
        const auto count = ::read(file.get(), text.data() + length, limit - length);
        if (count <= 0) break;
        length += static_cast<std::size_t>(count);
    }
    text.resize(length);
    return text;
}

bool isScript(const std::string& path) { return readText(path, 2) == "#!"; }

bool isRootsFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && isRoot(status.st_uid);
}

// A script of /usr/bin often starts the program of the same name in a folder of the application's.
std::string programBehindScript(const std::string& script) {
    const auto name = lastPartOf(script);
    for (const std::string folder : {"/usr/lib/", "/usr/share/", "/opt/"}) {
        std::string program = folder;
        program.append(name).append("/").append(name);
        if (isRootsFile(program) && !isScript(program)) return program;
    }
    return {};
}

// How good a name a .desktop file gives to an executable that several of them start: the lowest wins.
using Rank = std::tuple<bool, std::size_t, std::size_t, std::string>;

std::string lowered(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char byte) {
        return static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + 32 : byte);
    });
    return text;
}

Rank rankOf(const std::string& identifier, const DesktopEntry& entry, const std::string& program) {
    const auto last = lowered(identifier.substr(identifier.rfind('.') + 1));
    return {last != lowered(lastPartOf(program)), entry.command.size(), identifier.size(),
            identifier};
}

// The snap in whose image a path lies; empty if in none.
std::string snapOfPath(const std::string& path) {
    for (const std::string_view root : {"/snap/", "/var/lib/snapd/snap/"}) {
        if (!path.starts_with(root)) continue;
        const auto end = path.find('/', root.size());
        if (end != std::string::npos) return path.substr(root.size(), end - root.size());
    }
    return {};
}

}  // namespace

struct InstalledApplications::Index {
    std::uint64_t version = 0;
    std::unordered_map<std::string, InstalledApplication> byExecutable;
    std::unordered_map<std::string, InstalledApplication> byFolder;
    std::unordered_map<std::string, InstalledApplication> bySnap;
    std::unordered_map<std::string, InstalledApplication> byIdentifier;

    std::map<std::string, Rank> ranks;  // of what the first two hold, by path

    void addPath(std::unordered_map<std::string, InstalledApplication>& table,
                 const std::string& path, const Rank& rank,
                 const InstalledApplication& application) {
        const auto [known, isNew] = ranks.emplace(path, rank);
        if (!isNew && known->second <= rank) return;
        known->second = rank;
        table.insert_or_assign(path, application);
    }

    void addProgram(const DesktopEntry& entry, const InstalledApplication& application) {
        auto program = resolved(entry.command[0]);
        if (program.empty() || isLauncher(lastPartOf(program))) return;
        const auto rank = rankOf(application.identifier, entry, program);
        const auto addOwnFolder = [&](const std::string& folder) {
            if (!isSharedFolder(folder)) addPath(byFolder, folder, rank, application);
        };
        addOwnFolder(folderAround(program));
        if (isScript(program)) program = programBehindScript(program);
        if (program.empty()) return;
        addPath(byExecutable, program, rank, application);
        addOwnFolder(folderAround(program));
    }

    // `NAME_PROGRAM.desktop`. A snap has one name for all that runs from it; that of the program
    // that is called like it, if there is one.
    void addSnap(const std::string& name, const DesktopEntry& entry) {
        const auto line = name.find('_');
        if (line == std::string::npos) return;
        const auto snap = name.substr(0, line), program = name.substr(line + 1);
        InstalledApplication application{textOfPath("snap." + snap + "." + program),
                                         entry.isTerminal, validUTF8(entry.name)};
        byIdentifier.emplace(application.identifier, application);
        if (program == snap) bySnap.insert_or_assign(snap, application);
        bySnap.emplace(snap, std::move(application));
    }

    void addEntry(const std::string& name, const std::string& path, bool isOfSnaps) {
        if (!isRootsFile(path)) return;
        const auto entry = parseDesktopEntry(readText(path, largestEntry));
        if (!entry) return;
        if (isOfSnaps) return addSnap(name, *entry);
        const InstalledApplication application{identifierThatFits(textOfPath(name)),
                                               entry->isTerminal, validUTF8(entry->name)};
        const bool isNew = byIdentifier.emplace(application.identifier, application).second;
        // Programs for a terminal keep their own names, and what no menu shows is no application.
        if (isNew && entry->isShown && !entry->runsInTerminal) addProgram(*entry, application);
    }

    void addFolder(const std::string& folder) {
        namespace fs = std::filesystem;
        std::error_code failure;
        std::map<std::string, std::string> files;  // in an order that does not change
        for (fs::recursive_directory_iterator each(folder, failure), end; !failure && each != end;
             each.increment(failure)) {
            auto name = each->path().string().substr(folder.size() + 1);
            if (!name.ends_with(entrySuffix)) continue;
            name.resize(name.size() - entrySuffix.size());
            std::ranges::replace(name, '/', '-');
            files.emplace(name, each->path().string());
        }
        for (const auto& [name, path] : files) addEntry(name, path, folder == snapFolder);
    }
};

InstalledApplications& InstalledApplications::shared() {
    static InstalledApplications applications(foldersOfMachine());
    return applications;
}

InstalledApplications::InstalledApplications(std::vector<std::string> foldersToRead)
    : folders(std::move(foldersToRead)), index(read(folders)) {}

InstalledApplications::~InstalledApplications() = default;

std::shared_ptr<const InstalledApplications::Index> InstalledApplications::read(
    const std::vector<std::string>& folders) {
    static std::atomic<std::uint64_t> latestVersion{0};
    auto index = std::make_shared<Index>();
    index->version = ++latestVersion;
    for (const auto& folder : folders) index->addFolder(folder);
    index->ranks.clear();
    return index;
}

void InstalledApplications::reload() {
    auto replacement = read(folders);
    const MutexGuard guard(lock);
    index = std::move(replacement);
}

std::shared_ptr<const InstalledApplications::Index> InstalledApplications::current() const {
    const MutexGuard guard(lock);
    return index;
}

std::uint64_t InstalledApplications::version() const { return current()->version; }

std::optional<InstalledApplication> InstalledApplications::ofExecutable(
    const std::string& path) const {
    const auto known = current();
    const auto find = [](const auto& table, const std::string& key) {
        const auto found = table.find(key);
        return found == table.end() ? std::nullopt : std::optional(found->second);
    };
    if (auto application = find(known->byExecutable, path)) return application;
    if (const auto snap = snapOfPath(path); !snap.empty()) return find(known->bySnap, snap);
    for (auto folder = folderAround(path); !folder.empty(); folder = folderAround(folder))
        if (auto application = find(known->byFolder, folder)) return application;
    return std::nullopt;
}

std::optional<InstalledApplication> InstalledApplications::named(
    std::string_view identifier) const {
    const auto known = current();
    const auto found = known->byIdentifier.find(std::string(identifier));
    return found == known->byIdentifier.end() ? std::nullopt : std::optional(found->second);
}

std::vector<InstalledApplication> InstalledApplications::all() const {
    const auto known = current();
    std::vector<InstalledApplication> list;
    list.reserve(known->byIdentifier.size());
    for (const auto& [identifier, application] : known->byIdentifier) list.push_back(application);
    return list;
}

InstalledApplicationsWatch::InstalledApplicationsWatch()
    : inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    watchFolders();
    InstalledApplications::shared().reload();
    thread = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

InstalledApplicationsWatch::~InstalledApplicationsWatch() {
    thread.request_stop();
    ::eventfd_write(wakeUp.get(), 1);
}

// A folder that is not there yet shows in the nearest one around it. Watching one twice changes
// nothing.
void InstalledApplicationsWatch::watchFolders() {
    for (auto folder : foldersOfMachine())
        while (!folder.empty() &&
               ::inotify_add_watch(inotify.get(), folder.c_str(), folderChanges) < 0)
            folder = folderAround(folder);
}

// True if there was anything to read.
bool InstalledApplicationsWatch::drain() {
    alignas(inotify_event) std::array<char, 4096> events;
    bool hasChanged = false;
    while (::read(inotify.get(), events.data(), events.size()) > 0) hasChanged = true;
    return hasChanged;
}

void InstalledApplicationsWatch::run(const std::stop_token& stop) {
    std::array<pollfd, 2> watched{{{inotify.get(), POLLIN, 0}, {wakeUp.get(), POLLIN, 0}}};
    while (!stop.stop_requested()) {
        ::poll(watched.data(), watched.size(), -1);
        bool hasChanged = false;
        while (!stop.stop_requested() && drain()) {
            hasChanged = true;
            ::poll(watched.data(), watched.size(), settledMilliseconds);
        }
        if (!hasChanged || stop.stop_requested()) continue;
        watchFolders();
        InstalledApplications::shared().reload();
    }
}

}  // namespace platform
