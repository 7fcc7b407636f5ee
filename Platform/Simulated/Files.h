// The files of the simulated machine, in memory. Every operation can be made to fail; a plain write
// that fails leaves a part, an atomic one leaves the old file whole. Tests put files in place, read
// what the core wrote, and ask which operations it made. Any thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Foundation.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform::simulated {

enum class FileOperation { read, writeAtomically, write, setPermissions, remove };

struct FileAccess {
    FileOperation operation;
    std::string path;
};

class Files {
public:
    explicit Files(Scheduler& source) : scheduler(source) {}

    // What tests do and ask. These are not counted as accesses and never fail.
    void put(std::string_view path, std::string_view bytes, int permissions = 0644);
    void remove(std::string_view path);
    bool exists(std::string_view path) const { return contents(path).has_value(); }
    std::optional<std::string> contents(std::string_view path) const;
    // Null if there is no such file. A file that the core makes has 0600 until it says otherwise.
    std::optional<int> permissions(std::string_view path) const;
    std::size_t count(FileOperation operation, std::string_view path) const;

    // The next `times` operations of this kind on this path (empty: any path) fail. A plain write
    // that fails leaves the first `partLeft` bytes of what it was given.
    void fail(FileOperation operation, std::string_view path = {}, int times = 1,
              std::size_t partLeft = 0);
    // From now on one operation in `chances` fails, drawn from the seed; 0 for none.
    void failAtRandom(std::uint64_t chances);

    // A disk that hangs: from now on every operation of this kind on this path waits, until the disk
    // goes on.
    void stall(FileOperation operation, std::string_view path);
    void goOn();
    // Returns once an operation waits.
    void waitUntilStalled();

    // The group container: its path, or nothing. There is one from the start.
    void setContainer(std::optional<std::string> path);
    std::optional<std::string> container() const;
    // How often the core asked for it, and with which group identifiers.
    std::vector<std::string> containerQuestions() const;

    // The core's side.
    std::optional<Data> read(std::string_view path);
    std::optional<NSError> writeAtomically(std::string_view bytes, std::string_view path);
    std::optional<NSError> write(std::string_view bytes, std::string_view path);
    bool setPermissions(int permissions, std::string_view path);
    bool removeItem(std::string_view path);
    std::optional<std::string> containerFor(std::string_view groupIdentifier);

private:
    struct File {
        std::string bytes;
        int permissions = 0600;
    };
    struct Fault {
        FileOperation operation;
        std::string path;
        int times;
        std::size_t partLeft;
    };
    // The part that a failing operation leaves, or null if it succeeds.
    std::optional<std::size_t> takeFault(FileOperation operation, std::string_view path,
                                         std::size_t length) REQUIRES(mutex);
    void note(FileOperation operation, std::string_view path) REQUIRES(mutex);
    void waitWhileStalled(FileOperation operation, std::string_view path) REQUIRES(mutex);

    Scheduler& scheduler;
    mutable Mutex mutex;
    std::map<std::string, File, std::less<>> files GUARDED_BY(mutex);
    std::vector<Fault> faults GUARDED_BY(mutex);
    std::uint64_t randomFaultChances GUARDED_BY(mutex) = 0;
    std::vector<FileAccess> log GUARDED_BY(mutex);
    std::optional<FileAccess> stalled GUARDED_BY(mutex);
    std::size_t waiting GUARDED_BY(mutex) = 0;
    Condition changed;
    std::optional<std::string> containerPath GUARDED_BY(mutex) = "/container";
    std::vector<std::string> questions GUARDED_BY(mutex);
};

}  // namespace platform::simulated
