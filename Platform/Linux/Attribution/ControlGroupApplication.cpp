#include "Platform/Linux/Attribution/ControlGroupApplication.h"

#include <algorithm>

#include "Platform/Common/Text.h"
#include "Platform/Linux/Attribution/PathText.h"

namespace platform {

namespace {

enum class UnitKind { scope, service };

// Takes `ending` off `text`; false, and nothing done, if it does not end so.
bool dropEnding(std::string_view& text, std::string_view ending) {
    if (!text.ends_with(ending)) return false;
    text.remove_suffix(ending.size());
    return true;
}

bool dropBeginning(std::string_view& text, std::string_view beginning) {
    if (!text.starts_with(beginning)) return false;
    text.remove_prefix(beginning.size());
    return true;
}

// Takes the last piece behind a dash off `name`, together with the dash.
void dropInstance(std::string_view& name) {
    const auto dash = name.rfind('-');
    if (dash != std::string_view::npos) name.remove_suffix(name.size() - dash);
}

// A scope always ends in an instance; a service says it behind an "@", or as a number, or not.
void dropInstance(std::string_view& name, UnitKind kind) {
    const auto at = name.find('@');
    if (kind == UnitKind::scope) {
        dropInstance(name);
    } else if (at != std::string_view::npos) {
        name = name.substr(0, at);
    } else if (isDecimalNumber(name.substr(name.rfind('-') + 1))) {
        dropInstance(name);
    }
}

// The service manager's names write a dash, and whatever else it does not like, as an escape.
std::optional<std::string> identifierOfEscapedName(std::string_view name) {
    const std::string bytes = bytesOfEscapes(name);
    std::string_view identifier = bytes;
    dropEnding(identifier, ".desktop");
    if (identifier.empty()) return std::nullopt;
    return textOfPath(identifier);
}

std::optional<std::string> applicationOfAppUnit(std::string_view name, UnitKind kind) {
    dropInstance(name, kind);
    // Only flatpak's launcher is known to leave the dashes of an identifier as they are.
    if (!dropBeginning(name, "flatpak-")) name = name.substr(name.rfind('-') + 1);
    return identifierOfEscapedName(name);
}

std::optional<std::string> applicationOfSnapUnit(std::string_view name) {
    const auto snapEnd = name.find('.');
    if (snapEnd == 0 || snapEnd == std::string_view::npos) return std::nullopt;
    // A program's name has no dot; the instance that follows it is set off by a dot or, as a
    // universally unique identifier of 36 characters, by a dash.
    auto program = name.substr(snapEnd + 1);
    program = program.substr(0, program.find('.'));
    constexpr std::size_t instanceLength = 37;
    if (program.size() > instanceLength) {
        const auto instance = program.substr(program.size() - instanceLength);
        if (std::count(instance.begin(), instance.end(), '-') == 5 && instance[0] == '-') {
            program.remove_suffix(instanceLength);
        }
    }
    if (program.empty()) return std::nullopt;
    return textOfPath("snap." + std::string(name.substr(0, snapEnd + 1)) + std::string(program));
}

}  // namespace

std::optional<std::string> applicationOfUnit(std::string_view unitName) {
    const bool isScope = dropEnding(unitName, ".scope");
    if (!isScope && !dropEnding(unitName, ".service")) return std::nullopt;
    const auto kind = isScope ? UnitKind::scope : UnitKind::service;
    if (dropBeginning(unitName, "app-")) return applicationOfAppUnit(unitName, kind);
    if (dropBeginning(unitName, "snap.")) return applicationOfSnapUnit(unitName);
    if (isScope && unitName.starts_with("flatpak-")) return applicationOfAppUnit(unitName, kind);
    return std::nullopt;
}

std::optional<std::string> applicationOfControlGroup(std::string_view groupPath) {
    while (!groupPath.empty()) {
        const auto slash = groupPath.rfind('/');
        if (auto application = applicationOfUnit(groupPath.substr(slash + 1))) return application;
        if (slash == std::string_view::npos) break;
        groupPath = groupPath.substr(0, slash);
    }
    return std::nullopt;
}

std::optional<std::string> busNameOfControlGroup(std::string_view groupPath) {
    auto unit = groupPath.substr(groupPath.rfind('/') + 1);
    const auto instance = unit.find('@');
    if (!dropEnding(unit, ".service") || instance == std::string_view::npos) return std::nullopt;
    unit = unit.substr(0, instance);
    if (!dropBeginning(unit, "dbus-")) return std::nullopt;
    return identifierOfEscapedName(unit.substr(unit.rfind('-') + 1));
}

std::string_view controlGroupPath(std::string_view processGroups) {
    std::string_view unified;
    std::string_view named;
    while (!processGroups.empty()) {
        auto line = processGroups.substr(0, processGroups.find('\n'));
        processGroups.remove_prefix(std::min(line.size() + 1, processGroups.size()));
        if (dropBeginning(line, "0::")) unified = line;
        line.remove_prefix(std::min(line.find(':') + 1, line.size()));
        if (dropBeginning(line, "name=systemd:")) named = line;
    }
    return unified.size() > 1 ? unified : named;
}

}  // namespace platform
