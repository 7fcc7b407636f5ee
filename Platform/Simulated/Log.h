// The captured log: every line with its format and arguments apart, for tests to read. All levels
// are kept from the start of a world on, and put together when someone asks. Each thread appends to a list of its own, so that logging
// puts no order between threads that the code under test did not ask for.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Logging.h"

namespace platform::simulated {

struct LogLine {
    LogLevel level = LogLevel::info;
    std::string_view subsystem;
    std::string_view category;
    std::string_view format;
    std::vector<std::string> arguments;  // each as it shows in the text
    std::string text;                    // in full, nothing redacted
};

// What a test expects of a line. "<any>" in the text stands for any run of characters, an empty
// category for any.
struct ExpectedLine {
    LogLevel level;
    std::string text;
    std::string category = {};

    bool matches(const LogLine& line) const;
};
inline ExpectedLine debug(std::string text, std::string category = {}) {
    return {LogLevel::debug, std::move(text), std::move(category)};
}
inline ExpectedLine info(std::string text, std::string category = {}) {
    return {LogLevel::info, std::move(text), std::move(category)};
}
inline ExpectedLine error(std::string text, std::string category = {}) {
    return {LogLevel::error, std::move(text), std::move(category)};
}

std::string_view describe(LogLevel level);
std::ostream& operator<<(std::ostream& out, const LogLine& line);
std::ostream& operator<<(std::ostream& out, const ExpectedLine& line);

// The two lists side by side, a line a line, with marks where they differ: "-" expected and
// missing, "+" there and not expected. Empty if they agree.
std::string differences(const std::vector<ExpectedLine>& expected,
                        const std::vector<LogLine>& actual);

class Log {
public:
    // The lines so far, oldest first; with a category only that logger's.
    std::vector<LogLine> lines(std::string_view category = {}) const;
    // The same, and forgets all lines, those of other categories too.
    std::vector<LogLine> take(std::string_view category = {});
    // How many lines have exactly this text.
    std::size_t count(std::string_view text) const;
    bool contains(std::string_view text) const { return count(text) > 0; }
    void clear();

    // The platform's side.
    void append(LogLine line);

private:
    struct Numbered {
        std::uint64_t number;
        LogLine line;
    };
    struct ThreadLines {
        Mutex mutex;
        std::vector<Numbered> lines GUARDED_BY(mutex);
    };
    const std::shared_ptr<ThreadLines>& linesOfThisThread();
    static std::string textOf(const LogLine& line);

    const std::uint64_t generation = nextGeneration();
    static std::uint64_t nextGeneration();
    std::atomic<std::uint64_t> lastNumber = 0;
    mutable Mutex mutex;
    std::vector<std::shared_ptr<ThreadLines>> threads GUARDED_BY(mutex);
};

}  // namespace platform::simulated
