// Follows the starts of processes, so that the process table knows a program before its first flow,
// and still when it ends right behind it. It owns a thread, which the kernel tells of every fork and
// exec of the machine. Needs root and the machine's first process namespace.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <stop_token>
#include <thread>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class ProcessWatch {
public:
    // Tells `processes`, which outlives the watch, of what starts from now on. Returns when the
    // watch is in place; nothing where the kernel or our rights do not allow it.
    static std::unique_ptr<ProcessWatch> start(ProcessTable& processes);

    // Takes in what has happened until now, and waits until the programs that were started have been
    // looked at; not for long, as one of them may lie on a file system that hangs. Any thread.
    void catchUp();

    ~ProcessWatch();
    ProcessWatch(const ProcessWatch&) = delete;
    ProcessWatch& operator=(const ProcessWatch&) = delete;

private:
    ProcessWatch(ProcessTable& toTell, FileDescriptor listening);
    void run(const std::stop_token& stop);
    void examineStarted();
    void takeInEvents() REQUIRES(lock);
    void takeIn(const char* message, std::size_t length) REQUIRES(lock);

    ProcessTable& processes;
    FileDescriptor events;
    FileDescriptor wakeUp;
    // Held while events are taken in, so that they are in their order.
    Mutex lock;
    std::deque<pid_t> started GUARDED_BY(lock);  // programs that nobody has looked at yet
    bool isExamining GUARDED_BY(lock) = false;
    Condition allExamined;
    std::jthread thread;
};

}  // namespace platform
