#include "Platform/Logging.h"

namespace platform {
namespace {

void append(std::string& line, const LogArgument& argument, bool isHidden) {
    switch (argument.kind) {
        case LogArgument::Kind::text:
            line += isHidden ? std::string_view("<private>") : argument.text;
            break;
        case LogArgument::Kind::integer:
            line += std::to_string(argument.integer);
            break;
        case LogArgument::Kind::boolean:
            line += argument.integer != 0 ? "true" : "false";
            break;
    }
}

}  // namespace

std::string formatLogLine(std::string_view format, std::span<const LogArgument> arguments,
                          bool redact) {
    std::string line;
    for (const auto& argument : arguments) {
        const auto at = format.find('%');
        const auto [conversion, length] = logging::conversionAt(format.substr(at));
        line += format.substr(0, at);
        append(line, argument, redact && !conversion.isPublic);
        format.remove_prefix(at + length);
    }
    return line += format;
}

}  // namespace platform
