// Follows the starts of processes, so that the process table knows a program before its first flow,
// and still when it ends right behind it. It owns a thread, which the kernel tells of every fork and
// exec of the machine. Needs root and the machine's first process namespace.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class ProcessWatch {
public:
    // Tells `processes`, which outlives the watch, of what starts from now on. Returns when the
    // watch is in place; nothing where the kernel or our rights do not allow it.
    static std::unique_ptr<ProcessWatch> start(ProcessTable& processes);

    // Takes in what has happened until now. Any thread.
    void catchUp();

    ~ProcessWatch();
    ProcessWatch(const ProcessWatch&) = delete;
    ProcessWatch& operator=(const ProcessWatch&) = delete;

private:
    ProcessWatch(ProcessTable& toTell, FileDescriptor listening);
    void run(const std::stop_token& stop);
    void takeIn(const char* message, std::size_t length);

    ProcessTable& processes;
    std::mutex lock;  // held while events are taken in, so that they are in their order
    FileDescriptor events;
    FileDescriptor wakeUp;
    std::jthread thread;
};

}  // namespace platform
