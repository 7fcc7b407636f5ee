// Writes log lines on a thread of its own. Whoever logs only queues the line: a journal that stalls and
// a standard error that no one reads hold up nothing else. The queue is bounded. A line that finds it
// full is dropped and counted; the log says so where the gap begins, and how many lines are missing
// once the queue is down to a half. Any thread.
//
// state   | a line comes          | the queue is full      | the queue is down to a half
// --------+-----------------------+------------------------+-----------------------------
// keeping | queued                | "are lost": losing     | -
// losing  | dropped and counted   | dropped and counted    | "were lost": keeping
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/Common/Mutex.h"
#include "Platform/Logging.h"

namespace platform {

// A line that is ready to be written.
struct LogLine {
    std::string_view subsystem;  // literals
    std::string_view category;
    LogLevel level = LogLevel::info;
    std::string text;
    std::chrono::system_clock::time_point when = std::chrono::system_clock::now();
};

class LogWriter {
public:
    // False if the line found no taker and is lost.
    using Write = std::function<bool(const LogLine&)>;

    // `write` is called on the writer's thread alone and may take as long as it likes.
    LogWriter(Write write, std::size_t mostLines);
    // Waits for a write that is under way; lines that still wait are not written.
    ~LogWriter();
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    void add(LogLine line);
    // Waits until all that has been added is written, or for so long. False if it is not.
    bool flush(std::chrono::milliseconds longest);

    // How many lines were dropped or lost so far.
    std::uint64_t dropped();

private:
    void run();
    void queue(LogLine line) REQUIRES(lock);
    void count(bool isTaken) REQUIRES(lock);
    void sayWhatIsOver() REQUIRES(lock);
    void rest() REQUIRES(lock);

    const Write write;
    const std::size_t capacity;

    Mutex lock;
    Condition changed;
    Condition restEnds;
    std::deque<LogLine> waiting GUARDED_BY(lock);
    std::uint64_t added GUARDED_BY(lock) = 0;
    std::uint64_t written GUARDED_BY(lock) = 0;
    std::uint64_t droppedLines GUARDED_BY(lock) = 0;
    std::uint64_t droppedBefore GUARDED_BY(lock) = 0;  // the present gap
    std::uint64_t untakenLines GUARDED_BY(lock) = 0;   // since one was taken
    bool isLosing GUARDED_BY(lock) = false;
    bool isStopping GUARDED_BY(lock) = false;
    int flushes GUARDED_BY(lock) = 0;  // that are waited for
    std::thread thread;
};

}  // namespace platform
