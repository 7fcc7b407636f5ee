// The unified log. A logger is a small value with a subsystem and a category; copies log under the
// same name. Format texts are checked against the arguments when compiling. Format and arguments
// reach the log store apart, so that it can redact what is not public. A line whose level is off
// costs one load and a branch. Any thread; no line takes part in another.
//
// The format syntax: "%{public}s" a text shown in clear, "%s" a text that a store may redact, "%ld",
// "%{public}ld" and "%d" a whole number of any width (sizes too), "%{bool}d" a boolean printed as a
// word.
#pragma once

#include <array>
#include <atomic>
#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace platform {

enum class LogLevel : int { debug = 0, info = 1, error = 2 };

// One argument of a line: a text, a whole number or a boolean. It borrows the text for the call.
struct LogArgument {
    enum class Kind { text, integer, boolean };
    Kind kind;
    std::string_view text;
    std::int64_t integer = 0;
};

// A conversion of a format text, as the store sees it.
struct LogConversion {
    LogArgument::Kind kind;
    bool isPublic;
};

namespace logging {

template <class T>
concept Text = std::convertible_to<const T&, std::string_view>;
template <class T>
concept Integer = std::integral<T> && !std::same_as<T, bool>;

template <class T>
consteval LogArgument::Kind kindOf() {
    if constexpr (std::same_as<T, bool>)
        return LogArgument::Kind::boolean;
    else if constexpr (Integer<T>)
        return LogArgument::Kind::integer;
    else {
        static_assert(Text<T>, "a log argument is a text, a whole number or a boolean");
        return LogArgument::Kind::text;
    }
}

template <class T>
LogArgument argument(const T& value) {
    constexpr auto kind = kindOf<T>();
    if constexpr (kind == LogArgument::Kind::text)
        return {kind, std::string_view(value), 0};
    else
        return {kind, {}, static_cast<std::int64_t>(value)};
}

// The conversion that begins `rest`, which begins with '%', and its length; length 0 for a
// conversion that the log does not know.
struct ParsedConversion {
    LogConversion conversion;
    std::size_t length;
};
constexpr ParsedConversion conversionAt(std::string_view rest) {
    using enum LogArgument::Kind;
    if (rest.starts_with("%{public}s")) return {{text, true}, 10};
    if (rest.starts_with("%s")) return {{text, false}, 2};
    if (rest.starts_with("%ld")) return {{integer, true}, 3};
    if (rest.starts_with("%{public}ld")) return {{integer, true}, 11};
    if (rest.starts_with("%d")) return {{integer, true}, 2};
    if (rest.starts_with("%{bool}d")) return {{boolean, true}, 8};
    return {{text, false}, 0};
}

// Not defined: reaching one of these while compiling is the error message.
void formatTextHasAnUnknownConversion();
void argumentDoesNotFitItsConversion();
void numberOfArgumentsDiffersFromNumberOfConversions();

}  // namespace logging

// A format text whose conversions are known to fit `Arguments`.
template <class... Arguments>
class LogFormat {
public:
    template <std::size_t N>
    consteval LogFormat(const char (&format)[N]) : text(format, N - 1) {
        constexpr std::array<LogArgument::Kind, sizeof...(Arguments)> kinds{
            logging::kindOf<Arguments>()...};
        std::size_t used = 0;
        for (auto at = text.find('%'); at != std::string_view::npos;) {
            const auto parsed = logging::conversionAt(text.substr(at));
            if (parsed.length == 0) logging::formatTextHasAnUnknownConversion();
            if (used >= kinds.size()) logging::numberOfArgumentsDiffersFromNumberOfConversions();
            if (kinds[used] != parsed.conversion.kind) logging::argumentDoesNotFitItsConversion();
            ++used;
            at = text.find('%', at + parsed.length);
        }
        if (used != kinds.size()) logging::numberOfArgumentsDiffersFromNumberOfConversions();
    }

    std::string_view text;
};

// The line in full: `format` with `arguments` put in, a boolean as "true" or "false". With
// `redact`, a text that is not public shows as "<private>".
std::string formatLogLine(std::string_view format, std::span<const LogArgument> arguments,
                          bool redact);

class Logger {
public:
    // Both texts must live as long as the process: they are literals.
    constexpr Logger(std::string_view subsystem, std::string_view category)
        : subsystem_(subsystem), category_(category) {}

    template <class... Arguments>
    void debug(LogFormat<std::type_identity_t<Arguments>...> format,
               const Arguments&... arguments) const {
        log(LogLevel::debug, format.text, arguments...);
    }
    template <class... Arguments>
    void info(LogFormat<std::type_identity_t<Arguments>...> format,
              const Arguments&... arguments) const {
        log(LogLevel::info, format.text, arguments...);
    }
    template <class... Arguments>
    void error(LogFormat<std::type_identity_t<Arguments>...> format,
               const Arguments&... arguments) const {
        log(LogLevel::error, format.text, arguments...);
    }

    // Whether lines of a level are kept. To skip the making of arguments, or a loop of lines.
    static bool isEnabled(LogLevel level) {
        return static_cast<int>(level) >= lowestLevel.load(std::memory_order_relaxed);
    }
    // Keeps lines of this level and above from now on. Info at the start.
    static void setLowestLevel(LogLevel level) {
        lowestLevel.store(static_cast<int>(level), std::memory_order_relaxed);
    }

    std::string_view subsystem() const { return subsystem_; }
    std::string_view category() const { return category_; }

private:
    template <class... Arguments>
    void log(LogLevel level, std::string_view format, const Arguments&... arguments) const {
        if (!isEnabled(level)) return;
        const std::array<LogArgument, sizeof...(Arguments)> list{logging::argument(arguments)...};
        write(level, format, list);
    }
    // Puts one line into the platform's log store.
    void write(LogLevel level, std::string_view format,
               std::span<const LogArgument> arguments) const;

    static inline std::atomic<int> lowestLevel{static_cast<int>(LogLevel::info)};

    std::string_view subsystem_;
    std::string_view category_;
};

}  // namespace platform
