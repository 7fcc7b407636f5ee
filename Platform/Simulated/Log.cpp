#include "Platform/Simulated/Log.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

std::string_view describe(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return "debug";
        case LogLevel::info:
            return "info";
        case LogLevel::error:
            return "error";
    }
    return "?";
}

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << line.category << " " << describe(line.level) << ": " << line.text;
}

std::ostream& operator<<(std::ostream& out, const ExpectedLine& line) {
    return out << (line.category.empty() ? "*" : line.category) << " " << describe(line.level)
               << ": " << line.text;
}

namespace {

constexpr std::string_view anyRun = "<any>";

bool textMatches(std::string_view expected, std::string_view actual) {
    const auto wild = expected.find(anyRun);
    if (wild == std::string_view::npos) return expected == actual;
    if (!actual.starts_with(expected.substr(0, wild))) return false;
    const auto rest = expected.substr(wild + anyRun.size());
    for (auto from = wild; from <= actual.size(); ++from)
        if (textMatches(rest, actual.substr(from))) return true;
    return false;
}

}  // namespace

bool ExpectedLine::matches(const LogLine& line) const {
    return level == line.level && (category.empty() || category == line.category) &&
           textMatches(text, line.text);
}

namespace {

// For each pair of positions the length of the longest common run of lines behind them.
std::vector<std::vector<std::size_t>> commonLengths(const std::vector<ExpectedLine>& expected,
                                                    const std::vector<LogLine>& actual) {
    std::vector<std::vector<std::size_t>> length(expected.size() + 1,
                                                 std::vector<std::size_t>(actual.size() + 1, 0));
    for (auto i = expected.size(); i-- > 0;)
        for (auto j = actual.size(); j-- > 0;)
            length[i][j] = expected[i].matches(actual[j])
                               ? length[i + 1][j + 1] + 1
                               : std::max(length[i + 1][j], length[i][j + 1]);
    return length;
}

}  // namespace

std::string differences(const std::vector<ExpectedLine>& expected,
                        const std::vector<LogLine>& actual) {
    const auto length = commonLengths(expected, actual);
    if (length[0][0] == expected.size() && expected.size() == actual.size()) return {};
    std::ostringstream out;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < expected.size() || j < actual.size()) {
        if (i < expected.size() && j < actual.size() && expected[i].matches(actual[j])) {
            out << "    " << actual[j++] << '\n';
            ++i;
        } else if (j == actual.size() ||
                   (i < expected.size() && length[i + 1][j] >= length[i][j + 1])) {
            out << "  - " << expected[i++] << '\n';
        } else {
            out << "  + " << actual[j++] << '\n';
        }
    }
    return out.str();
}

std::uint64_t Log::nextGeneration() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

const std::shared_ptr<Log::ThreadLines>& Log::linesOfThisThread() {
    thread_local std::uint64_t ownGeneration = 0;
    thread_local std::shared_ptr<ThreadLines> own;
    if (ownGeneration != generation) {
        own = std::make_shared<ThreadLines>();
        ownGeneration = generation;
        const MutexGuard guard(mutex);
        threads.push_back(own);
    }
    return own;
}

void Log::append(LogLine line) {
    const auto number = lastNumber.fetch_add(1, std::memory_order_relaxed);
    auto& own = *linesOfThisThread();
    const MutexGuard guard(own.mutex);
    own.lines.push_back({number, std::move(line)});
}

std::string Log::textOf(const LogLine& line) {
    std::vector<LogArgument> arguments;
    for (const auto& argument : line.arguments)
        arguments.push_back({LogArgument::Kind::text, argument});
    return formatLogLine(line.format, arguments, false);
}

std::vector<LogLine> Log::lines(std::string_view category) const {
    std::vector<Numbered> all;
    {
        const MutexGuard guard(mutex);
        for (const auto& thread : threads) {
            const MutexGuard threadGuard(thread->mutex);
            for (const auto& entry : thread->lines)
                if (category.empty() || entry.line.category == category) all.push_back(entry);
        }
    }
    std::sort(all.begin(), all.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    std::vector<LogLine> result;
    result.reserve(all.size());
    for (auto& entry : all) {
        entry.line.text = textOf(entry.line);
        result.push_back(std::move(entry.line));
    }
    return result;
}

std::vector<LogLine> Log::take(std::string_view category) {
    auto result = lines(category);
    clear();
    return result;
}

std::size_t Log::count(std::string_view text) const {
    const auto all = lines();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&](const auto& line) { return line.text == text; }));
}

void Log::clear() {
    const MutexGuard guard(mutex);
    for (const auto& thread : threads) {
        const MutexGuard threadGuard(thread->mutex);
        thread->lines.clear();
    }
}

}  // namespace simulated

void Logger::write(LogLevel level, std::string_view format,
                   std::span<const LogArgument> arguments) const {
    simulated::LogLine line;
    line.level = level;
    line.subsystem = subsystem_;
    line.category = category_;
    line.format = format;
    line.arguments.reserve(arguments.size());
    for (const auto& argument : arguments) {
        switch (argument.kind) {
            case LogArgument::Kind::text:
                line.arguments.emplace_back(argument.text);
                break;
            case LogArgument::Kind::integer:
                line.arguments.push_back(std::to_string(argument.integer));
                break;
            case LogArgument::Kind::boolean:
                line.arguments.emplace_back(argument.integer != 0 ? "true" : "false");
                break;
        }
    }
    simulated::machine().log.append(std::move(line));
}

}  // namespace platform
