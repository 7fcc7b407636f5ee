#include "Host/vantry-settings/RulesFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <variant>

#include "Host/settings/Documents.h"
#include "Host/settings/Places.h"
#include "Host/vantry-settings/DurableFile.h"
#include "Platform/Common/UUID.h"

namespace vantrysettings {

using vantryhost::ExitCode;
using vantryhost::Failure;
using vantryhost::failureOf;
using vantryhost::Outcome;
using vantryhost::Settings;
namespace places = vantryhost::places;

namespace {

// Everyone may read it: the tool shows rules without the service's help, and the daemon need not be root.
constexpr mode_t modeOfRulesFile = 0644;

std::string documentOfSettings(const Settings& settings) {
    platform::JSONObject document;
    settings.writeInto(document);
    return vantryhost::documentOf(document);
}

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_uid == b.st_uid && a.st_mode == b.st_mode && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

bool holds(const std::string& document) {
    const auto content = vantryhost::readFile(places::rulesFile);
    const auto* bytes = std::get_if<std::optional<std::string>>(&content);
    return bytes != nullptr && *bytes == document;
}

}  // namespace

Outcome<bool> RulesFile::write(const Settings& settings, std::vector<std::string>& notes) {
    const auto document = documentOfSettings(settings);
    if (holds(document)) {
        rememberFile();
        return false;
    }
    written.reset();
    if (auto obstacle = clearTheWay(notes)) return *std::move(obstacle);
    // The daemon waits for it, and the preferences are what lasts.
    const auto replaced =
        replaceUnsynced(places::rulesFile, document, {geteuid(), getegid(), modeOfRulesFile});
    if (const auto* failure = failureOf(replaced)) return *failure;
    rememberFile();
    return true;
}

// A plain file of this user's is replaced without more ado; all else is kept for whoever put it there.
std::optional<Failure> RulesFile::clearTheWay(std::vector<std::string>& notes) {
    struct stat present {};
    if (lstat(places::rulesFile, &present) != 0) return std::nullopt;
    const bool isPlain = S_ISREG(present.st_mode) && present.st_uid == geteuid();
    const auto content = vantryhost::readObject(places::rulesFile);
    if (isPlain && (present.st_size == 0 || failureOf(content) == nullptr)) return std::nullopt;
    const std::string aside =
        std::string(places::rulesFile) + ".broken-" + platform::UUID::random().uuidString();
    if (rename(places::rulesFile, aside.c_str()) != 0)
        return Failure{ExitCode::failed,
                       std::string(places::rulesFile) +
                           " is in the way and cannot be moved: " + std::strerror(errno) + ".",
                       "As root, move it away."};
    const std::string what = S_ISDIR(present.st_mode)   ? "A folder"
                             : S_ISLNK(present.st_mode) ? "A link"
                             : S_ISREG(present.st_mode) ? "A file"
                                                        : "Something else than a file";
    notes.push_back(what + " of user " + std::to_string(present.st_uid) + " stood at " +
                    places::rulesFile + ", which could not be used. It is now " + aside + ".");
    return std::nullopt;
}

void RulesFile::rememberFile() {
    struct stat present {};
    if (lstat(places::rulesFile, &present) == 0)
        written = present;
    else
        written.reset();
}

bool RulesFile::isAsWritten() const {
    struct stat present {};
    return written && lstat(places::rulesFile, &present) == 0 && isSameFile(*written, present);
}

std::optional<Settings> RulesFile::settingsOfOthers() {
    const auto document = vantryhost::readObject(places::rulesFile);
    const auto* object = std::get_if<std::optional<platform::JSONObject>>(&document);
    // Without rules the daemon does not take it either.
    if (object == nullptr || !*object || (*object)->find("rules") == (*object)->end())
        return std::nullopt;
    auto settings = Settings::read(**object);
    if (auto* found = std::get_if<Settings>(&settings)) return std::move(*found);
    return std::nullopt;
}

}  // namespace vantrysettings
