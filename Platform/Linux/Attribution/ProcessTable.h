// Says what each process is to the extension: which application it belongs to, under which path,
// parent and signing identifier it is shown. The seam's process operations and the attribution of
// flows ask it, from any thread. It owns a bounded memory of what it has found.
//
// Of a process it learns in two ways. The kernel's notes name the program, its ancestors and their
// control groups as they were when a socket was used: as long as those are the same, so is the answer,
// and nothing is read. Everything else is read from /proc, and holds for half a second. Neither waits
// for a file system that hangs: such a process is named by what is known without it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/AuditToken.h"
#include "Platform/Linux/Attribution/ProcessStatus.h"
#include "Platform/Linux/Attribution/ProgramName.h"
#include "Platform/Linux/Attribution/RecentMemory.h"
#include "Platform/Linux/Attribution/SocketNotes.h"

namespace platform {

struct Process {
    pid_t pid = 0;
    ProcessStatus status;
    std::string executable;  // its path in bytes
    ProcessKind kind = ProcessKind::ordinaryProgram;
    bool isTerminal = false;
    std::string signingIdentifier;  // valid UTF-8, never empty
    std::string shownPath;          // valid UTF-8
    // The real one if the parent is an application or a part of one; not for an application that
    // another one has started, which is no one's part.
    pid_t shownParentPid = 1;

    AuditToken auditToken() const;
};

class ProcessTable {
public:
    // The one table of this system.
    static ProcessTable& shared();

    // What the process is now. Null if it has ended or may not be looked at.
    std::shared_ptr<const Process> examine(pid_t pid);

    // The same for a caller that was led to `pid` by an earlier answer: one that is a moment old
    // serves, and so does the last one for a process that has ended meanwhile.
    std::shared_ptr<const Process> recall(pid_t pid);

    // The program of a note, which may have ended meanwhile. Null if it has and the note does not
    // name its executable.
    std::shared_ptr<const Process> ofNote(const SocketNotes& notes, const KernelNote& note);

private:
    using Clock = std::chrono::steady_clock;
    using ProcessPointer = std::shared_ptr<const Process>;
    struct Entry {
        ProcessPointer process;
        std::uint64_t noted = 0;         // of the note that told of it and its ancestors, or 0
        std::uint64_t applications = 0;  // version of the index that it was named by
        Clock::time_point named{};       // when its place among the applications was looked up
        Clock::time_point confirmed{};   // when it was last seen to be the same program
    };
    struct Chain;

    ProcessPointer examine(pid_t pid, int generation);
    ProcessPointer examineParent(const ProcessStatus& status, int generation);
    ProcessPointer ofNote(const Chain& chain, std::size_t place);
    ProcessPointer findNoted(const Chain& chain, std::size_t place);
    Executable executableOf(pid_t pid, const ProcessStatus& status);
    Entry find(pid_t pid);
    ProcessPointer store(const Entry& entry);
    void makeRoom(Clock::time_point now) REQUIRES(lock);

    Mutex lock;  // held for table work only
    std::unordered_map<pid_t, Entry> entries GUARDED_BY(lock);
    RecentMemory<std::string, Executable> executables{1024};
};

}  // namespace platform
