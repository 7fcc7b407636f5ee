// Real programs at real paths for the tests of attribution: a folder that goes away, and a shell that
// is copied to where a test wants it, runs a script and is ended by its process id.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

#include "Platform/Linux/Attribution/ProcessTable.h"

namespace platform::testing {

// A folder under the system's temporary directory, removed with all it holds at the end.
class TemporaryFolder {
public:
    TemporaryFolder() {
        auto pattern = (std::filesystem::temp_directory_path() / "attribution-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        folder = pattern;
        std::filesystem::permissions(folder, std::filesystem::perms(0755));
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path(std::string_view relative) const { return (folder / relative).string(); }

    // A shell at the relative path; returns its absolute path.
    std::string addProgram(std::string_view relative) const {
        const auto program = folder / relative;
        std::filesystem::create_directories(program.parent_path());
        std::filesystem::copy_file("/bin/bash", program);
        return program.string();
    }

    // A bundle directory at the relative path whose property list names `identifier`.
    void addBundle(const std::string& relative, const std::string& identifier) const {
        addFile(relative + "/Contents/Info.plist",
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                "<key>CFBundleName</key><string>Demo</string>"
                "<key>CFBundleIdentifier</key><string>" +
                    identifier + "</string></dict></plist>\n");
    }

    // A file with this content.
    void addFile(std::string_view relative, std::string_view content) const {
        const auto file = folder / relative;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }

private:
    std::filesystem::path folder;
};

// A child process. It runs until it is ended or this object dies.
class RunningProgram {
public:
    // Runs a shell at `program` with a script. The script says "ready N" when it is, where N is a
    // process id of its choice; the constructor waits for that. `beforeStart` runs in the child.
    RunningProgram(const std::string& program, const std::string& script,
                   const std::function<void()>& beforeStart = {})
        : RunningProgram([&](int ready) {
              if (beforeStart) beforeStart();
              ::dup2(ready, STDOUT_FILENO);
              ::execl(program.c_str(), program.c_str(), "-c", script.c_str(), nullptr);
          }) {}
    // Forks and calls `body` with the descriptor to say "ready N" to.
    explicit RunningProgram(const std::function<void(int readyDescriptor)>& body) {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0) std::abort();
        child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(ready[0]);
            body(ready[1]);
            ::_exit(127);
        }
        ::close(ready[1]);
        std::string line;
        for (char byte = 0; ::read(ready[0], &byte, 1) == 1 && byte != '\n';) line += byte;
        ::close(ready[0]);
        constexpr std::string_view word = "ready ";
        if (line.starts_with(word)) named = std::atoi(line.c_str() + word.size());
    }
    ~RunningProgram() { end(); }
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    pid_t pid() const { return child; }
    // The process that the script named.
    pid_t namedPid() const { return named; }
    bool isReady() const { return named > 0; }

    // Kills the process, and the named one, and waits for it.
    void end() {
        if (child <= 0) return;
        if (named > 0 && named != child) ::kill(named, SIGKILL);
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        child = -1;
    }

    // Lets a process that stops itself go on, and waits until it has ended by itself.
    void letEnd() {
        ::waitpid(child, nullptr, WUNTRACED);
        ::kill(child, SIGCONT);
        ::waitpid(child, nullptr, 0);
        child = -1;
    }

private:
    pid_t child = -1;
    pid_t named = -1;
};

// For a child that root forked: it goes on under a person's account.
inline void becomePerson(uid_t user) {
    if (::geteuid() != 0) return;
    if (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0) ::_exit(126);
}

// A reason why the tests' own processes already belong to an application; empty if they don't.
inline std::string reasonForNoOrdinaryPrograms() {
    const auto own = ProcessTable::shared().examine(::getpid());
    if (!own) return "this process cannot be looked at";
    if (own->kind == ProcessKind::ordinaryProgram) return {};
    return "the tests run inside the application " + own->signingIdentifier;
}

}  // namespace platform::testing
