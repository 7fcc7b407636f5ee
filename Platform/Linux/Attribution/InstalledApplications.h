// The applications that are installed on this machine, by their executables: what root's .desktop
// files and snaps name. With it an application has one name, whether it was started from the menu, by
// another application's link, from a terminal or by the system. The index is read as a whole and
// replaced as a whole; questions come from any thread and never wait for a disk.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

struct InstalledApplication {
    std::string identifier;   // of the .desktop file, or snap.NAME.PROGRAM; valid UTF-8
    bool isTerminal = false;  // a terminal emulator: what it starts is no part of it
    std::string name{};       // in menus; valid UTF-8
};

class InstalledApplications {
public:
    // The ones of this machine.
    static InstalledApplications& shared();

    // Reads the index from these folders, the first of which win.
    explicit InstalledApplications(std::vector<std::string> folders);
    ~InstalledApplications();

    // The application whose executable, or own folder's file, this path is. Bytes.
    std::optional<InstalledApplication> ofExecutable(const std::string& path) const;

    // What is known of the application with a .desktop file of this name; null if there is none.
    std::optional<InstalledApplication> named(std::string_view identifier) const;

    // All of them, in no order.
    std::vector<InstalledApplication> all() const;

    // Differs after every change of the index.
    std::uint64_t version() const;

    void reload();

private:
    struct Index;
    static std::shared_ptr<const Index> read(const std::vector<std::string>& folders);
    std::shared_ptr<const Index> current() const;

    const std::vector<std::string> folders;
    mutable Mutex lock;
    std::shared_ptr<const Index> index GUARDED_BY(lock);
};

// Reloads the machine's index whenever one of its folders has changed, on a thread of its own, for as
// long as it lives.
class InstalledApplicationsWatch {
public:
    InstalledApplicationsWatch();
    ~InstalledApplicationsWatch();
    InstalledApplicationsWatch(const InstalledApplicationsWatch&) = delete;
    InstalledApplicationsWatch& operator=(const InstalledApplicationsWatch&) = delete;

private:
    void run(const std::stop_token& stop);
    void watchFolders();
    bool drain();

    FileDescriptor inotify;
    FileDescriptor wakeUp;
    std::jthread thread;
};

}  // namespace platform
