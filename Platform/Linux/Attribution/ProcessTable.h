// Says what each process is to the extension: which application it belongs to, under which path,
// parent and signing identifier it is shown. The seam's process operations and the attribution of
// flows ask it, from any thread. It owns a bounded memory of what it has found; nobody waits while
// another thread reads /proc.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/AuditToken.h"
#include "Platform/Linux/Attribution/ProcessStatus.h"
#include "Platform/Linux/Attribution/RecentMemory.h"

namespace platform {

enum class ProcessKind {
    // Its executable lies in a real bundle. It is signed as the innermost bundle around it, as a
    // helper is, while its path leads to the outermost one: rules find either.
    bundle,
    // It runs in the control group of a desktop application, and is that application.
    desktopApplication,
    // Neither, but a descendant of one of those two. Signed with its file name, it lives in no bundle
    // and follows its application by its parents.
    applicationPart,
    // Anything else, named by its executable. A script is its interpreter: that is the program the
    // kernel runs, and what a script calls itself is the script's own choice.
    ordinaryProgram
};

struct Process {
    pid_t pid = 0;
    ProcessStatus status;
    ProcessKind kind = ProcessKind::ordinaryProgram;
    std::string signingIdentifier;  // valid UTF-8, never empty
    std::string shownPath;          // valid UTF-8
    pid_t shownParentPid = 1;       // the real one if the parent is of the first three kinds

    AuditToken auditToken() const;
};

// What a program in no bundle is called, by the path and the owner of its executable. Without dots, so
// that no rule for a longer or a shorter name ever covers it.
std::string ordinaryProgramIdentifier(const std::string& path, uid_t owner);

class ProcessTable {
public:
    // The one table of this system.
    static ProcessTable& shared();

    // What the process is now. Nothing if it has ended or may not be looked at.
    std::shared_ptr<const Process> examine(pid_t pid);

    // The same for a caller that was led to `pid` by an earlier answer: one that is a moment old
    // serves, and so does the last one for a process that has ended meanwhile. A process that ended
    // without having been seen is what it was forked from.
    std::shared_ptr<const Process> recall(pid_t pid);

    using Clock = std::chrono::steady_clock;

    // A new process has come into being. What an older one of the same id was is forgotten. The word
    // of it may come late, hence the moment when it happened.
    void noteFork(pid_t child, pid_t parent, Clock::time_point when);

    // A process runs another program, which has nothing in common with what it was forked from.
    void noteExec(pid_t pid, Clock::time_point when);

private:
    struct Entry {
        std::shared_ptr<const Process> process;
        Clock::time_point classified;  // when its place among the applications was looked up
        Clock::time_point confirmed;   // when it was last seen to be the same program
    };

    std::shared_ptr<const Process> examine(pid_t pid, int generation);
    std::shared_ptr<const Process> recall(pid_t pid, int generation);
    std::shared_ptr<const Process> likeItsParent(pid_t pid, int generation);
    Entry find(pid_t pid);
    std::shared_ptr<const Process> store(std::shared_ptr<const Process> process,
                                         Clock::time_point classified, Clock::time_point confirmed);
    Process classify(pid_t pid, const ProcessStatus& status, const FileDescriptor& folder,
                     int generation);
    void forgetOlder(pid_t pid, Clock::time_point when);
    void makeRoom(Clock::time_point now) REQUIRES(lock);

    Mutex lock;  // held for table work only
    std::unordered_map<pid_t, Entry> entries GUARDED_BY(lock);
    RecentMemory<pid_t, pid_t> parents{4096};
};

}  // namespace platform
