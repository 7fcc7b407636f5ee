#include "Host/vantryctl/CommandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>

#include "Host/vantryctl/CheckCommand.h"
#include "Host/vantryctl/CompletionCommand.h"
#include "Host/vantryctl/Duration.h"
#include "Host/vantryctl/IdentifyCommand.h"
#include "Host/vantryctl/LogCommands.h"
#include "Host/vantryctl/OwnFlows.h"
#include "Host/vantryctl/RecordCommand.h"
#include "Host/vantryctl/ReportCommand.h"
#include "Host/vantryctl/RuleCommands.h"
#include "Host/vantryctl/RunCommand.h"
#include "Host/vantryctl/SessionsCommand.h"
#include "Host/vantryctl/SettingsCommands.h"
#include "Host/vantryctl/SetupCommand.h"
#include "Host/vantryctl/Spelling.h"
#include "Host/vantryctl/StatusCommand.h"
#include "Host/vantryctl/TopCommand.h"
#include "Host/vantryctl/VerifyCommand.h"
#include "Host/vantryctl/WhyCommand.h"
#include "Platform/Common/Version.h"

namespace vantryctl {

namespace {

constexpr const char* closingText =
    "Applications are named by identifier: vantryctl apps lists those seen,\n"
    "vantryctl identify PID|FILE finds one's. A rule covers what is named below it:\n"
    "one for org.example.mail covers org.example.mail.agent too.\n"
    "\n"
    "Exit codes: 0 done, 1 failed, 2 not a command or not possible, 3 the daemon is\n"
    "not running, 4 not permitted (root, or the group vantry); of why: 0 over the\n"
    "system's own route, 10 directly, 11 blocked.\n";

// Empty if an interface may be called so, as the parser wants it.
std::string interfaceName(const std::string& name) {
    constexpr std::size_t longest = 15;
    const bool isPossible =
        name.size() <= longest && name.find_first_of(" \t\n/:") == std::string::npos;
    return isPossible && !name.empty() ? "" : "no interface can be called \"" + name + "\"";
}

// Where the explanations begin, so that lines fit a terminal.
constexpr std::size_t columnOfHelp = 18;

constexpr std::chrono::seconds timeOfTrial{60};

using Applications = std::vector<std::string>;

// What the options of all commands are read into, and what the given command will do.
struct Request {
    bool asJSON = false;
    bool isEmptying = false;
    LogOptions log;
    std::optional<std::chrono::seconds> time;
    std::vector<std::string> interfaces;
    std::vector<std::string> words;
    ImportOptions import;
    WhyOptions why;
    RunOptions run;
    VerifyOptions verify;
    SetupOptions setup;
    bool isPlain = false;
    RecordOptions record;
    SessionsOptions sessions;
    TopOptions top;
    Applications applications;
    std::string word;
    std::string subject;
    std::function<ExitCode()> command;
};

class Commands {
public:
    Commands(CLI::App& toFill, const Console& toUse) : app(toFill), console(toUse) {
        addRules();
        addVPN();
        addRun();
        addSettings();
        addViews();
        addMachine();
    }

    ExitCode carryOut() const { return request.command(); }

private:
    using Act = std::function<ExitCode()>;

    CLI::App& add(CLI::App& parent, const char* name, const char* help, Act act) {
        CLI::App& command = *parent.add_subcommand(name, help);
        // The innermost command that was given comes first, and counts.
        command.callback([this, act = std::move(act)] {
            if (!request.command) request.command = act;
        });
        return command;
    }
    void takeJSON(CLI::App& command) {
        command.add_flag("--json", request.asJSON, "Print JSON, whole and unshortened");
    }
    void takeApplications(CLI::App& command) {
        command.add_option("APPLICATION", request.applications, "Identifiers, one or more")
            ->type_name("")
            ->required();
    }
    void takeTime(CLI::App& command, const char* help) {
        command
            .add_option_function<std::string>(
                "--for",
                [this](const std::string& text) {
                    request.time = durationIn(text);
                    if (!request.time)
                        throw CLI::ValidationError("--for", text + " is no time: 90s, 30m, 2h, 7d");
                },
                help)
            ->type_name("TIME");
    }
    void takeWord(CLI::App& command, const char* name, const char* help) {
        command.add_option(name, request.word, help)->type_name("")->required();
    }

    void addRules();
    void addFallbacks(CLI::App& rules);
    void addVPN();
    void addRun();
    void addSettings();
    void addViews();
    void addWhy();
    void addTraffic();
    void addLog();
    void addMachine();
    void addRecord();
    void addSetup();
    void addCompletion();

