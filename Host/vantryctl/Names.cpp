#include "Host/vantryctl/Names.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>

#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/IdentifyCommand.h"
#include "Host/vantryctl/Spelling.h"
#include "Platform/Linux/Attribution/InstalledApplications.h"
#include "Platform/Linux/Attribution/ProcessTable.h"

namespace vantryctl {

using platform::InstalledApplications;

namespace {

constexpr const char* usualFolders = "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin";

struct ProgramWithParts {
    const char* identifier;
    std::array<const char*, 2> parts;
};
constexpr std::array programsWithParts{
    ProgramWithParts{"git", {"git-remote-http", "ssh"}},
    ProgramWithParts{"scp", {"ssh", nullptr}},
    ProgramWithParts{"sftp", {"ssh", nullptr}},
    ProgramWithParts{"rsync", {"ssh", nullptr}},
    ProgramWithParts{"svn", {"ssh", nullptr}},
    ProgramWithParts{"mosh", {"mosh-client", "ssh"}},
};

Failure noApplication(std::string what, std::string advice) {
    return {ExitCode::usage, std::move(what), std::move(advice)};
}

bool isProgramFile(const std::string& word) {
    struct stat file {};
    return word.find('/') != std::string::npos && stat(word.c_str(), &file) == 0;
}

std::vector<std::string> foldersOfPrograms() {
    const char* const path = std::getenv("PATH");
    std::istringstream text(std::string(path == nullptr ? "" : path) + ":" + usualFolders);
    std::vector<std::string> folders;
    for (std::string folder; std::getline(text, folder, ':');)
        if (!folder.empty()) folders.push_back(folder);
    return folders;
}

// The file of a program that is called so; empty if there is none.
std::string programCalled(const std::string& name) {
    if (name.find('/') != std::string::npos) return "";
    struct stat file {};
    for (const auto& folder : foldersOfPrograms()) {
        auto path = fmt::format("{}/{}", folder, name);
        if (stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode)) return path;
    }
    return "";
}

std::set<std::string> namesWithRules(const Settings& settings) {
    std::set<std::string> names(settings.blockedApps.begin(), settings.blockedApps.end());
    for (const auto& [application, word] : settings.rules) names.insert(application);
    return names;
}

void addSeenNames(std::set<std::string>& names) {
    const auto log = readActivityLog();
    const auto* entries = std::get_if<std::vector<vantry::ActivityLogEntryIPC>>(&log);
    if (entries == nullptr) return;
    for (const auto& entry : *entries) names.insert(entry.bundleId);
}

void addRunningNames(std::set<std::string>& names) {
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", none)) {
        const auto pid = processId(entry.path().filename());
        const auto process = pid ? platform::ProcessTable::shared().examine(*pid) : nullptr;
        if (process) names.insert(process->signingIdentifier);
    }
}

void addInstalledNames(std::set<std::string>& names) {
    for (const auto& application : InstalledApplications::shared().all())
        names.insert(application.identifier);
}

void addProgramNames(std::set<std::string>& names) {
    std::error_code none;
    for (const auto& folder : foldersOfPrograms())
        for (const auto& entry : std::filesystem::directory_iterator(folder, none))
            names.insert(entry.path().filename());
}

std::vector<std::string> asList(const std::set<std::string>& names) {
    return {names.begin(), names.end()};
}

// The identifier of the application that menus show under this name; empty if there is none.
std::string applicationInMenus(const std::string& name) {
    for (const auto& application : InstalledApplications::shared().all())
        if (lettersBetween(application.name, name) == 0 && application.identifier != name)
            return application.identifier;
    return "";
}

// One word at a time, against what is known of all names.
class Reader {
public:
    explicit Reader(const Settings& settings) : known(namesWithRules(settings)) {
        addSeenNames(known);
        addInstalledNames(known);
    }

