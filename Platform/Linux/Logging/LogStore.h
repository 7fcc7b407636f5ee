// Where log lines go: to the journal with their fields when the service manager connected standard
// error to it, else to standard error as one line of text. Any thread.
#pragma once

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

// A line for standard error: the instant, "CATEGORY LEVEL: text" and a line feed. Nothing in it is
// redacted: whoever sees it started the process.
std::string standardErrorLine(std::string_view category, LogLevel level, std::string_view text);

}  // namespace platform
