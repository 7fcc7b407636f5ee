#include "Host/vantryctl/IdentifyCommand.h"

#include <fmt/format.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include "Host/settings/Documents.h"
#include "Platform/Common/Text.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/Attribution/ProgramName.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"

namespace vantryctl {

using platform::Process;
using platform::ProcessKind;
using platform::ProcessTable;

namespace {

// The application that a part of one belongs to: the nearest process above it that is no part itself.
std::shared_ptr<const Process> applicationAbove(const Process& part) {
    auto process = ProcessTable::shared().examine(part.shownParentPid);
    while (process && process->kind == ProcessKind::applicationPart)
        process = ProcessTable::shared().examine(process->shownParentPid);
    return process;
}

Identity identityOfPart(const Process& process) {
    const auto application = applicationAbove(process);
    const std::string owner = application ? application->signingIdentifier : "its application";
    return {owner,
            fmt::format("It was started by {0}: a rule or a block for {0} covers it. Under its "
                        "own name, {1}, it is known only where it runs on its own.",
                        owner, process.signingIdentifier)};
}

Identity identityOfOrdinaryProgram(const Process& process) {
    const auto account = process.status.effectiveUserId;
    if (!platform::isSystemAccount(account))
        return {process.signingIdentifier,
                "It is an ordinary program: the rule holds for all its processes."};
    return {process.signingIdentifier,
            fmt::format("This process meets no rule, as it runs under an account of the system, {} "
                        "(unless the preferences name that among personalAccounts). A rule holds "
                        "for such programs of people.",
                        account)};
}

Identity identityOf(const Process& process) {
    switch (process.kind) {
        case ProcessKind::bundle:
            return {process.signingIdentifier, "It runs from a bundle with this identifier."};
        case ProcessKind::installedApplication:
            return {process.signingIdentifier,
                    process.signingIdentifier.starts_with('/')
                        ? "It runs from an AppImage, whose path this is, dots written as -."
                        : "It is an installed application of this name, however it was started."};
        case ProcessKind::desktopApplication:
            return {process.signingIdentifier,
                    "It belongs to a desktop application of this name, as "
                    "do all processes that were started with it."};
        case ProcessKind::applicationPart:
            return identityOfPart(process);
        case ProcessKind::ordinaryProgram:
            return identityOfOrdinaryProgram(process);
    }
    return {};
}

}  // namespace

std::optional<pid_t> processId(const std::string& text) {
    pid_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || number <= 0)
        return std::nullopt;
    return number;
}

Outcome<Identity> identityOfProcess(pid_t pid) {
    const auto process = ProcessTable::shared().examine(pid);
    if (process) return identityOf(*process);
    return Failure{ExitCode::failed,
                   fmt::format("There is no process {} that this user may look at.", pid),
                   "Processes of others need sudo."};
}

namespace {

// What a script's first line runs it with; empty for any other file.
std::string interpreterOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string line;
    if (file.get() != '#' || file.get() != '!' || !std::getline(file, line)) return "";
    std::istringstream words(line);
    std::string interpreter;
    words >> interpreter;
    if (!interpreter.ends_with("/env")) return interpreter;
    std::string name;
    while (words >> name && (name.starts_with('-') || name.find('=') != std::string::npos)) {
    }
    for (const char* folder : {"/usr/local/bin/", "/usr/bin/", "/bin/"})
        if (access((folder + name).c_str(), X_OK) == 0) return folder + name;
    return "";
}

// An image that runs by itself says so behind the first bytes of a program.
bool isAppImage(const std::string& path) {
    constexpr std::string_view sign = "AI\x02";
    std::array<char, sign.size()> found{};
    std::ifstream file(path, std::ios::binary);
    file.seekg(8).read(found.data(), found.size());
    return file && std::string_view(found.data(), found.size()) == sign;
}

Identity identityOfScript(const std::string& path, Identity interpreter) {
    interpreter.explanation = fmt::format(
        "{} is a script: it counts as what runs it, as do all other scripts of that.", path);
    return interpreter;
}

}  // namespace

Outcome<Identity> identityOfProgram(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                           &std::free);
    struct stat file {};
    if (!real || stat(real.get(), &file) != 0 || !S_ISREG(file.st_mode))
        return Failure{ExitCode::failed, "There is no program at " + path + ".",
                       "Give a process id or the full path of a program."};
    const std::string program = real.get();
    if (isAppImage(program))
        return Identity{platform::ordinaryProgramIdentifier(program, std::nullopt),
                        "It is an AppImage: what runs from it has this name."};
    auto name = platform::nameOfProgramAt(program, file.st_uid);
    if (name.kind == ProcessKind::ordinaryProgram) {
        if (const auto runner = interpreterOf(program); !runner.empty() && runner != path) {
            auto interpreter = identityOfProgram(runner);
            if (auto* identity = std::get_if<Identity>(&interpreter))
                return identityOfScript(path, std::move(*identity));
        }
    }
    switch (name.kind) {
        case ProcessKind::bundle:
            return Identity{std::move(name.signingIdentifier),
                            "It lies in a bundle with this identifier."};
        case ProcessKind::installedApplication:
            return Identity{std::move(name.signingIdentifier),
                            "It is an installed application of this name, however it is started."};
        case ProcessKind::desktopApplication:
        case ProcessKind::applicationPart:
        case ProcessKind::ordinaryProgram:
            break;
    }
    return Identity{std::move(name.signingIdentifier),
                    "As an ordinary program. Started by an application, it counts as that "
                    "application."};
}

ExitCode identify(const std::string& subject, bool asJSON, const Console& console) {
    const auto pid = processId(subject);
    const auto found = pid ? identityOfProcess(*pid) : identityOfProgram(subject);
    if (const auto* failure = failureOf(found)) return console.report(*failure);
    const auto& identity = std::get<Identity>(found);
    if (asJSON)
        console.out << documentOf(
            {{"bundleId", identity.identifier}, {"explanation", identity.explanation}});
    else
        console.out << printable(identity.identifier) << '\n'
                    << wrapped(printable(identity.explanation), 4, console.width);
    return ExitCode::done;
}

}  // namespace vantryctl
