#include "Platform/Linux/Logging/LogStore.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "Platform/Linux/Logging/LogWriter.h"

namespace platform {
namespace {

std::string_view nameOf(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return "debug";
        case LogLevel::info:
            return "info";
        case LogLevel::error:
            return "error";
    }
    return "error";
}

int journalPriorityOf(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return LOG_DEBUG;
        case LogLevel::info:
            return LOG_INFO;
        case LogLevel::error:
            return LOG_ERR;
    }
    return LOG_ERR;
}

// A C1 control character in UTF-8 is C2 and then 80 to 9F.
bool isSecondHalfOfControl(std::string_view text, std::size_t at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    return byte >= 0x80 && byte <= 0x9f && at > 0 && text[at - 1] == '\xc2';
}

void appendEscaped(std::string& out, unsigned char byte) {
    std::array<char, 5> escaped;
    std::snprintf(escaped.data(), escaped.size(), "\\x%02x", byte);
    out += escaped.data();
}

std::string timestamp(std::chrono::system_clock::time_point when) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(when);
    const auto rest = std::chrono::floor<std::chrono::milliseconds>(when - seconds).count();
    const std::time_t time = std::chrono::system_clock::to_time_t(seconds);
    tm parts{};
    ::gmtime_r(&time, &parts);
    std::array<char, 48> text;
    const std::size_t length = std::strftime(text.data(), text.size(), "%FT%T", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03ldZ", static_cast<long>(rest));
    return text.data();
}

// The instant, "CATEGORY LEVEL: text" and a line feed. Nothing in it is redacted: whoever sees it
// started the process.
std::string standardErrorLine(const LogLine& line) {
    std::string whole = timestamp(line.when);
    whole.append(" ").append(line.category).append(" ").append(nameOf(line.level)).append(": ");
    return whole.append(line.text).append("\n");
}

// One call for the whole line, so that lines of several threads stay apart.
bool writeToStandardError(std::string_view line) {
    while (!line.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        line.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

iovec field(const std::string& text) { return {const_cast<char*>(text.data()), text.size()}; }

// Where the journal's socket is missing its library drops lines without a word.
constexpr const char* journalSocket = "/run/systemd/journal/socket";

bool sendToJournal(const LogLine& line) {
    if (::access(journalSocket, F_OK) != 0) return false;
    const std::array<std::string, 5> fields{
        "MESSAGE=" + std::string(line.category) + ": " + line.text,
        "PRIORITY=" + std::to_string(journalPriorityOf(line.level)), "SYSLOG_IDENTIFIER=vantryd",
        "SUBSYSTEM=" + std::string(line.subsystem), "CATEGORY=" + std::string(line.category)};
    std::array<iovec, fields.size()> vectors;
    for (std::size_t i = 0; i < fields.size(); ++i) vectors[i] = field(fields[i]);
    return ::sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size())) >= 0;
}

bool goesToJournal() {
    static const bool answer = isJournalStream(::getenv("JOURNAL_STREAM"), STDERR_FILENO);
    return answer;
}

// Lines of a few minutes on a busy machine; they are short.
constexpr std::size_t mostWaitingLines = 8192;

LogWriter& writer() {
    const auto start = [] {
        // Never destroyed: other threads log until the process ends.
        auto made = std::make_unique<LogWriter>(
            [](const LogLine& line) {
                return goesToJournal() ? sendToJournal(line)
                                       : writeToStandardError(standardErrorLine(line));
            },
            mostWaitingLines);
        std::atexit([] { flushLog(); });
        return made.release();
    };
    static LogWriter& shared = *start();
    return shared;
}

}  // namespace

bool flushLog(std::chrono::milliseconds longest) { return writer().flush(longest); }

std::uint64_t lostLogLines() { return writer().dropped(); }

std::string visibleText(std::string_view line) {
    std::string out;
    out.reserve(line.size());
    for (std::size_t i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        if (byte == '\n')
            out += "\\n";
        else if (byte < 0x20 || byte == 0x7f || isSecondHalfOfControl(line, i))
            appendEscaped(out, byte);
        else
            out += line[i];
    }
    return out;
}

bool isJournalStream(const char* journalStream, int descriptor) {
    if (journalStream == nullptr) return false;
    struct stat status;
    if (::fstat(descriptor, &status) != 0) return false;
    return journalStream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

void Logger::write(LogLevel level, std::string_view format,
                   std::span<const LogArgument> arguments) const {
    const bool redact = goesToJournal() && !isEnabled(LogLevel::debug);
    writer().add({.subsystem = subsystem(),
                  .category = category(),
                  .level = level,
                  .text = visibleText(formatLogLine(format, arguments, redact))});
}

}  // namespace platform
