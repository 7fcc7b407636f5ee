// Says who is an application, and what every program is called: the one place where that is decided.
// Any thread; it may wait a moment for a file system that hangs, and then goes on without.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace platform {

enum class ProcessKind {
    // Its executable lies in a real bundle. It is signed as the innermost bundle around it, as a
    // helper is, while its path leads to the outermost one: rules find either.
    bundle,
    // Its executable is that of an installed application, or it runs from an AppImage.
    installedApplication,
    // It runs in the control group of a desktop application, and is that application.
    desktopApplication,
    // None of those, but a descendant of one. Signed with its file name, it lives in no bundle and
    // follows its application by its parents.
    applicationPart,
    // Anything else, named by its executable. A script is its interpreter: that is the program the
    // kernel runs, and what a script calls itself is the script's own choice.
    ordinaryProgram
};

// True for the kinds that are an application by themselves, whatever account runs them.
bool isApplication(ProcessKind kind);

// What is known of a program that runs.
struct ProgramFacts {
    std::string path;            // of the executable, in bytes
    std::optional<uid_t> owner;  // of the executable; none if its file system doesn't say
    std::string controlGroup;    // the end of its path, or all of it
    uid_t effectiveUserId = 0;
    bool isBelowApplication = false;  // its parent is of the first four kinds, and no terminal
};

struct ProgramName {
    ProcessKind kind = ProcessKind::ordinaryProgram;
    std::string signingIdentifier;  // valid UTF-8, never empty
    std::string shownPath;          // valid UTF-8
    bool isTerminal = false;        // what it starts is no part of it
};

ProgramName nameOf(const ProgramFacts& program);

// The same for a program file, wherever it is run by itself.
ProgramName nameOfProgramAt(const std::string& path, uid_t owner);

// What a program in no bundle is called, by the path and the owner of its executable. Without dots, so
// that no rule for a longer or a shorter name ever covers it.
std::string ordinaryProgramIdentifier(const std::string& path, std::optional<uid_t> owner);

}  // namespace platform
