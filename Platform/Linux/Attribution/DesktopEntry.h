// Reads what an installation says about an application: the text of its .desktop file. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct DesktopEntry {
    std::vector<std::string> command;  // program and arguments, without `env` and its assignments
    std::string name;                  // in menus, in English
    bool isShown = true;  // in menus; false for helpers and parts of the desktop itself
    bool runsInTerminal = false;
    bool isTerminal = false;  // a terminal emulator, whose children are programs of their own
};

// Null if the text describes no application, or one without a command.
std::optional<DesktopEntry> parseDesktopEntry(std::string_view text);

}  // namespace platform
