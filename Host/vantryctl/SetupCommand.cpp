#include "Host/vantryctl/SetupCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>

#include "Host/vantryctl/CheckCommand.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Names.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Host/vantryctl/VerifyCommand.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantryctl {

using vantryhost::Choices;

namespace {

constexpr std::chrono::seconds timeToVerify{5};

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

std::vector<std::string> wordsOf(const std::string& line) {
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

// No words where no one can be asked.
std::vector<std::string> askForNames(const std::string& question, const Console& console) {
    std::string line;
    if (isatty(STDIN_FILENO) != 0) {
        console.out << wrapped(question, 0, console.width) << "> " << std::flush;
        std::getline(std::cin, line);
    }
    return wordsOf(line);
}

std::vector<std::string> tunnelsThatAreUp() {
    std::vector<std::string> names;
    for (const auto& interface : platform::NetworkMonitor::shared().state()->interfaces)
        if (interface.isTunnel && interface.isUp) names.push_back(interface.name);
    return names;
}

void nameTunnels(const SetupOptions& options, const std::vector<std::string>& up,
                 const Console& console) {
    const auto say = [&](const std::string& text) {
        console.out << '\n' << wrapped(text, 0, console.width);
    };
    if (!options.tunnels.empty())
        return say(fmt::format("The VPN is to be {}.", fmt::join(options.tunnels, ", ")));
    if (up.empty())
        return say(
            "No tunnel is up. The VPN is noticed when it comes; the settings can be made now.");
    say(fmt::format("The VPN seems to be {}. To say otherwise: vantryctl vpn follow -i INTERFACE",
                    fmt::join(up, ", ")));
}

Failure missing(const char* what, const char* option) {
    return {ExitCode::usage, fmt::format("It is not said {}.", what),
            fmt::format("Without a terminal, give {}.", option)};
}

// The options, with what they leave open answered by the person.
Outcome<SetupOptions> completed(SetupOptions options, const std::vector<std::string>& tunnels,
                                const Console& console) {
    if (options.tunnels.empty() && tunnels.size() > 1)
        options.tunnels = askForNames(
            "Several tunnels are up. Which of them are the VPN? Names with blanks between them; "
            "none for all.",
            console);
    if (options.defaultRoute.empty()) {
        const auto answer = answerTo(
            "Are all applications to go over the VPN except some (vpn), or only some (direct)?",
            "vpn", "direct", console);
        if (!answer) return missing("which way applications go", "--default vpn|direct");
        options.defaultRoute = *answer;
        if (options.exceptions.empty())
            options.exceptions = askForNames(
                fmt::format(
                    "Which applications go {}? Names with blanks between them; none is fine.",
                    *answer == "vpn" ? "directly" : "over the VPN"),
                console);
        if (options.datagrams.empty())
            options.datagrams =
                answerTo(
                    "Are datagrams (HTTP/3, calls, games) of direct applications to go over "
                    "the system's own route (off), or directly too (on)?",
                    "off", "on", console)
                    .value_or("");
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

// Has the service manager start both services, now and at every boot. Null where all is well.
std::optional<Failure> startServices() {
    // A daemon that is away is said to be by what needs it.
    const bool isRunning = failureOf(loadSettings()) == nullptr;
    if (access("/run/systemd/system", F_OK) != 0 || geteuid() != 0) {
        if (isRunning) return std::nullopt;
        return Failure{ExitCode::daemonNotRunning, "The services are not running.",
                       "Start them: sudo systemctl enable --now vantry-settings vantryd"};
    }
    const int status = std::system("systemctl enable --now --quiet vantry-settings vantryd");
    if (status == 0) return std::nullopt;
    return Failure{ExitCode::failed, "The services could not be started.",
                   "See why: journalctl -u vantryd -u vantry-settings"};
}

Outcome<Change> store(const SetupOptions& options, const NamedApplications& exceptions) {
    const std::string other = options.defaultRoute == "vpn" ? "direct" : "vpn";
    return changeSettings([&](Choices& choices) {
        const auto before = choices;
        choices.settings.defaultAction = options.defaultRoute;
        choices.settings.vpnFallback = options.fallback;
        if (!options.datagrams.empty()) choices.areDatagramsDirect = options.datagrams == "on";
        if (!options.tunnels.empty()) choices.tunnel = {true, options.tunnels};
        for (const auto& application : exceptions.identifiers) {
            choices.settings.rules[application] = other;
            choices.keepRuleOf(application);
        }
        return choices != before;
    });
}

}  // namespace

namespace {

// Puts the answers in force and shows what holds now.
std::optional<Failure> putInForce(const SetupOptions& answers, const Console& console) {
    const auto loaded = loadSettings();
    if (const auto* failure = failureOf(loaded)) return *failure;
    const auto& present = std::get<StoredSettings>(loaded).choices.settings;
    const auto named = applicationsNamed(answers.exceptions, present);
    if (const auto* failure = failureOf(named)) return *failure;
    const auto& exceptions = std::get<NamedApplications>(named);
    for (const auto& note : exceptions.notes) console.note(note);
    const auto change = store(answers, exceptions);
    if (const auto* failure = failureOf(change)) return *failure;
    for (const auto& note : std::get<Change>(change).notes) console.note(note);
    console.out << '\n';
    run({"rules"}, console);
    console.out << wrapped(
        std::get<Change>(change).after.areDatagramsDirect
            ? "What goes directly are TCP connections and datagrams, but for name look-ups."
            : "What goes directly are TCP connections; datagrams stay on the system's own route "
              "(vantryctl rules datagrams direct on).",
        0, console.width);
    return std::nullopt;
}

ExitCode seeThatItHolds(const Console& console) {
    console.out << '\n';
    VerifyOptions options;
    options.time = timeToVerify;
    if (geteuid() == 0) return verify(options, console);
    console.out << "See that it holds: sudo vantryctl verify\n";
    return ExitCode::done;
}

}  // namespace

ExitCode setUp(const SetupOptions& options, const Console& console) {
    const auto checked = checkMachineBriefly(console);
    if (checked != ExitCode::done)
        console.note("What is missing above keeps some of this from working.");
    const auto tunnels = tunnelsThatAreUp();
    nameTunnels(options, tunnels, console);
    const auto wanted = completed(options, tunnels, console);
    if (const auto* failure = failureOf(wanted)) return console.report(*failure);
    if (const auto failure = startServices()) return console.report(*failure);
    if (const auto failure = putInForce(std::get<SetupOptions>(wanted), console))
        return console.report(*failure);
    const auto verified = seeThatItHolds(console);
    console.out << "\nThe way back: vantryctl undo takes this back; with vantryctl off all goes as "
                   "if\nthere were no rules.\n";
    return verified;
}

}  // namespace vantryctl
