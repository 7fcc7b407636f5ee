#include "Host/vantryctl/SetupCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>

#include "Host/vantryctl/CheckCommand.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Names.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantryctl {

using vantryhost::Choices;

namespace {

// The answer to a question, one of two words; the first where nothing is typed. No value where no one
// can be asked.
std::optional<std::string> answerTo(const std::string& question, const std::string& usual,
                                    const std::string& other, const Console& console) {
    if (isatty(STDIN_FILENO) == 0) return std::nullopt;
    for (;;) {
        console.out << wrapped(fmt::format("{} [{}/{}]", question, usual, other), 0, console.width)
                    << "> " << std::flush;
        std::string answer;
        if (!std::getline(std::cin, answer)) return std::nullopt;
        if (answer.empty() || answer == usual) return usual;
        if (answer == other) return other;
    }
}

std::vector<std::string> askForNames(const std::string& question, const Console& console) {
    std::string line;
    if (isatty(STDIN_FILENO) != 0) {
        console.out << wrapped(question, 0, console.width) << "> " << std::flush;
        std::getline(std::cin, line);
    }
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

std::string tunnelsText() {
    std::vector<std::string> names;
    for (const auto& interface : platform::NetworkMonitor::shared().state()->interfaces)
        if (interface.isTunnel && interface.isUp) names.push_back(interface.name);
    if (names.empty())
        return "No tunnel is up. The VPN is noticed when it comes; the settings can be made now.";
    return fmt::format(
        "The VPN seems to be {}. To say otherwise: vantryctl vpn follow -i INTERFACE",
        fmt::join(names, ", "));
}

Failure missing(const char* what, const char* option) {
    return {ExitCode::usage, fmt::format("It is not said {}.", what),
            fmt::format("Without a terminal, give {}.", option)};
}

// All that is to be known, from the options or from the person.
Outcome<SetupOptions> completed(SetupOptions options, const Console& console) {
    if (options.defaultRoute.empty()) {
        const auto answer = answerTo(
            "Are all applications to go over the VPN except some (vpn), or only some (direct)?",
            "vpn", "direct", console);
        if (!answer) return missing("which way applications go", "--default vpn|direct");
        options.defaultRoute = *answer;
        options.exceptions = askForNames(
            fmt::format("Which applications go {}? Names with blanks between them; none is fine.",
                        *answer == "vpn" ? "directly (their TCP; datagrams stay with the VPN)"
                                         : "over the VPN"),
            console);
    }
    if (options.fallback.empty()) {
        const auto answer = answerTo(
            "While the VPN is down, may applications with a rule for it use the system's own route "
            "(allow), or not (block)?",
            "allow", "block", console);
        if (!answer) return missing("what happens while the VPN is down", "--fallback allow|block");
        options.fallback = *answer;
    }
    return options;
}

Outcome<Change> store(const SetupOptions& options, const NamedApplications& exceptions) {
    const std::string other = options.defaultRoute == "vpn" ? "direct" : "vpn";
    return changeSettings([&](Choices& choices) {
        const auto before = choices;
        choices.settings.defaultAction = options.defaultRoute;
        choices.settings.vpnFallback = options.fallback;
        for (const auto& application : exceptions.identifiers) {
            choices.settings.rules[application] = other;
            choices.keepRuleOf(application);
        }
        return choices != before;
    });
}

}  // namespace

ExitCode setUp(const SetupOptions& options, const Console& console) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return console.report(*failure);
    const auto checked = checkMachine(false, console);
    if (checked != ExitCode::done)
        console.note("What is missing above keeps some of this from working.");
    console.out << '\n' << wrapped(tunnelsText(), 0, console.width);
    const auto wanted = completed(options, console);
    if (const auto* failure = failureOf(wanted)) return console.report(*failure);
    const auto& answers = std::get<SetupOptions>(wanted);
    const auto named =
        applicationsNamed(answers.exceptions, std::get<StoredSettings>(loaded).choices.settings);
    if (const auto* failure = failureOf(named)) return console.report(*failure);
    const auto& exceptions = std::get<NamedApplications>(named);
    for (const auto& note : exceptions.notes) console.note(note);
    const auto change = store(answers, exceptions);
    if (const auto* failure = failureOf(change)) return console.report(*failure);
    for (const auto& note : std::get<Change>(change).notes) console.note(note);
    console.out << '\n';
    run({"rules"}, console);
    console.out << "\nSee that it holds: sudo vantryctl verify\n"
                   "The way back: vantryctl undo, or vantryctl off\n";
    return ExitCode::done;
}

}  // namespace vantryctl
