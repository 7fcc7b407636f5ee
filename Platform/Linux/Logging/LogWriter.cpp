#include "Platform/Linux/Logging/LogWriter.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <utility>

#include "Platform/Linux/PlatformLog.h"

namespace platform {

namespace {

// A thread that is woken for each line takes the processor from those that log: in a burst one wake-up does for many.
constexpr std::chrono::milliseconds betweenBursts{5};

// The thread takes no signals, which are for those who wait for them, and runs like an ordinary
// program's, whoever logs first.
std::thread startInBackground(std::function<void()> work) {
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread([work = std::move(work)] {
        ::pthread_setname_np(::pthread_self(), "log");
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 0);
        work();
    });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

LogLine ownLine(std::string text) {
    return {.subsystem = platformLog.subsystem(),
            .category = platformLog.category(),
            .level = LogLevel::error,
            .text = std::move(text)};
}

}  // namespace

LogWriter::LogWriter(Write writing, std::size_t mostLines)
    : write(std::move(writing)),
      capacity(mostLines),
      thread(startInBackground([this] { run(); })) {}

LogWriter::~LogWriter() {
    {
        const MutexGuard guard(lock);
        isStopping = true;
        changed.notifyAll();
        restEnds.notifyAll();
    }
    thread.join();
}

void LogWriter::add(LogLine line) {
    const MutexGuard guard(lock);
    if (!isLosing && waiting.size() < capacity) return queue(std::move(line));
    ++droppedLines;
    if (std::exchange(isLosing, true)) return;
    droppedBefore = droppedLines - 1;
    queue(ownLine("The log cannot be written as fast as lines come; from here on lines are lost"));
}

void LogWriter::queue(LogLine line) {
    waiting.push_back(std::move(line));
    ++added;
    changed.notifyAll();
}

bool LogWriter::flush(std::chrono::milliseconds longest) {
    const auto deadline = Condition::Clock::now() + longest;
    const MutexGuard guard(lock);
    const auto last = added;
    ++flushes;
    restEnds.notifyAll();
    while (written < last && changed.waitUntil(lock, deadline)) {
    }
    --flushes;
    return written >= last;
}

std::uint64_t LogWriter::dropped() {
    const MutexGuard guard(lock);
    return droppedLines;
}

void LogWriter::run() {
    MutexGuard guard(lock);
    while (!isStopping) {
        if (waiting.empty()) {
            changed.wait(lock);
            continue;
        }
        const LogLine line = std::move(waiting.front());
        waiting.pop_front();
        guard.unlock();
        const bool isTaken = write(line);
        guard.lock();
        ++written;
        count(isTaken);
        sayWhatIsOver();
        changed.notifyAll();
        if (waiting.empty()) rest();
    }
}

// Lines that come meanwhile wait.
void LogWriter::rest() {
    const auto end = Condition::Clock::now() + betweenBursts;
    while (!isStopping && flushes == 0 && restEnds.waitUntil(lock, end)) {
    }
}

// Each line is a trial whether there is a taker again.
void LogWriter::count(bool isTaken) {
    if (!isTaken) {
        ++droppedLines;
        ++untakenLines;
    } else if (const auto lost = std::exchange(untakenLines, 0); lost > 0) {
        queue(ownLine(std::to_string(lost) + " log lines were lost, as nothing took them"));
    }
}

void LogWriter::sayWhatIsOver() {
    if (!isLosing || waiting.size() > capacity / 2) return;
    isLosing = false;
    queue(ownLine(std::to_string(droppedLines - droppedBefore) + " log lines were lost"));
}

}  // namespace platform
