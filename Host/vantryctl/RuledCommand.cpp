#include "Host/vantryctl/RuledCommand.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Host/vantryctl/SettingsClient.h"
#include "Platform/Linux/FileDescriptor.h"

namespace vantryctl {

using vantryhost::Choices;

namespace {

constexpr const char* groupTree = "/sys/fs/cgroup";
constexpr int noProgramStatus = 127;

const char* wordFor(CommandKind kind) { return kind == CommandKind::run ? "run" : "verify"; }

// The control group's name says to the daemon which application its processes are.
struct Group {
    std::string identifier;
    std::string unit;  // without ".scope"
};

Group groupFor(const std::string& program, CommandKind kind) {
    static int count = 0;
    std::string name = program.substr(program.rfind('/') + 1);
    std::ranges::replace_if(
        name, [](unsigned char letter) { return std::isalnum(letter) == 0; }, '_');
    const auto identifier = fmt::format("{}.{}.{}", wordFor(kind), name, getpid());
    return {identifier, fmt::format("app-vantry-{}-{}{}", identifier, getpid(), ++count)};
}

bool hasServiceManager() { return access("/run/systemd/system", F_OK) == 0; }

// A person's own service manager, which their sessions share.
bool hasOwnServiceManager() {
    const char* folder = std::getenv("XDG_RUNTIME_DIR");
    if (folder == nullptr) return std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr;
    return access(fmt::format("{}/systemd/private", folder).c_str(), F_OK) == 0;
}

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
        if (write(file.get(), "0", 1) != 1) _exit(noProgramStatus);
    }
    // What the tool ignores, its command does not.
    std::signal(SIGPIPE, SIG_DFL);
    const auto arguments = argumentsOf(words);
    execvp(arguments.front(), arguments.data());
    const std::string reason =
        fmt::format("vantryctl: {} cannot be run: {}\n", words.front(), std::strerror(errno));
    [[maybe_unused]] const auto written = write(STDERR_FILENO, reason.data(), reason.size());
    _exit(noProgramStatus);
}

Outcome<Change> giveRule(const std::string& identifier, Way way, std::chrono::seconds time) {
    const auto until = std::time(nullptr) + time.count();
    return changeInPassing([&](Choices& choices) {
        choices.makeTemporary(identifier, until);
        if (way == Way::blocked)
            choices.settings.blockedApps.insert(identifier);
        else
            choices.settings.rules[identifier] = way == Way::direct ? "direct" : "vpn";
        return true;
    });
}

Failure notStarted(const std::string& program, const Change& change) {
    return {ExitCode::failed,
            fmt::format("{} was not started, as its rule is not in force. {}", program,
                        fmt::join(change.notes, " ")),
            "See vantryctl status."};
}

}  // namespace

Outcome<RuledCommand> startUnderRule(const std::vector<std::string>& words, CommandKind kind,
                                     Way way, std::chrono::seconds time) {
    const auto group = groupFor(words.front(), kind);
    const bool isManaged = hasServiceManager();
    RuledCommand command;
    command.identifier = group.identifier;
    if (!isManaged) command.groupPath = madeGroup(group);
    if (!isManaged && command.groupPath.empty())
        return Failure{ExitCode::failed, "No control group can be made for the command.",
                       "It takes systemd, or root and control groups of version 2."};
    if (isManaged && geteuid() != 0 && !hasOwnServiceManager())
        return Failure{ExitCode::failed,
                       "A command under a rule of its own needs your own service manager, and none "
                       "runs in this session.",
                       "Log in as yourself (not by su), or use sudo."};
    const auto given = giveRule(group.identifier, way, time);
    const auto* failure = failureOf(given);
    const auto* change = std::get_if<Change>(&given);
    // What `verify` sees of its command is right to know in any case.
    if (failure != nullptr || (!change->isInForce && kind == CommandKind::run)) {
        // It may be stored all the same.
        static_cast<void>(endRuleOf(command));
        return failure != nullptr ? *failure : notStarted(words.front(), *change);
    }
    command.notes = change->notes;
    const auto all = isManaged ? underServiceManager(group, words) : words;
    command.process = fork();
    if (command.process == 0) become(all, command.groupPath);
    if (command.process > 0) return command;
    const Failure noProcess{ExitCode::failed,
                            fmt::format("No process can be made: {}.", std::strerror(errno)), ""};
    const auto ended = endRuleOf(command);
    return failureOf(ended) ? *failureOf(ended) : noProcess;
}

Outcome<> endRuleOf(const RuledCommand& command) {
    if (!command.groupPath.empty()) rmdir(command.groupPath.c_str());
    const auto taken = changeInPassing([&](Choices& choices) {
        const auto removed = choices.settings.rules.erase(command.identifier) +
                             choices.settings.blockedApps.erase(command.identifier);
        choices.keepRuleOf(command.identifier);
        choices.keepBlockOf(command.identifier);
        return removed > 0;
    });
    if (const auto* failure = failureOf(taken)) return *failure;
    return vantryhost::Nothing{};
}

}  // namespace vantryctl