    // Null, or why the word names nothing.
    std::optional<Failure> read(const std::string& word) {
        if (const auto pid = processId(word)) return take(word, identityOfProcess(*pid));
        // A path may be an identifier itself: of an AppImage, or of a program that is not root's.
        if (isProgramFile(word) && !known.contains(word))
            return take(word, identityOfProgram(word));
        if (word == "vpn" || word == "direct" || word == "block")
            return noApplication(
                fmt::format("\"{}\" is a route, not an application.", word),
                "Give one route, and last: vantryctl rules set APPLICATION... vpn|direct");
        if (!isKnown(word)) {
            if (const auto identifier = applicationInMenus(word); !identifier.empty())
                return noApplication(
                    fmt::format("{} is what menus call it; rules know it as {}.", word, identifier),
                    fmt::format("Give that name instead: {}", identifier));
        }
        found.identifiers.push_back(word);
        noteOn(word);
        return std::nullopt;
    }
    NamedApplications takeAll() { return std::move(found); }

private:
    std::optional<Failure> take(const std::string& word, const Outcome<Identity>& identity) {
        if (const auto* failure = failureOf(identity)) return *failure;
        const auto& [identifier, explanation] = std::get<Identity>(identity);
        found.notes.push_back(fmt::format("{} is known as {}. {}", word, identifier, explanation));
        found.identifiers.push_back(identifier);
        noteParts(identifier);
        return std::nullopt;
    }

    // Of what is installed, runs, was seen or has a rule, the cheap ones first.
    bool isKnown(const std::string& word) {
        if (known.contains(word)) return true;
        if (const auto file = programCalled(word); !file.empty()) {
            const auto identity = identityOfProgram(file);
            const auto* program = std::get_if<Identity>(&identity);
            if (program && program->identifier == word) return true;
        }
        if (!hasLookedAtProcesses) addRunningNames(known);
        hasLookedAtProcesses = true;
        return known.contains(word);
    }

    void noteOn(const std::string& word) {
        if (isKnown(word)) return noteParts(word);
        // A program of another name: a script, or one with a dot in its name.
        if (const auto file = programCalled(word); !file.empty()) {
            const auto identity = identityOfProgram(file);
            if (const auto* program = std::get_if<Identity>(&identity); program) {
                found.notes.push_back(fmt::format("{} is known as {}, not as {}. {}", file,
                                                  program->identifier, word, program->explanation));
                return;
            }
        }
        auto candidates = known;
        addProgramNames(candidates);
        const auto meant = closestTo(word, asList(candidates));
        found.notes.push_back(
            fmt::format("No application called {} was seen, and none is installed or running.{}",
                        word, meant.empty() ? "" : fmt::format(" Did you mean {}?", meant)));
    }

    void noteParts(const std::string& identifier) {
        const auto parts = partsUnderOtherNames(identifier);
        if (parts.empty()) return;
        found.notes.push_back(
            fmt::format("{} has programs of other names make its connections, which this does not "
                        "concern: {}. Name them too where it is to hold for them.",
                        identifier, fmt::join(parts, " ")));
    }

    std::set<std::string> known;
    bool hasLookedAtProcesses = false;
    NamedApplications found;
};

}  // namespace

std::string fileOfProgram(const std::string& word) {
    auto file = programCalled(word);
    return file.empty() ? word : file;
}

std::vector<std::string> partsUnderOtherNames(const std::string& identifier) {
    std::vector<std::string> names;
    for (const auto& program : programsWithParts)
        if (identifier == program.identifier)
            for (const char* part : program.parts)
                if (part != nullptr) names.emplace_back(part);
    return names;
}

Outcome<NamedApplications> applicationsNamed(const std::vector<std::string>& words,
                                             const Settings& settings) {
    Reader reader(settings);
    for (const auto& word : words)
        if (auto failure = reader.read(word)) return *std::move(failure);
    return reader.takeAll();
}

Outcome<NamedApplications> applicationsWithRules(const std::vector<std::string>& words,
                                                 const Settings& settings) {
    const auto known = namesWithRules(settings);
    NamedApplications found;
    for (const auto& word : words) {
        const bool isIdentifier = known.contains(word) || !(processId(word) || isProgramFile(word));
        if (isIdentifier) {
            found.identifiers.push_back(word);
            continue;
        }
        const auto pid = processId(word);
        const auto identity = pid ? identityOfProcess(*pid) : identityOfProgram(word);
        if (const auto* failure = failureOf(identity)) return *failure;
        found.identifiers.push_back(std::get<Identity>(identity).identifier);
    }
    return found;
}

}  // namespace vantryctl
