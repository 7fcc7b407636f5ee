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

std::string timestamp() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    ::gmtime_r(&now.tv_sec, &parts);
    std::array<char, 48> text;
    const std::size_t length = std::strftime(text.data(), text.size(), "%FT%T", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03ldZ", now.tv_nsec / 1'000'000);
    return text.data();
}

// One call for the whole line, so that lines of several threads stay apart.
void writeToStandardError(std::string_view line) {
    while (!line.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return;  // nowhere left to say so
        line.remove_prefix(static_cast<std::size_t>(written));
    }
}

iovec field(const std::string& text) { return {const_cast<char*>(text.data()), text.size()}; }

void sendToJournal(std::string_view subsystem, std::string_view category, LogLevel level,
                   std::string_view text) {
    const std::array<std::string, 5> fields{
        "MESSAGE=" + std::string(category) + ": " + std::string(text),
        "PRIORITY=" + std::to_string(journalPriorityOf(level)), "SYSLOG_IDENTIFIER=vantryd",
        "SUBSYSTEM=" + std::string(subsystem), "CATEGORY=" + std::string(category)};
    std::array<iovec, fields.size()> vectors;
    for (std::size_t i = 0; i < fields.size(); ++i) vectors[i] = field(fields[i]);
    ::sd_journal_sendv(vectors.data(), static_cast<int>(vectors.size()));
}

bool goesToJournal() {
    static const bool answer = isJournalStream(::getenv("JOURNAL_STREAM"), STDERR_FILENO);
    return answer;
}

}  // namespace

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

std::string standardErrorLine(std::string_view category, LogLevel level, std::string_view text) {
    std::string line = timestamp();
    line.append(" ").append(category).append(" ").append(nameOf(level)).append(": ");
    return line.append(text).append("\n");
}

void Logger::write(LogLevel level, std::string_view format,
                   std::span<const LogArgument> arguments) const {
    if (!goesToJournal()) {
        const std::string text = visibleText(formatLogLine(format, arguments, false));
        return writeToStandardError(standardErrorLine(category(), level, text));
    }
    const bool redact = !isEnabled(LogLevel::debug);
    sendToJournal(subsystem(), category(), level,
                  visibleText(formatLogLine(format, arguments, redact)));
}

}  // namespace platform
