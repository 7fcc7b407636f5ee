#include "Tests/Platform/Linux/Attribution/RealPrograms.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "Platform/Linux/Attribution/ProcessTable.h"

namespace platform::testing {

TemporaryFolder::TemporaryFolder() {
    auto pattern = (std::filesystem::temp_directory_path() / "attribution-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    folder = pattern;
    std::filesystem::permissions(folder, std::filesystem::perms(0755));
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string TemporaryFolder::path(std::string_view relative) const {
    return relative.empty() ? folder.string() : (folder / relative).string();
}

std::string TemporaryFolder::addProgram(std::string_view relative) const {
    const auto program = folder / relative;
    std::filesystem::create_directories(program.parent_path());
    std::filesystem::copy_file("/bin/bash", program);
    return program.string();
}

void TemporaryFolder::addBundle(std::string_view relative, std::string_view identifier) const {
    addFile(std::string(relative) + "/Contents/Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
            "<key>CFBundleName</key><string>Demo</string>"
            "<key>CFBundleIdentifier</key><string>" +
                std::string(identifier) + "</string></dict></plist>\n");
}

void TemporaryFolder::addFile(std::string_view relative, std::string_view content) const {
    const auto file = folder / relative;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

RunningProgram::RunningProgram(const std::string& program, const std::string& script,
                               const std::function<void()>& beforeStart) {
    start([&](int ready) {
        if (beforeStart) beforeStart();
        ::dup2(ready, STDOUT_FILENO);
        ::execl(program.c_str(), program.c_str(), "-c", script.c_str(), nullptr);
    });
}

RunningProgram::RunningProgram(const std::function<void(int)>& body) { start(body); }

void RunningProgram::start(const std::function<void(int)>& body) {
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

void RunningProgram::end() {
    if (child <= 0) return;
    if (named > 0 && named != child) ::kill(named, SIGKILL);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    child = -1;
}

void RunningProgram::letEnd() {
    // A process that is about to stop itself must have done so first.
    ::waitpid(child, nullptr, WUNTRACED);
    ::kill(child, SIGCONT);
    ::waitpid(child, nullptr, 0);
    child = -1;
}

void becomePerson(uid_t user) {
    if (::geteuid() != 0) return;
    if (::setgroups(0, nullptr) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0) ::_exit(126);
}

std::string readyAs(std::string_view pid) {
    return "echo ready " + std::string(pid) + "; kill -STOP " + std::string(pid) + "; :";
}

std::string reasonForNoOrdinaryPrograms() {
    const auto own = ProcessTable::shared().examine(::getpid());
    if (!own) return "this process cannot be looked at";
    if (own->kind == ProcessKind::ordinaryProgram) return {};
    return "the tests run inside the application " + own->signingIdentifier;
}

}  // namespace platform::testing
