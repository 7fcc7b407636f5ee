#include "Host/vantryctl/RunCommand.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Host/vantryctl/Names.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Platform/Linux/Attribution/ProgramName.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantryctl {

using vantryhost::Choices;

namespace {

// The rule of a command whose tool was killed ends by itself.
constexpr std::chrono::hours longestRule{24};
constexpr const char* groupTree = "/sys/fs/cgroup";
constexpr int notFoundStatus = 127;

// The control group's name says to the daemon which application its processes are.
struct Group {
    std::string identifier;
    std::string unit;  // without ".scope"
};

Group groupFor(const std::string& program) {
    std::string name = program.substr(program.rfind('/') + 1);
    std::ranges::replace_if(
        name, [](unsigned char letter) { return std::isalnum(letter) == 0; }, '_');
    const auto identifier = fmt::format("run.{}.{}", name, getpid());
    return {identifier, fmt::format("app-vantry-{}-{}", identifier, getpid())};
}

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

bool hasServiceManager() { return access("/run/systemd/system", F_OK) == 0; }

bool isGroupTree() {
    struct statfs status {};
    return statfs(groupTree, &status) == 0 && status.f_type == CGROUP2_SUPER_MAGIC;
}

// Without a service manager, root makes the group by hand. Empty if that cannot be.
std::string madeGroup(const Group& group) {
    const auto path = fmt::format("{}/{}.scope", groupTree, group.unit);
    return isGroupTree() && mkdir(path.c_str(), 0755) == 0 ? path : "";
}

std::vector<char*> argumentsOf(const std::vector<std::string>& words) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const auto& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    return arguments;
}

std::vector<std::string> underServiceManager(const Group& group,
                                             const std::vector<std::string>& words) {
    std::vector<std::string> all{"systemd-run", "--scope", "--quiet", "--collect",
                                 "--unit=" + group.unit};
    if (geteuid() != 0) all.emplace_back("--user");
    all.emplace_back("--");
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

[[noreturn]] void become(const std::vector<std::string>& words, const std::string& groupPath) {
    if (!groupPath.empty()) {
        const platform::FileDescriptor file(
            open((groupPath + "/cgroup.procs").c_str(), O_WRONLY | O_CLOEXEC));
        // Without its group the command would run without its rule.
        if (write(file.get(), "0", 1) != 1) _exit(notFoundStatus);
    }
    const auto arguments = argumentsOf(words);
    execvp(arguments.front(), arguments.data());
    const std::string reason =
        fmt::format("vantryctl: {} cannot be run: {}\n", words.front(), std::strerror(errno));
    [[maybe_unused]] const auto written = write(STDERR_FILENO, reason.data(), reason.size());
    _exit(notFoundStatus);
}

// The status as a shell gives it.
int statusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// What the terminal sends is the command's to answer.
int carryOut(const std::vector<std::string>& words, const std::string& groupPath) {
    const pid_t child = fork();
    if (child == 0) become(words, groupPath);
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGQUIT, SIG_IGN);
    return statusOf(child);
}

Outcome<Change> giveRule(const RunOptions& options, const std::string& identifier) {
    const auto until = std::time(nullptr) + options.time.value_or(longestRule).count();
    return changeSettings([&](Choices& choices) {
        choices.makeTemporary(identifier, until);
        if (options.isBlocked)
            choices.settings.blockedApps.insert(identifier);
        else
            choices.settings.rules[identifier] = options.isDirect ? "direct" : "vpn";
        return true;
    });
}

Outcome<Change> takeRule(const std::string& identifier) {
    return changeSettings([&](Choices& choices) {
        choices.keepRuleOf(identifier);
        return choices.settings.rules.erase(identifier) +
                   choices.settings.blockedApps.erase(identifier) >
               0;
    });
}

}  // namespace

ExitCode runUnderRule(const RunOptions& options, const Console& console) {
    if (options.isDirect + options.isOverVPN + options.isBlocked != 1 || options.words.empty())
        return console.report({ExitCode::usage, "Say one way, and a command.",
                               "vantryctl run --direct|--vpn|--block [--for TIME] -- COMMAND..."});
    const auto file = fileOfProgram(options.words.front());
    if (const auto objection = objectionToRunning(file)) return console.report(*objection);
    const auto group = groupFor(options.words.front());
    const bool isManaged = hasServiceManager();
    const auto groupPath = isManaged ? "" : madeGroup(group);
    if (!isManaged && groupPath.empty())
        return console.report({ExitCode::failed, "No control group can be made for the command.",
                               "It takes systemd, or root and control groups of version 2."});
    const auto given = giveRule(options, group.identifier);
    if (const auto* failure = failureOf(given)) return console.report(*failure);
    for (const auto& note : std::get<Change>(given).notes) console.note(note);
    const int status =
        carryOut(isManaged ? underServiceManager(group, options.words) : options.words, groupPath);
    if (!groupPath.empty()) rmdir(groupPath.c_str());
    const auto taken = takeRule(group.identifier);
    if (const auto* failure = failureOf(taken)) console.report(*failure);
    return static_cast<ExitCode>(status);
}

}  // namespace vantryctl
