#include "Platform/Linux/Attribution/ProgramName.h"

#include <algorithm>
#include <utility>

#include "Platform/Linux/Attribution/AppImage.h"
#include "Platform/Linux/Attribution/BundleIdentifiers.h"
#include "Platform/Linux/Attribution/ControlGroupApplication.h"
#include "Platform/Linux/Attribution/InstalledApplications.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"
#include "Platform/Linux/Attribution/VirtualBundle.h"

namespace platform {

namespace {

std::string fileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The extension searches a path from the left; where that would miss the bundle, or where the path
// is too long to be shown, a virtual bundle of the same identifier stands in.
std::string shownBundlePath(const std::string& path, const std::string& identifier) {
    auto text = textOfPath(path);
    const bool isSeen = text.size() <= longestShownPath && showsBundle(path);
    return isSeen ? text : virtualProgramPath(identifier);
}

ProgramName nameAs(ProcessKind kind, const std::string& identifier, bool isTerminal = false) {
    auto fitting = identifierThatFits(identifier);
    auto path = virtualProgramPath(fitting);
    return {kind, std::move(fitting), std::move(path), isTerminal};
}

std::optional<ProgramName> asBundle(const std::string& path) {
    auto bundle = innermostBundleIdentifier(path);
    if (!bundle) return std::nullopt;
    auto shownPath = shownBundlePath(path, *bundle);
    return ProgramName{ProcessKind::bundle, *std::move(bundle), std::move(shownPath)};
}

bool isProgramOfSnap(const std::string& identifier) { return identifier.starts_with("snap."); }

// A snap's programs share its image: which one of them runs, only the control group says.
std::optional<ProgramName> asInstalled(const std::string& path,
                                       const std::optional<std::string>& groupsApplication) {
    const auto installed = InstalledApplications::shared().ofExecutable(path);
    if (!installed) return std::nullopt;
    const bool saysMore = isProgramOfSnap(installed->identifier) && groupsApplication &&
                          isProgramOfSnap(*groupsApplication);
    return nameAs(ProcessKind::installedApplication,
                  saysMore ? *groupsApplication : installed->identifier, installed->isTerminal);
}

// The application that the group is of. What the message bus starts is one only if it is installed
// as one, and what runs in a terminal is no part of that.
std::optional<std::string> applicationOf(const std::string& controlGroup) {
    const auto& applications = InstalledApplications::shared();
    auto application = applicationOfControlGroup(controlGroup);
    if (!application) {
        application = busNameOfControlGroup(controlGroup);
        if (application && !applications.named(*application)) return std::nullopt;
    }
    const auto installed = application ? applications.named(*application) : std::nullopt;
    return installed && installed->isTerminal ? std::nullopt : application;
}

}  // namespace

bool isApplication(ProcessKind kind) {
    switch (kind) {
        case ProcessKind::bundle:
        case ProcessKind::installedApplication:
        case ProcessKind::desktopApplication:
            return true;
        case ProcessKind::applicationPart:
        case ProcessKind::ordinaryProgram:
            break;
    }
    return false;
}

ProgramName nameOf(const ProgramFacts& program) {
    if (auto bundle = asBundle(program.path)) return *std::move(bundle);
    const auto groupsApplication = applicationOf(program.controlGroup);
    if (auto installed = asInstalled(program.path, groupsApplication)) return *std::move(installed);
    if (const auto image = appImageAround(program.path, program.effectiveUserId))
        return nameAs(ProcessKind::installedApplication,
                      ordinaryProgramIdentifier(*image, std::nullopt));
    if (groupsApplication) return nameAs(ProcessKind::desktopApplication, *groupsApplication);
    if (program.isBelowApplication)
        return {ProcessKind::applicationPart, textOfPath(fileName(program.path)),
                textOfPath(program.path)};
    return nameAs(ProcessKind::ordinaryProgram,
                  ordinaryProgramIdentifier(program.path, program.owner));
}

ProgramName nameOfProgramAt(const std::string& path, uid_t owner) {
    return nameOf({.path = path, .owner = owner, .controlGroup = {}, .effectiveUserId = owner});
}

std::string ordinaryProgramIdentifier(const std::string& path, std::optional<uid_t> owner) {
    const bool isOfSystem = owner && isRoot(*owner);
    auto name = textOfPath(isOfSystem ? fileName(path) : path);
    std::replace(name.begin(), name.end(), '.', '-');
    return identifierThatFits(name);
}

}  // namespace platform
