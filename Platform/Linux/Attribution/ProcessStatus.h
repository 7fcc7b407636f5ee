// What /proc says about one process at one moment, read in a few system calls and all of it from the
// same process, also when its id is given to another one meanwhile. Any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/FileDescriptor.h"

namespace platform {

// The process's folder, open. It belongs to this process only: reads fail once it has ended.
FileDescriptor openProcess(pid_t pid);

// The account that a process runs under; null if there is no such process.
std::optional<uid_t> accountOf(pid_t pid);

// The fields that tell one program in one process from another.
struct ProcessStatus {
    pid_t parentPid = 0;
    std::uint64_t startTime = 0;  // in clock ticks since boot
    uid_t effectiveUserId = 0;
    // What the process's link to its executable says: the path in bytes, with the kernel's mark
    // behind it once that file was removed. It is read without asking the file system.
    std::string executableLink;

    bool operator==(const ProcessStatus&) const = default;
};

// Null if the process has ended, runs no program (the kernel's own, a zombie), or may not be
// looked at. It never waits for a file system.
std::optional<ProcessStatus> readProcessStatus(const FileDescriptor& process);

// Parent and start time in the text of /proc/PID/stat; the program's name in it may hold anything.
bool parseProcessStat(std::string_view text, ProcessStatus& status);

struct Executable {
    std::string path;  // in bytes; of a removed or replaced file the one it was started from
    std::optional<uid_t> owner;  // none where the file cannot be asked for it
};

// The running executable, whose file system may hang.
Executable lookAtExecutable(const FileDescriptor& process, const std::string& link);

// The text of a small file of the process's folder; empty if it cannot be read.
std::string readProcessFile(const FileDescriptor& process, const char* name);

}  // namespace platform
