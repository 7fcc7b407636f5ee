#include "Platform/Linux/Attribution/DesktopEntry.h"

#include <map>

namespace platform {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    const auto start = text.find_first_not_of(blanks);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

using Keys = std::map<std::string_view, std::string_view>;

// The keys of the group that describes the application; the others are its actions.
Keys keysOfMainGroup(std::string_view text) {
    Keys keys;
    bool isInGroup = false;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto line = trimmed(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.starts_with('[')) isInGroup = line == "[Desktop Entry]";
        const auto equals = line.find('=');
        if (!isInGroup || line.starts_with('#') || equals == std::string_view::npos) continue;
        keys.emplace(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }
    return keys;
}

// The words of a command line, in which double quotes hold a word together.
std::vector<std::string> wordsOf(std::string_view line) {
    std::vector<std::string> words;
    std::string word;
    bool isQuoted = false, isWord = false;
    for (std::size_t index = 0; index < line.size(); ++index) {
        const char byte = line[index];
        if (byte == '\\' && index + 1 < line.size()) {
            word += line[++index];
        } else if (byte == '"') {
            isQuoted = !isQuoted;
        } else if (isQuoted || blanks.find(byte) == std::string_view::npos) {
            word += byte;
        } else {
            if (isWord) words.push_back(std::move(word));
            word.clear();
            isWord = false;
            continue;
        }
        isWord = true;
    }
    if (isWord) words.push_back(std::move(word));
    return words;
}

void dropEnvironment(std::vector<std::string>& command) {
    if (command.empty() || (command[0] != "env" && command[0] != "/usr/bin/env")) return;
    auto program = command.begin() + 1;
    while (program != command.end() && program->find('=') != std::string::npos) ++program;
    command.erase(command.begin(), program);
}

}  // namespace

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text) {
    auto keys = keysOfMainGroup(text);
    if (keys["Type"] != "Application" || keys["Hidden"] == "true") return std::nullopt;
    DesktopEntry entry;
    entry.command = wordsOf(keys["Exec"]);
    dropEnvironment(entry.command);
    if (entry.command.empty()) return std::nullopt;
    entry.name = keys["Name"];
    entry.isShown = keys["NoDisplay"] != "true";
    entry.runsInTerminal = keys["Terminal"] == "true";
    entry.isTerminal = keys["Categories"].find("TerminalEmulator") != std::string_view::npos;
    return entry;
}

}  // namespace platform
