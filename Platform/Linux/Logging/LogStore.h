// Where log lines go: to the journal with their fields when the service manager connected standard
// error to it, else to standard error as one line of text. A call that logs never waits for either: one
// thread writes, and what it cannot write in time is counted and lost. Any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/Logging.h"

namespace platform {

// `line` with control characters made visible (a line feed as \n, others as \xNN), so that what an
// argument holds can neither end the line nor steer a terminal.
std::string visibleText(std::string_view line);

// True if `journalStream` ("device:inode", as the service manager sets JOURNAL_STREAM) names the
// file that `descriptor` is.
bool isJournalStream(const char* journalStream, int descriptor);

// Waits until the lines logged so far are written, or for so long. To be called before the process
// leaves without its ordinary end, which does it too. False if some are not written.
bool flushLog(std::chrono::milliseconds longest = std::chrono::milliseconds(500));

// How many lines of this process were lost.
std::uint64_t lostLogLines();

}  // namespace platform
