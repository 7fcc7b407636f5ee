#include "Host/vantryctl/SettingsStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/Documents.h"
#include "Host/vantryctl/Places.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"

namespace vantryctl {

using platform::FileDescriptor;
using platform::JSONFailure;
using platform::JSONObject;

namespace {

constexpr std::string_view protocolKey = "protocolConfiguration";
constexpr std::string_view providerKey = "providerConfiguration";
constexpr std::chrono::milliseconds lockRetry{20};
constexpr std::chrono::seconds longestLockWait{10};

// Both files as they are, so that a change can put its six keys among the others.
struct Files {
    std::optional<JSONObject> preferences;
    std::optional<JSONObject> rulesFile;
    StoredSettings stored;
};

// The object under `key`, or null if the key is missing. Another type there is a failure: it is not
// ours to replace.
Outcome<const JSONObject*> objectUnder(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    if (found == object.end()) return nullptr;
    if (const auto* inner = found->second.as<JSONObject>()) return inner;
    return Failure{ExitCode::failed,
                   std::string(places::preferencesFile) + ": " + std::string(key) + " is " +
                       std::string(found->second.typeName()) +
                       ", not an object. It was left as it is.",
                   "Correct the file, or move it away."};
}

Outcome<const JSONObject*> providerConfigurationIn(const JSONObject& preferences) {
    const auto protocol = objectUnder(preferences, protocolKey);
    if (const auto* failure = failureOf(protocol)) return *failure;
    const auto* object = std::get<const JSONObject*>(protocol);
    if (object == nullptr) return nullptr;
    return objectUnder(*object, providerKey);
}

JSONObject& madeObjectUnder(JSONObject& object, std::string_view key) {
    auto& value = object[std::string(key)];
    if (value.as<JSONObject>() == nullptr) value = JSONObject{};
    return std::get<JSONObject>(value.value);
}

Outcome<std::optional<Settings>> settingsInPreferences(const JSONObject& preferences) {
    const auto provider = providerConfigurationIn(preferences);
    if (const auto* failure = failureOf(provider)) return *failure;
    const auto* object = std::get<const JSONObject*>(provider);
    if (object == nullptr) return std::nullopt;
    auto settings = Settings::read(*object);
    if (const auto* failure = std::get_if<JSONFailure>(&settings))
        return Failure{ExitCode::failed,
                       std::string(places::preferencesFile) + " is not what it should be: " +
                           failure->description + ". It was left as it is.",
                       "Correct the file, or move it away."};
    return std::get<Settings>(std::move(settings));
}

// The rules file comes second: whatever is wrong with it, the preferences have the settings.
void readRulesFile(Files& files) {
    auto document = readObject(places::rulesFile);
    if (const auto* failure = failureOf(document)) {
        files.stored.rulesFileProblem = failure->what;
        return;
    }
    files.rulesFile = std::get<std::optional<JSONObject>>(std::move(document));
    if (!files.rulesFile) return;
    auto settings = Settings::read(*files.rulesFile);
    if (const auto* failure = std::get_if<JSONFailure>(&settings)) {
        files.stored.rulesFileProblem = std::string(places::rulesFile) +
                                        " is not what it should be: " + failure->description + ".";
        files.rulesFile.reset();
        return;
    }
    files.stored.rulesFile = std::get<Settings>(std::move(settings));
}

Outcome<Files> readFiles() {
    Files files;
    auto preferences = readObject(places::preferencesFile);
    if (auto* failure = std::get_if<Failure>(&preferences)) return std::move(*failure);
    files.preferences = std::get<std::optional<JSONObject>>(std::move(preferences));
    if (files.preferences) {
        auto settings = settingsInPreferences(*files.preferences);
        if (auto* failure = std::get_if<Failure>(&settings)) return std::move(*failure);
        if (auto& found = std::get<std::optional<Settings>>(settings)) {
            files.stored.settings = *std::move(found);
            files.stored.areInPreferences = true;
        }
    }
    readRulesFile(files);
    if (files.stored.areInPreferences) return files;
    if (!files.stored.rulesFileProblem.empty())
        return Failure{ExitCode::failed, files.stored.rulesFileProblem,
                       std::string("Nothing else says what the settings are. Move it away to start "
                                   "from the defaults: mv ") +
                           places::rulesFile + " " + places::rulesFile + ".broken"};
    if (files.stored.rulesFile) files.stored.settings = *files.stored.rulesFile;
    return files;
}

Failure lockFailure() {
    if (errno == EACCES || errno == EPERM)
        return {ExitCode::notPermitted,
                "Only root and the members of the group vantry may change the settings.",
                "Use sudo, or join the group (usermod -aG vantry NAME) and log in again."};
    return {
        ExitCode::failed,
        std::string(places::preferencesFolder) + " cannot be used: " + std::strerror(errno) + ".",
        "As root, vantryctl makes it."};
}

// The lock is the file's, held for as long as the descriptor lives.
Outcome<FileDescriptor> lockSettings() {
    if (geteuid() == 0)
        platform::makeSharedFolder(places::preferencesFolder,
                                   platform::FolderAccess::trustedGroupOnly);
    FileDescriptor lock(open(places::lockFile, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0660));
    if (!lock) return lockFailure();
    fchmod(lock.get(), 0660);
    const auto deadline = std::chrono::steady_clock::now() + longestLockWait;
    while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) return lockFailure();
        if (std::chrono::steady_clock::now() > deadline)
            return Failure{ExitCode::failed, "Another vantryctl is changing the settings.",
                           "Try again in a moment."};
        std::this_thread::sleep_for(lockRetry);
    }
    return lock;
}

