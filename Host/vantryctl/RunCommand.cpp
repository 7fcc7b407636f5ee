#include "Host/vantryctl/RunCommand.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "Host/vantryctl/Names.h"
#include "Host/vantryctl/RuledCommand.h"
#include "Platform/Linux/Attribution/ProgramName.h"

namespace vantryctl {

namespace {

// The rule of a command whose tool was killed ends by itself.
constexpr std::chrono::hours longestRule{24};
// As shells say it.
constexpr int notFoundStatus = 127;

// An application that is one wherever it runs keeps its own name.
std::optional<Failure> objectionToRunning(const std::string& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) return std::nullopt;
    const auto name = platform::nameOfProgramAt(file, status.st_uid);
    if (!platform::isApplication(name.kind)) return std::nullopt;
    return Failure{
        ExitCode::usage,
        fmt::format("{} is an application of its own, {}, and goes by the rule of that.", file,
                    name.signingIdentifier),
        fmt::format("vantryctl rules set {} vpn|direct --for 2h", name.signingIdentifier)};
}

Way wayIn(const RunOptions& options) {
    if (options.isBlocked) return Way::blocked;
    return options.isDirect ? Way::direct : Way::vpn;
}

// The status as a shell gives it. What the terminal sends meanwhile is the command's to answer.
int statusOf(pid_t child) {
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGQUIT, SIG_IGN);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

ExitCode runUnderRule(const RunOptions& options, const Console& console) {
    if (options.isDirect + options.isOverVPN + options.isBlocked != 1 || options.words.empty())
        return console.report({ExitCode::usage, "Say one way, and a command.",
                               "vantryctl run --direct|--vpn|--block [--for TIME] -- COMMAND..."});
    const auto file = fileOfProgram(options.words.front());
    if (const auto objection = objectionToRunning(file)) return console.report(*objection);
    if (access(file.c_str(), X_OK) != 0)
        return console.report(
            {static_cast<ExitCode>(notFoundStatus),
             fmt::format("{} cannot be run: {}.", options.words.front(), std::strerror(errno)),
             ""});
    const auto started = startUnderRule(options.words, CommandKind::run, wayIn(options),
                                        options.time.value_or(longestRule));
    if (const auto* failure = failureOf(started)) return console.report(*failure);
    const auto& command = std::get<RuledCommand>(started);
    for (const auto& note : command.notes) console.note(note);
    const int status = statusOf(command.process);
    const auto ended = endRuleOf(command);
    if (const auto* failure = failureOf(ended)) console.report(*failure);
    return static_cast<ExitCode>(status);
}

}  // namespace vantryctl
