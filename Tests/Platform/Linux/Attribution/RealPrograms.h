// Real programs at real paths for the tests of attribution: a folder that goes away, and a shell that
// is copied to where a test wants it, runs a script and is ended by its process id.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::testing {

// A folder under the system's temporary directory, removed with all it holds at the end.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path(std::string_view relative = {}) const;

    // A shell at the relative path; returns its absolute path.
    std::string addProgram(std::string_view relative) const;

    // A bundle directory at the relative path whose property list names `identifier`.
    void addBundle(std::string_view relative, std::string_view identifier) const;

    // A file with this content.
    void addFile(std::string_view relative, std::string_view content) const;

private:
    std::filesystem::path folder;
};

// A child process. It runs until it is ended or this object dies.
class RunningProgram {
public:
    // Runs a shell at `program` with a script. The script says "ready N" when it is, where N is a
    // process id of its choice; the constructor waits for that. `beforeStart` runs in the child.
    RunningProgram(const std::string& program, const std::string& script,
                   const std::function<void()>& beforeStart = {});
    // Forks and calls `body` with the descriptor to say "ready N" to.
    explicit RunningProgram(const std::function<void(int readyDescriptor)>& body);
    ~RunningProgram() { end(); }
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    pid_t pid() const { return child; }
    // The process that the script named.
    pid_t namedPid() const { return named; }
    bool isReady() const { return named > 0; }

    // Kills the process, and the named one, and waits for it.
    void end();

    // Lets a stopped process go on, and waits until it has ended by itself.
    void letEnd();

private:
    void start(const std::function<void(int)>& body);

    pid_t child = -1;
    pid_t named = -1;
};

// For a child that root forked: it goes on under a person's account.
void becomePerson(uid_t user);

// For the end of a script: says that process N is ready, and stays until killed.
std::string readyAs(std::string_view pid);

// A reason why the tests' own processes already belong to an application; empty if they don't.
std::string reasonForNoOrdinaryPrograms();

}  // namespace platform::testing