    CLI::App& app;
    const Console& console;
    Request request;
};

void Commands::addRules() {
    CLI::App& rules = add(app, "rules", "Show or change what each application may do",
                          [this] { return showRules(request.asJSON, console); });
    rules.require_subcommand(0, 1);
    takeJSON(rules);
    takeJSON(add(rules, "show", "Show them all, as without a word",
                 [this] { return showRules(request.asJSON, console); }));
    CLI::App& set = add(rules, "set", "Send applications over the VPN or directly", [this] {
        const std::string route = request.applications.back();
        request.applications.pop_back();
        return setRule(request.applications, route, request.time, console);
    });
    set.add_option("APPLICATION", request.applications,
                   "Identifiers, and last the route: vpn or direct (TCP)")
        ->type_name("")
        ->expected(-1)
        ->required();
    takeTime(set, "Only for this long: 90s, 30m, 2h, 7d");
    takeApplications(add(rules, "remove", "Take rules away: the default holds again",
                         [this] { return removeRules(request.applications, console); }));
    takeWord(add(rules, "default", "Choose the route of applications without a rule",
                 [this] { return setDefaultRoute(request.word, console); }),
             "ROUTE", "vpn or direct (a default cannot block)");
    CLI::App& block = add(rules, "block", "Block applications, whatever their rule says", [this] {
        return blockApplications(request.applications, request.time, console);
    });
    takeApplications(block);
    takeTime(block, "Only for this long: 90s, 30m, 2h, 7d");
    takeApplications(add(rules, "unblock", "Lift blocks: the rule or the default holds again",
                         [this] { return unblockApplications(request.applications, console); }));
    CLI::App& datagrams =
        *rules.add_subcommand("datagrams", "Choose whether UDP of direct applications is direct");
    datagrams.require_subcommand(1);
    takeWord(add(datagrams, "direct", "Datagrams of direct applications, but for name look-ups",
                 [this] { return setDirectDatagrams(request.word, console); }),
             "WORD", "on: directly too. off: over the system's own route");
    addFallbacks(rules);
}

void Commands::addFallbacks(CLI::App& rules) {
    CLI::App& fallback =
        *rules.add_subcommand("fallback", "Choose what happens when a route is missing");
    fallback.require_subcommand(1);
    takeWord(add(fallback, "vpn", "While the VPN is down: applications with a VPN rule",
                 [this] { return setFallback(Fallback::vpn, request.word, console); }),
             "WORD", "allow: over the system's own route. block: not at all");
    takeWord(add(fallback, "direct", "While no physical interface is there: direct ones",
                 [this] { return setFallback(Fallback::direct, request.word, console); }),
             "WORD", "allow: over the system's own route. block: not at all");
}

void Commands::addVPN() {
    CLI::App& vpn =
        *app.add_subcommand("vpn", "Have the VPN followed, or say by hand whether it is up");
    vpn.require_subcommand(1);
    add(vpn, "follow", "The settings service sees by itself whether it is up (the default)",
        [this] { return followVPN(request.interfaces, console); })
        .add_option("-i,--interface", request.interfaces,
                    "Only these interfaces are the VPN (default: every tunnel)")
        ->check(interfaceName);
    add(vpn, "up", "The VPN is up", [this] { return setVPNState(true, console); });
    add(vpn, "down", "The VPN is down: its fallback holds",
        [this] { return setVPNState(false, console); });
}

void Commands::addRun() {
    CLI::App& run = add(app, "run", "Run a command under a rule of its own", [this] {
        request.run.time = request.time;
        return runUnderRule(request.run, console);
    });
    run.add_flag("--direct", request.run.isDirect, "Directly over the physical interface (TCP)");
    run.add_flag("--vpn", request.run.isOverVPN, "Over the VPN");
    run.add_flag("--block", request.run.isBlocked, "Not at all");
    takeTime(run, "The rule ends after this long: 90s, 30m, 2h");
    run.add_option("COMMAND", request.run.words, "The command, after --")->type_name("");
    run.positionals_at_end();
}

void Commands::addSettings() {
    CLI::App& attempt = add(
        app, "try", "Make a change that is taken back unless confirmed",
        [this] { return tryCommand(request.words, request.time.value_or(timeOfTrial), console); });
    takeTime(attempt, "How long it may be confirmed: 90s, 5m (60s)");
    attempt.prefix_command();
    attempt.parse_complete_callback([this, &attempt] { request.words = attempt.remaining(); });
    add(app, "confirm", "Keep the change that is on trial",
        [this] { return confirmTrial(console); });
    add(app, "off", "Have traffic go as if there were no rules, also after a boot",
        [this] { return switchRules(false, console); });
    add(app, "on", "Have the rules hold again", [this] { return switchRules(true, console); });
    add(app, "undo", "Take the newest change back", [this] { return undo(console); });
    add(app, "export", "Print the settings as a document to keep",
        [this] { return exportSettings(console); });
    CLI::App& import = add(app, "import", "Replace the settings by those of a document",
                           [this] { return importSettings(request.import, console); });
    import.add_option("FILE", request.import.file, "A document that export made")
        ->type_name("")
        ->required();
    import.add_flag("-y,--yes", request.import.isAgreed, "Do it without asking");
    import.add_flag("-n,--dry-run", request.import.isDryRun, "Only show what would change");
}

void Commands::addViews() {
    takeJSON(add(app, "status", "Show whether the daemon runs and what it goes by",
                 [this] { return showStatus(request.asJSON, console); }));
    add(app, "reload", "Have the daemon read the rules, made again if need be",
        [this] { return reloadRules(console); });
    takeJSON(add(app, "apps", "List the applications that were seen, by identifier",
                 [this] { return showApplications(request.asJSON, console); }));
    CLI::App& identifyCommand =
        add(app, "identify", "Find the identifier of a process or a program",
            [this] { return identify(request.subject, request.asJSON, console); });
    identifyCommand.add_option("PID|FILE", request.subject, "A process id or a program's path")
        ->type_name("")
        ->required();
    takeJSON(identifyCommand);
    addWhy();
    addTraffic();
    addLog();
    add(app, "clear", "Empty the log", [this] { return clearLog(console); });
    CLI::App& failures =
        add(app, "failures", "List direct connections that found no interface", [this] {
            return request.isEmptying ? clearFailures(console)
                                      : showFailures(request.asJSON, console);
        });
    takeJSON(failures);
    failures.add_flag("--clear", request.isEmptying, "Empty the list");
}

void Commands::addWhy() {
    CLI::App& why = add(app, "why", "Say what becomes of a new flow now, and why", [this] {
        request.why.asJSON = request.asJSON;
        return explainWhy(request.why, console);
    });
    why.add_option("PID|FILE|APPLICATION", request.why.words,
                   "Whose flow; then where to, HOST or HOST:PORT")
        ->type_name("")
        ->expected(0, 2);
    why.add_flag("--last", request.why.isLast, "The newest flow of the log (of that application)");
    why.add_flag("-u,--udp", request.why.isDatagram, "A datagram instead of a TCP connection");
    takeJSON(why);
}

void Commands::addTraffic() {
    CLI::App& top =
        add(app, "top", "Watch which application sends how much, and which way", [this] {
            request.top.asJSON = request.asJSON;
            return showTop(request.top, console);
        });
    top.add_flag("-1,--once", request.top.isOnce, "A table of one second, without keys");
    takeJSON(top);
    CLI::App& sessions =
        add(app, "sessions", "List the direct connections, with bytes and age", [this] {
            request.sessions.asJSON = request.asJSON;
            return showSessions(request.sessions, console);
        });
    sessions.add_flag("-a,--all", request.sessions.showsAll, "Also the latest ones that are over");
    takeJSON(sessions);
}

void Commands::addLog() {
    CLI::App& log = add(app, "log", "Show which flows went where", [this] {
        request.log.asJSON = request.asJSON;
        return showLog(request.log, console);
    });
    takeJSON(log);
    log.add_flag("-f,--follow", request.log.isFollowing, "Go on with each new flow");
    log.add_option("-n,--lines", request.log.lines, "How many of the latest (40)")
        ->check(CLI::Range(0, 1000000));
    log.add_option("-a,--app", request.log.application,
                   "Only this application and what is below it");
}

void Commands::addMachine() {
    CLI::App& verifying =
        add(app, "verify", "See whether each flow leaves the way that its rule says", [this] {
            request.verify.time = request.time.value_or(request.verify.time);
            request.verify.asJSON = request.asJSON;
            return verify(request.verify, console);
        });
    takeTime(verifying, "How long to look: 30s, 5m (30s)");
    verifying
        .add_option("--to", request.verify.to,
                    "Where its own flows go: HOST or HOST:PORT (an address that is no one's)")
        ->type_name("");
    verifying.add_flag("--only-look", request.verify.onlyLooks, "Make no flows");
    takeJSON(verifying);
    takeJSON(add(app, "check", "Say what the machine lacks that the daemon needs",
                 [this] { return checkMachine(request.asJSON, console); }));
    add(app, "report", "Print all that somebody who helps needs to know, without names", [this] {
        return printReport(request.isPlain, console);
    }).add_flag("--plain", request.isPlain, "With the names of applications and addresses");
    addRecord();
    addSetup();
    addCompletion();
}

void Commands::addRecord() {
    CLI::App& recording =
        add(app, "record", "Write down what the daemon is asked and decides, for replay", [this] {
            request.record.time = request.time.value_or(request.record.time);
            return record(request.record, console);
        });
    recording.add_option("FILE", request.record.file, "A new file, for you alone")
        ->type_name("")
        ->required();
    takeTime(recording, "How long: 30s, 10m (10m); Ctrl-C ends it sooner");
    recording.add_option("--most", request.record.mostMegabytes, "How many MiB at most (256)")
        ->check(CLI::Range(1, 100000))
        ->type_name("");
    recording.add_flag("--verbatim", request.record.isVerbatim,
                       "With the names of applications and addresses");
}

void Commands::addSetup() {
    CLI::App& setup = add(app, "setup", "Be led through the first settings",
                          [this] { return setUp(request.setup, console); });
    setup
        .add_option("--default", request.setup.defaultRoute, "Where applications go: vpn or direct")
        ->check(CLI::IsMember({"vpn", "direct"}))
        ->type_name("");
    setup.add_option("--except", request.setup.exceptions, "Applications that go the other way")
        ->type_name("");
    setup.add_option("--fallback", request.setup.fallback, "While the VPN is down: allow or block")
        ->check(CLI::IsMember({"allow", "block"}))
        ->type_name("");
    setup
        .add_option("--datagrams", request.setup.datagrams,
                    "Whether datagrams of direct applications go directly: on or off")
        ->check(CLI::IsMember({"on", "off"}))
        ->type_name("");
    setup.add_option("--tunnel", request.setup.tunnels, "The VPN's interfaces (every tunnel)")
        ->type_name("");
}

// For shells and for `verify`; a group without a name is left out of the help.
void Commands::addCompletion() {
    CLI::App& names = add(app, "names", "Print identifiers for a shell's completion",
                          [this] { return printNames(request.word, console); });
    names.group("");
    names.add_option("KIND", request.word)
        ->check(CLI::IsMember({"seen", "ruled", "blocked"}))
        ->required();
    CLI::App& knocking =
        add(app, "knock", "Send what verify looks for", [this] { return knock(request.words); });
    knocking.group("");
    knocking.add_option("DESTINATION", request.words)->required();
}

}  // namespace

namespace {

Failure noCommand(const std::string& path, const std::string& word,
                  const std::vector<const CLI::App*>& commands) {
    std::vector<std::string> names;
    for (const auto* command : commands)
        if (!command->get_group().empty()) names.push_back(command->get_name());
    const auto meant = closestTo(word, names);
    return {ExitCode::usage, fmt::format("There is no command \"{} {}\".", path, word),
            meant.empty() ? fmt::format("{} --help lists them.", path)
                          : fmt::format("Did you mean: {} {}", path, meant)};
}

// The word in a command's place that is none, with what was meant; no value if all are commands. Commands
// that take other words take any.
std::optional<Failure> unknownCommandIn(const CLI::App& app,
                                        const std::vector<std::string>& arguments) {
    const CLI::App* command = &app;
    std::string path = "vantryctl";  // the words so far
    for (const auto& word : arguments) {
        const auto children = command->get_subcommands([](const auto*) { return true; });
        if (word.starts_with('-') || children.empty()) return std::nullopt;
        const auto next = std::ranges::find(children, word, &CLI::App::get_name);
        if (next == children.end()) return noCommand(path, word, children);
        command = *next;
        path += " " + word;
    }
    return std::nullopt;
}

}  // namespace

namespace {

// The words up to the innermost command that was given.
std::string pathOf(const CLI::App& app) {
    const auto given = app.get_subcommands();
    return given.empty() ? app.get_name() : app.get_name() + " " + pathOf(*given.front());
}

// Help and version are done; anything else is a failure that names the command's own help.
ExitCode endOf(const CLI::ParseError& error, CLI::App& app, const Console& console) {
    if (error.get_exit_code() == 0) {
        app.exit(error, console.out, console.err);
        return ExitCode::done;
    }
    std::string what = error.what();
    if (!what.ends_with('.')) what += '.';
    return console.report({ExitCode::usage, what, pathOf(app) + " --help says what it takes."});
}

}  // namespace

int run(std::vector<std::string> arguments, const Console& console) {
    CLI::App app("Says for each application what goes over the VPN, beside it, or not at all.",
                 "vantryctl");
    app.get_formatter()->column_width(columnOfHelp);
    app.require_subcommand(1);
    app.set_version_flag("--version", fmt::format("vantryctl {}", platform::version()),
                         "Print the version and exit");
    const Commands commands(app, console);
    // Not before: each command would have it too.
    app.footer(closingText);
    if (const auto unknown = unknownCommandIn(app, arguments))
        return static_cast<int>(console.report(*unknown));
    try {
        // The parser wants the last argument first.
        std::ranges::reverse(arguments);
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return static_cast<int>(endOf(error, app, console));
    }
    return static_cast<int>(commands.carryOut());
}

}  // namespace vantryctl
