#include "Host/vantry-settings/PreferencesFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "Host/settings/Documents.h"
#include "Host/settings/Places.h"
#include "Host/vantry-settings/DurableFile.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Platform/Linux/HostChannel/TrustedAccounts.h"

namespace vantrysettings {

using platform::FileDescriptor;
using platform::JSONObject;
using vantryhost::ExitCode;
using vantryhost::Failure;
using vantryhost::failureOf;
using vantryhost::Nothing;
using vantryhost::Outcome;
namespace places = vantryhost::places;

namespace {

constexpr off_t largestDocument = off_t{64} << 20;

// Readable by the group whose members may change the settings, by no one else.
FileAccess accessOfPreferences() {
    const auto group = platform::trustedGroup();
    struct stat present {};
    // Where this process may not give files away, as in a user namespace, they stay its own.
    const bool isGroups =
        group && lstat(places::preferencesFolder, &present) == 0 && present.st_gid == *group;
    return {geteuid(), isGroups ? *group : getegid(), 0640};
}

Failure unreadable(const std::string& path, const std::string& why) {
    return {ExitCode::failed, path + " cannot be read: " + why + ".",
            "Look at it with ls -l, and move it away if no one needs it."};
}

// The folder was looked at by `prepare`; of the file itself only that it is one.
Outcome<std::optional<std::string>> contentOf(const std::string& path) {
    const FileDescriptor file(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file && errno == ENOENT) return std::nullopt;
    if (!file) return unreadable(path, errno == ELOOP ? "it is a link" : std::strerror(errno));
    struct stat status {};
    if (fstat(file.get(), &status) != 0) return unreadable(path, std::strerror(errno));
    if (!S_ISREG(status.st_mode)) return unreadable(path, "it is not a regular file");
    if (status.st_size > largestDocument) return unreadable(path, "it is larger than 64 MiB");
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count = ::read(file.get(), bytes.data() + length, bytes.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return unreadable(path, std::strerror(errno));
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    bytes.resize(length);
    return bytes;
}

Outcome<std::optional<JSONObject>> documentAt(const std::string& path) {
    auto content = contentOf(path);
    if (auto* failure = std::get_if<Failure>(&content)) return std::move(*failure);
    const auto& bytes = std::get<std::optional<std::string>>(content);
    if (!bytes) return std::nullopt;
    auto object = vantryhost::objectInOwnFile(path, *bytes);
    if (auto* failure = std::get_if<Failure>(&object)) return std::move(*failure);
    return std::get<JSONObject>(std::move(object));
}

std::string pathOfVersion(std::uint64_t number) {
    return fmt::format("{}/{:010}.json", places::versionsFolder, number);
}

std::string pathOfCopy() { return std::string(places::versionsFolder) + "/present.json"; }

// The numbers of the versions kept, oldest first.
std::vector<std::uint64_t> versions() {
    std::vector<std::uint64_t> numbers;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(places::versionsFolder, none)) {
        const std::string name = entry.path().stem();
        if (entry.path().extension() == ".json" && name.size() == 10 &&
            std::ranges::all_of(name, [](char digit) { return digit >= '0' && digit <= '9'; }))
            numbers.push_back(std::stoull(name));
    }
    std::ranges::sort(numbers);
    return numbers;
}

Outcome<> keepVersion(const JSONObject& document) {
    const auto numbers = versions();
    auto kept = replaceDurably(pathOfVersion(numbers.empty() ? 1 : numbers.back() + 1),
                               vantryhost::prettyDocumentOf(document), accessOfPreferences());
    if (failureOf(kept)) return kept;
    const auto count = static_cast<std::size_t>(numbers.size()) + 1;
    for (std::size_t index = 0; index + PreferencesFile::versionsKept < count; ++index)
        unlink(pathOfVersion(numbers[index]).c_str());
    return Nothing{};
}

}  // namespace

Outcome<> PreferencesFile::prepare() {
    using platform::FolderAccess;
    for (const char* folder : {places::preferencesFolder, places::versionsFolder})
        if (const auto prepared =
                platform::prepareSharedFolder(folder, FolderAccess::trustedGroupOnly);
            !prepared)
            return Failure{ExitCode::failed, prepared.error().text() + ".", ""};
    removeLeftovers(places::preferencesFile);
    return Nothing{};
}

Outcome<std::optional<JSONObject>> PreferencesFile::read() {
    return documentAt(places::preferencesFile);
}

Outcome<> PreferencesFile::replace(const std::optional<JSONObject>& before,
                                   const JSONObject& document) {
    if (before) {
        auto kept = keepVersion(*before);
        if (failureOf(kept)) return kept;
    }
    auto replaced = put(document);
    if (failureOf(replaced) && before) forgetNewestVersion();
    return replaced;
}

Outcome<> PreferencesFile::put(const JSONObject& document) {
    return replaceDurably(places::preferencesFile, vantryhost::prettyDocumentOf(document),
                          accessOfPreferences());
}

Outcome<std::optional<JSONObject>> PreferencesFile::newestVersion() {
    const auto numbers = versions();
    if (numbers.empty()) return std::nullopt;
    return documentAt(pathOfVersion(numbers.back()));
}

void PreferencesFile::keepCopy(const JSONObject& document) {
    // Without it, what a start finds is the newest version.
    static_cast<void>(replaceUnsynced(pathOfCopy(), vantryhost::prettyDocumentOf(document),
                                      accessOfPreferences()));
}

std::optional<JSONObject> PreferencesFile::copy() {
    auto kept = documentAt(pathOfCopy());
    if (auto* found = std::get_if<std::optional<JSONObject>>(&kept); found && *found)
        return std::move(*found);
    kept = newestVersion();
    auto* version = std::get_if<std::optional<JSONObject>>(&kept);
    return version ? std::move(*version) : std::nullopt;
}

void PreferencesFile::forgetNewestVersion() {
    const auto numbers = versions();
    if (!numbers.empty()) unlink(pathOfVersion(numbers.back()).c_str());
}

}  // namespace vantrysettings
