#include "Host/vantryctl/WhyCommand.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Destination.h"
#include "Host/vantryctl/IdentifyCommand.h"
#include "Host/vantryctl/Names.h"
#include "Host/vantryctl/SettingsClient.h"

namespace vantryctl {

using platform::JSONObject;
using vantryhost::flagUnder;
using vantryhost::listUnder;
using vantryhost::numberUnder;
using vantryhost::objectUnder;

namespace {

// What is asked about, and how the words were read.
struct Inquiry {
    JSONObject question{{"question", "why"}};
    Destination to;
    std::string preface;  // may be empty
};

// What the daemon answered, with what only this side sees.
struct Explained {
    JSONObject document;
    Destination to;
    bool isDatagram = false;
    std::string systemInterface;  // which the system's own route leads to; empty without one

    std::string text(std::string_view key) const {
        const auto* explanation = objectUnder(document, "explanation");
        return explanation ? vantryhost::textUnder(*explanation, key) : "";
    }
    bool flag(std::string_view key) const {
        const auto* explanation = objectUnder(document, "explanation");
        return explanation && flagUnder(*explanation, key);
    }
    const JSONObject* process() const { return objectUnder(document, "process"); }
};

bool isFile(const std::string& word) {
    struct stat file {};
    return word.find('/') != std::string::npos && stat(word.c_str(), &file) == 0;
}

// Which names have rules; the daemon answers without the settings service as well.
Settings settingsIfKnown() {
    const auto loaded = loadSettings();
    const auto* stored = std::get_if<StoredSettings>(&loaded);
    return stored ? stored->choices.settings : Settings{};
}

Outcome<Inquiry> inquiryAboutWords(const std::vector<std::string>& words) {
    if (words.empty() || words.size() > 2)
        return Failure{ExitCode::usage,
                       "Say what it is about: a process id, a program or an application.",
                       "vantryctl why PID|FILE|APPLICATION [HOST[:PORT]], or vantryctl why --last"};
    Inquiry inquiry;
    const auto& subject = words.front();
    if (const auto pid = processId(subject)) {
        inquiry.question["pid"] = std::int64_t{*pid};
    } else if (isFile(subject)) {
        const auto identity = identityOfProgram(subject);
        if (const auto* failure = failureOf(identity)) return *failure;
        const auto& [identifier, explanation] = std::get<Identity>(identity);
        inquiry.question["identifier"] = identifier;
        inquiry.preface = fmt::format("{} is known as {}. {}", subject, identifier, explanation);
    } else {
        const auto named = applicationsNamed({subject}, settingsIfKnown());
        if (const auto* failure = failureOf(named)) return *failure;
        inquiry.question["identifier"] = subject;
        inquiry.preface =
            fmt::format("{}", fmt::join(std::get<NamedApplications>(named).notes, " "));
    }
    if (words.size() == 1) {
        inquiry.to.port = 443;
        return inquiry;
    }
    auto destination = destinationIn(words[1]);
    if (const auto* failure = failureOf(destination)) return *failure;
    inquiry.to = std::get<Destination>(std::move(destination));
    return inquiry;
}

Outcome<Inquiry> inquiryAboutLast(const std::vector<std::string>& words, bool& isDatagram) {
    const auto read = readActivityLog();
    if (const auto* failure = failureOf(read)) return *failure;
    const vantry::ActivityLogEntryIPC* last = nullptr;
    for (const auto& entry : std::get<std::vector<vantry::ActivityLogEntryIPC>>(read))
        if ((words.empty() || entry.bundleId == words.front()) &&
            (!last || entry.timestamp >= last->timestamp))
            last = &entry;
    if (!last)
        return Failure{ExitCode::failed, "No flow of it is in the log.",
                       "vantryctl log shows what is."};
    Inquiry inquiry;
    inquiry.question["identifier"] = last->bundleId;
    inquiry.to = {last->destinationIp.value_or(""), last->destinationPort.value_or(443)};
    isDatagram = last->protocolType == "udp";
    inquiry.preface = fmt::format("The last flow, at {}: {}, {} to {}. It went: {}.",
                                  localTime(last->timestamp, platform::Date::now()), last->bundleId,
                                  isDatagram ? "UDP" : "TCP", textOf(inquiry.to),
                                  last->actualRoute.value_or("unknown"));
    return inquiry;
}

Outcome<Explained> explained(Inquiry inquiry, bool isDatagram) {
    auto& question = inquiry.question;
    question["host"] = inquiry.to.host;
    question["port"] = std::int64_t{inquiry.to.port};
    question["protocol"] = isDatagram ? "udp" : "tcp";
    auto answer = askPlatform(question);
    if (const auto* failure = failureOf(answer)) return *failure;
    Explained result{std::get<JSONObject>(std::move(answer)), inquiry.to, isDatagram,
                     interfaceTowards(inquiry.to)};
    result.document["systemInterface"] = result.systemInterface;
    return result;
}

std::string nameOf(const Explained& explained) {
    const auto* process = explained.process();
    if (!process) return explained.text("identifier");
    return fmt::format("{} (process {})", vantryhost::textUnder(*process, "identifier"),
                       numberUnder(*process, "pid"));
}

bool staysHere(const Explained& explained) {
    return !explained.to.host.empty() && explained.systemInterface == "lo";
}

bool isNameLookUp(const Explained& explained) {
    constexpr std::uint16_t names = 53;
    return explained.isDatagram && explained.to.port == names;
}

std::string fateText(const Explained& explained) {
    const auto route = explained.text("route");
    if (route == "blocked") return "is blocked";
    if (route == "direct") return "goes directly over " + explained.text("interface");
    return fmt::format("takes the system's own route, now {} (the VPN is {})",
                       explained.systemInterface.empty() ? "none" : explained.systemInterface,
                       explained.flag("isVpnConnected") ? "up" : "down");
}

// Why a flow counts under another name than its own.
std::string throughText(const Explained& explained) {
    const auto through = explained.text("through");
    const auto name = explained.text("knownAs");
    if (through == "prefix") return fmt::format("its name lies below {}", name);
    if (through == "ancestor") return fmt::format("{} has started it", name);
    if (through == "rememberedAncestor")
        return fmt::format("{} had started it when it was first seen", name);
    return "";
}

std::string ruleText(const Explained& explained) {
    if (explained.text("knownAs").empty()) return "none is looked for";
    const auto owner = explained.text("ruleOf");
    if (owner.empty())
        return fmt::format("it has no rule, and the default is {}",
                           explained.text("defaultAction"));
    const auto through = throughText(explained);
    const auto rule = fmt::format("the rule for {} is {}", owner, explained.text("rule"));
    return through.empty() ? rule : through + ", and " + rule;
}

std::string reasonText(const Explained& explained) {
    const auto by = explained.text("decidedBy");
    if (by == "systemProcess")
        return "it belongs to the system, whose programs are neither routed nor blocked";
    if (by == "vpnClient") return "it is a VPN client, and those are left alone";
    if (by == "block") return fmt::format("{} is blocked", explained.text("blockOf"));
    if (by == "vpnFallback")
        return ruleText(explained) + ", the VPN is down, and the fallback of vpn is block";
    if (by == "directFallback")
        return fmt::format("{}, no physical interface is there, and the fallback of direct is {}",
                           ruleText(explained), explained.text("directFallback"));
    if (by == "start") return "the daemon has only started and knows no state of the VPN yet";
    const bool isDirect =
        explained.text("rule") == "direct" ||
        (explained.text("ruleOf").empty() && explained.text("defaultAction") == "direct");
    if (isDirect && explained.isDatagram && explained.text("route") == "system")
        return ruleText(explained) +
               (isNameLookUp(explained)
                    ? ", but name look-ups go where the machine's resolver settings lead"
                    : ", which means TCP only (rules datagrams direct)");
    return ruleText(explained);
}

std::string flowText(const Explained& explained) {
    const auto what = explained.isDatagram ? "UDP" : "TCP";
    return explained.to.host.empty() ? fmt::format("A new {} flow of {}", what, nameOf(explained))
                                     : fmt::format("A new {} flow of {} to {}", what,
                                                   nameOf(explained), textOf(explained.to));
}

std::string sentence(const Explained& explained) {
    if (staysHere(explained))
        return flowText(explained) + " stays on this machine: such flows meet no rule." +
               (isNameLookUp(explained)
                    ? " The resolver there asks other servers for all programs alike, and no rule "
                      "tells whose question it was."
                    : "");
    return fmt::format("{} {}: {}.", flowText(explained), fateText(explained),
                       reasonText(explained));
}

std::string kindText(const std::string& kind) {
    if (kind == "bundle") return "from the bundle that it lies in";
    if (kind == "installed") return "as an installed application (its .desktop file)";
    if (kind == "desktop") return "from its control group: a desktop application's";
    if (kind == "part") return "it is part of the application that started it";
    return "from its file: an ordinary program";
}

std::string ancestorsText(const Explained& explained) {
    std::string text;
    const auto* list = listUnder(explained.document, "ancestors");
    if (list == nullptr) return "none";
    for (const auto& each : *list) {
        const auto* ancestor = each.as<JSONObject>();
        if (ancestor == nullptr) continue;
        text += fmt::format(
            "{}{} ({}{})", text.empty() ? "" : ", ", vantryhost::textUnder(*ancestor, "identifier"),
            numberUnder(*ancestor, "pid"),
            flagUnder(*ancestor, "isTerminal") ? ", a terminal: what it starts is no part of it"
                                               : "");
    }
    return text.empty() ? "none" : text;
}

std::string blockText(const Explained& explained) {
    const auto of = explained.text("blockOf");
    if (of.empty()) return "none";
    const bool isDNS = explained.text("decidedBy") != "block";
    return of + (isDNS ? " is blocked; name look-ups (UDP port 53) pass" : " is blocked");
}

std::string interfaceText(const Explained& explained) {
    const auto physical = explained.text("interface");
    return fmt::format("physical: {}; the system's own route leads to: {}",
                       physical.empty() ? "none" : physical,
                       explained.systemInterface.empty() ? "none" : explained.systemInterface);
}

std::vector<std::pair<std::string, std::string>> steps(const Explained& explained) {
    std::vector<std::pair<std::string, std::string>> list;
    const auto* process = explained.process();
    if (process) {
        list.emplace_back("process", fmt::format("{}, {}, account {}", numberUnder(*process, "pid"),
                                                 vantryhost::textUnder(*process, "executable"),
                                                 numberUnder(*process, "account")));
        list.emplace_back("started by", ancestorsText(explained));
        list.emplace_back("identifier",
                          fmt::format("{}, {}", vantryhost::textUnder(*process, "identifier"),
                                      kindText(vantryhost::textUnder(*process, "kind"))));
    } else {
        list.emplace_back("identifier", explained.text("identifier") +
                                            ", as a program of this name that runs on its own");
    }
    list.emplace_back("rule", ruleText(explained));
    list.emplace_back("block", blockText(explained));
    list.emplace_back("VPN", explained.flag("isVpnConnected") ? "up" : "down");
    list.emplace_back("fallback", fmt::format("vpn {}, direct {}", explained.text("vpnFallback"),
                                              explained.text("directFallback")));
    list.emplace_back("interface", interfaceText(explained));
    if (explained.flag("isWatched"))
        list.emplace_back("watched", "each of its bytes meets the rules again");
    return list;
}

void print(const Explained& explained, const std::string& preface, const Console& console) {
    constexpr std::size_t indent = 14;
    if (!preface.empty()) console.out << wrapped(printable(preface), 0, console.width);
    console.out << wrapped(printable(sentence(explained)), 0, console.width) << '\n';
    for (const auto& [name, text] : steps(explained)) {
        auto lines = wrapped(printable(text), indent, console.width);
        lines.replace(2, name.size(), name);
        console.out << lines;
    }
}

ExitCode verdictOf(const Explained& explained) {
    const auto route = staysHere(explained) ? "" : explained.text("route");
    if (route == "direct") return ExitCode::goesDirectly;
    return route == "blocked" ? ExitCode::isBlocked : ExitCode::done;
}

}  // namespace

ExitCode explainWhy(const WhyOptions& options, const Console& console) {
    bool isDatagram = options.isDatagram;
    auto inquiry = options.isLast ? inquiryAboutLast(options.words, isDatagram)
                                  : inquiryAboutWords(options.words);
    if (const auto* failure = failureOf(inquiry)) return console.report(*failure);
    const auto preface = std::get<Inquiry>(inquiry).preface;
    const auto answer = explained(std::get<Inquiry>(std::move(inquiry)), isDatagram);
    if (const auto* failure = failureOf(answer)) return console.report(*failure);
    const auto& explanation = std::get<Explained>(answer);
    if (options.asJSON)
        console.out << documentOf(explanation.document);
    else
        print(explanation, preface, console);
    return verdictOf(explanation);
}

}  // namespace vantryctl