// In /tmp only its owner, or root, may replace a file. Asked before anything is written.
std::optional<Failure> obstacleToReplacingRulesFile() {
    struct stat present {};
    if (geteuid() == 0 || lstat(places::rulesFile, &present) != 0 || present.st_uid == geteuid())
        return std::nullopt;
    return Failure{ExitCode::notPermitted,
                   std::string(places::rulesFile) + " belongs to another user.",
                   "Only root may replace it: use sudo."};
}

// What the daemon could not use is kept for whoever wrote it, under another name.
std::string setUnusableRulesFileAside(const std::string& problem) {
    const std::string aside = std::string(places::rulesFile) + ".broken";
    const bool isMoved = rename(places::rulesFile, aside.c_str()) == 0;
    return problem + (isMoved ? " It is now " + aside + "." : " It was replaced.");
}

std::string documentWith(const Settings& settings, JSONObject preferences) {
    settings.writeInto(madeObjectUnder(madeObjectUnder(preferences, protocolKey), providerKey));
    return documentOf(preferences);
}

void takeBackPreferences(const std::optional<JSONObject>& before) {
    if (before)
        replaceFile(places::preferencesFile, documentOf(*before));
    else
        unlink(places::preferencesFile);
}

// Writes the rules file, with the preferences' settings among the other keys that it has.
Outcome<> writeRulesFile(Files& files, const Settings& settings, std::vector<std::string>& notes) {
    if (!files.stored.rulesFileProblem.empty())
        notes.push_back(setUnusableRulesFileAside(files.stored.rulesFileProblem));
    JSONObject document = files.rulesFile.value_or(JSONObject{});
    settings.writeInto(document);
    return replaceFile(places::rulesFile, documentOf(document));
}

Outcome<> writeBoth(Files& files, const Settings& settings, std::vector<std::string>& notes) {
    auto preferences = replaceFile(
        places::preferencesFile, documentWith(settings, files.preferences.value_or(JSONObject{})));
    if (failureOf(preferences)) return preferences;
    auto rules = writeRulesFile(files, settings, notes);
    if (failureOf(rules)) takeBackPreferences(files.preferences);
    return rules;
}

// Settings that somebody else wrote into the rules file alone are about to be replaced.
void noteForeignRules(const StoredSettings& stored, std::vector<std::string>& notes) {
    if (!stored.areInPreferences || !stored.rulesFile) return;
    const auto differing = differingKeys(stored.settings, *stored.rulesFile);
    if (differing.empty()) return;
    std::string note = "The rules file held something else than the preferences under";
    for (const auto key : differing) note += " " + std::string(key);
    notes.push_back(note + "; the preferences count.");
}

void tellDaemon(std::vector<std::string>& notes) {
    const auto posted = postRulesChanged();
    const auto* failure = failureOf(posted);
    if (failure != nullptr && failure->code != ExitCode::daemonNotRunning)
        notes.push_back(failure->what + " " + failure->advice);
    else if (failure != nullptr || !isDaemonListening())
        notes.push_back("The daemon is not running; it reads the settings when it starts.");
}

}  // namespace

Outcome<StoredSettings> loadSettings() {
    auto files = readFiles();
    if (auto* failure = std::get_if<Failure>(&files)) return std::move(*failure);
    return std::get<Files>(std::move(files)).stored;
}

Outcome<Change> changeSettings(const Edit& edit) {
    if (auto obstacle = obstacleToReplacingRulesFile()) return *std::move(obstacle);
    const auto lock = lockSettings();
    if (const auto* failure = failureOf(lock)) return *failure;
    auto read = readFiles();
    if (auto* failure = std::get_if<Failure>(&read)) return std::move(*failure);
    auto& files = std::get<Files>(read);
    Change change{files.stored.settings, files.stored.settings, false, {}};
    if (!edit(change.after)) return change;
    noteForeignRules(files.stored, change.notes);
    const auto written = writeBoth(files, change.after, change.notes);
    if (const auto* failure = failureOf(written)) return *failure;
    change.isStored = true;
    tellDaemon(change.notes);
    return change;
}

Outcome<Change> restoreRulesFile() {
    if (auto obstacle = obstacleToReplacingRulesFile()) return *std::move(obstacle);
    const auto lock = lockSettings();
    if (const auto* failure = failureOf(lock)) return *failure;
    auto read = readFiles();
    if (auto* failure = std::get_if<Failure>(&read)) return std::move(*failure);
    auto& files = std::get<Files>(read);
    const auto& settings = files.stored.settings;
    Change change{settings, settings, false, {}};
    if (files.stored.areInPreferences && files.stored.rulesFile != settings) {
        noteForeignRules(files.stored, change.notes);
        const auto written = writeRulesFile(files, settings, change.notes);
        if (const auto* failure = failureOf(written)) return *failure;
        change.isStored = true;
    }
    tellDaemon(change.notes);
    return change;
}

}  // namespace vantryctl
