#include "Host/vantryctl/ReportCommand.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <utility>

#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/SessionsCommand.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Platform/Common/Version.h"

namespace vantryctl {

namespace {

// A short name is part of other words.
constexpr std::size_t shortestReplaced = 3;

std::string distribution() {
    std::ifstream file("/etc/os-release");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("PRETTY_NAME=")) return line.substr(line.find('=') + 1);
    return "unknown";
}

std::string kernel() {
    utsname names{};
    uname(&names);
    return fmt::format("{} {} {}", names.sysname, names.release, names.machine);
}

std::vector<std::string> knownNames() {
    std::set<std::string> names;
    const auto loaded = loadSettings();
    if (const auto* stored = std::get_if<StoredSettings>(&loaded)) {
        const auto& settings = stored->choices.settings;
        names.insert(settings.blockedApps.begin(), settings.blockedApps.end());
        for (const auto& [application, word] : settings.rules) names.insert(application);
    }
    const auto log = readActivityLog();
    if (const auto* entries = std::get_if<std::vector<vantry::ActivityLogEntryIPC>>(&log))
        for (const auto& entry : *entries) names.insert(entry.bundleId);
    for (auto& application : applicationsWithSessions()) names.insert(std::move(application));
    return {names.begin(), names.end()};
}

bool isPartOfName(char letter) {
    return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_';
}

// Where it is not a piece of a longer word.
void replaceWord(std::string& text, const std::string& word, const std::string& by) {
    for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at)) {
        const auto end = at + word.size();
        const bool isWhole = (at == 0 || !isPartOfName(text[at - 1])) &&
                             (end == text.size() || !isPartOfName(text[end]));
        if (isWhole) text.replace(at, word.size(), by);
        at += isWhole ? by.size() : word.size();
    }
}

bool isAddress(const std::string& text) {
    unsigned char bytes[sizeof(in6_addr)];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
           inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

std::string outputOfTool(const std::vector<std::string>& words) {
    std::ostringstream text;
    run(words, {text, text, Table::unlimited});
    return text.str();
}

}  // namespace

Redaction::Redaction(std::vector<std::string> names) : applications(std::move(names)) {
    std::erase_if(applications, [](const auto& name) { return name.size() < shortestReplaced; });
    std::ranges::stable_sort(applications, std::greater<>(), &std::string::size);
}

std::string Redaction::of(std::string text) {
    for (std::size_t number = 0; number < applications.size(); ++number)
        replaceWord(text, applications[number], fmt::format("(application {})", number + 1));
    replaceAddresses(text);
    return text;
}

void Redaction::replaceAddresses(std::string& text) {
    constexpr std::string_view letters = "0123456789abcdefABCDEF.:";
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        auto end = text.find_first_not_of(letters, at);
        if (end == std::string::npos) end = text.size();
        // One that ends a sentence has a full stop after it.
        while (end > at && text[end - 1] == '.') --end;
        auto piece = text.substr(at, end - at);
        // An address of IPv4 may have a port.
        const auto port = std::ranges::count(piece, ':') == 1 ? piece.find(':') : piece.size();
        const auto address = piece.substr(0, port);
        if (isAddress(address) && address.find_first_of(".:") != std::string::npos) {
            const auto number = addresses.try_emplace(address, addresses.size() + 1).first->second;
            piece = fmt::format("(address {}){}", number, piece.substr(port));
        }
        result += piece;
        if (end < text.size()) result += text[end];
        at = end + 1;
    }
    text = std::move(result);
}

ExitCode printReport(bool isPlain, const Console& console) {
    Redaction redaction(isPlain ? std::vector<std::string>{} : knownNames());
    console.out << fmt::format("vantryctl {} on {}, {}\n", platform::version(), distribution(),
                               kernel());
    const std::vector<std::vector<std::string>> parts{
        {"status"}, {"check"}, {"rules"}, {"sessions", "--all"}, {"log", "-n", "40"}};
    for (const auto& words : parts) {
        const auto text = outputOfTool(words);
        console.out << fmt::format("\n== {} ==\n{}", fmt::join(words, " "),
                                   isPlain ? text : redaction.of(text));
    }
    if (!isPlain) console.note("Names of applications and addresses are replaced by numbers.");
    return ExitCode::done;
}

}  // namespace vantryctl
