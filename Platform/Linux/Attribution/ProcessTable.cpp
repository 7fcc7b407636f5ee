#include "Platform/Linux/Attribution/ProcessTable.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/Linux/Attribution/BundleIdentifiers.h"
#include "Platform/Linux/Attribution/ControlGroupApplication.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/VirtualBundle.h"

namespace platform {

namespace {

using namespace std::chrono_literals;

// How long a process that is still the same program keeps its place among the applications without
// another look. A launcher may move it into a control group after it has started.
constexpr auto placeLifetime = 500ms;
// How long an answer serves those who were led to the process by it.
constexpr auto recallLifetime = 2ms;
// How long a process that has ended is remembered.
constexpr auto memoryOfEnded = 30s;
constexpr std::size_t entryLimit = 4096;
// A process further below an application than this is its own program: the walk up has to end.
constexpr int deepestGeneration = 64;

// How many forks without an exec lie between a process that was not seen and one that was.
constexpr int deepestFork = 4;

// In a user namespace without the machine's root, root's files look like nobody's.
uid_t readRootAsSeenHere() {
    constexpr uid_t overflow = 65534;
    std::ifstream map("/proc/self/uid_map");
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    std::uint64_t count = 0;
    while (map >> inside >> outside >> count) {
        if (inside == 0 && count > 0) return 0;
    }
    return overflow;
}

bool isRoot(uid_t owner) {
    static const uid_t root = readRootAsSeenHere();
    return owner == 0 || owner == root;
}

std::string fileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The extension searches a path from the left; where that would miss the bundle, or where the path
// is too long to be shown, a virtual bundle of the same identifier stands in.
std::string shownBundlePath(const std::string& path, const std::string& identifier) {
    auto text = textOfPath(path);
    const bool isSeen = text.size() <= longestShownPath && showsBundle(path);
    return isSeen ? text : virtualProgramPath(identifier);
}

}  // namespace

std::string ordinaryProgramIdentifier(const std::string& path, uid_t owner) {
    auto name = textOfPath(isRoot(owner) ? fileName(path) : path);
    std::replace(name.begin(), name.end(), '.', '-');
    return identifierThatFits(name);
}

AuditToken Process::auditToken() const {
    return makeAuditToken({.effectiveUserId = status.effectiveUserId,
                           .pid = pid,
                           .startTime = status.startTime,
                           .executableDevice = status.executableDevice,
                           .executableInode = status.executableInode,
                           .signingIdentifier = signingIdentifier});
}

ProcessTable& ProcessTable::shared() {
    static ProcessTable table;
    return table;
}

std::shared_ptr<const Process> ProcessTable::examine(pid_t pid) { return examine(pid, 0); }

std::shared_ptr<const Process> ProcessTable::recall(pid_t pid) { return recall(pid, 0); }

std::shared_ptr<const Process> ProcessTable::recall(pid_t pid, int generation) {
    const auto known = find(pid);
    const auto age = Clock::now() - known.confirmed;
    if (known.process && age <= recallLifetime) return known.process;
    if (auto process = examine(pid)) return process;
    if (known.process && age <= memoryOfEnded) return known.process;
    return likeItsParent(pid, generation);
}

std::shared_ptr<const Process> ProcessTable::likeItsParent(pid_t pid, int generation) {
    const auto parentPid = parents.find(pid);
    if (!parentPid || generation >= deepestFork) return nullptr;
    const auto parent = recall(*parentPid, generation + 1);
    if (!parent) return nullptr;
    auto process = std::make_shared<Process>(*parent);
    const bool isOfApplication = parent->kind != ProcessKind::ordinaryProgram;
    process->pid = pid;
    process->status.parentPid = *parentPid;
    process->shownParentPid = isOfApplication ? *parentPid : 1;
    return process;
}

void ProcessTable::noteFork(pid_t child, pid_t parent, Clock::time_point when) {
    parents.remember(child, parent);
    forgetOlder(child, when);
}

void ProcessTable::noteExec(pid_t pid, Clock::time_point when) {
    parents.forget(pid);
    forgetOlder(pid, when);
}

std::shared_ptr<const Process> ProcessTable::examine(pid_t pid, int generation) {
    if (pid <= 0 || generation > deepestGeneration) return nullptr;
    const auto now = Clock::now();
    const auto folder = openProcess(pid);
    const auto status = readProcessStatus(folder);
    if (!status) return nullptr;
    auto known = find(pid);
    if (known.process && known.process->status == *status &&
        now - known.classified <= placeLifetime) {
        return store(std::move(known.process), known.classified, now);
    }
    auto process = classify(pid, *status, folder, generation);
    if (process.signingIdentifier.empty()) return nullptr;
    return store(std::make_shared<const Process>(std::move(process)), now, now);
}

Process ProcessTable::classify(pid_t pid, const ProcessStatus& status, const FileDescriptor& folder,
                               int generation) {
    Process process;
    process.pid = pid;
    process.status = status;
    const auto path = readExecutablePath(folder);
    if (!path) return process;

    const auto parent = status.parentPid > 1 ? examine(status.parentPid, generation + 1) : nullptr;
    const bool isBelowApplication = parent && parent->kind != ProcessKind::ordinaryProgram;
    process.shownParentPid = isBelowApplication ? status.parentPid : 1;

    if (auto bundle = innermostBundleIdentifier(*path)) {
        process.kind = ProcessKind::bundle;
        process.signingIdentifier = *std::move(bundle);
        process.shownPath = shownBundlePath(*path, process.signingIdentifier);
    } else if (auto application =
                   applicationOfControlGroup(controlGroupPath(readProcessFile(folder, "cgroup")))) {
        process.kind = ProcessKind::desktopApplication;
        process.signingIdentifier = identifierThatFits(*application);
        process.shownPath = virtualProgramPath(process.signingIdentifier);
    } else if (isBelowApplication) {
        process.kind = ProcessKind::applicationPart;
        process.signingIdentifier = textOfPath(fileName(*path));
        process.shownPath = textOfPath(*path);
    } else {
        process.signingIdentifier = ordinaryProgramIdentifier(*path, status.executableOwner);
        process.shownPath = virtualProgramPath(process.signingIdentifier);
    }
    return process;
}

ProcessTable::Entry ProcessTable::find(pid_t pid) {
    const MutexGuard guard(lock);
    const auto found = entries.find(pid);
    return found == entries.end() ? Entry{} : found->second;
}

std::shared_ptr<const Process> ProcessTable::store(std::shared_ptr<const Process> process,
                                                   Clock::time_point classified,
                                                   Clock::time_point confirmed) {
    const MutexGuard guard(lock);
    if (entries.size() >= entryLimit) makeRoom(confirmed);
    entries.insert_or_assign(process->pid, Entry{process, classified, confirmed});
    return process;
}

void ProcessTable::forgetOlder(pid_t pid, Clock::time_point when) {
    const MutexGuard guard(lock);
    const auto known = entries.find(pid);
    if (known != entries.end() && known->second.confirmed < when) entries.erase(known);
}

void ProcessTable::makeRoom(Clock::time_point now) {
    std::erase_if(entries,
                  [&](const auto& entry) { return now - entry.second.confirmed > memoryOfEnded; });
    if (entries.size() >= entryLimit) entries.clear();
}

}  // namespace platform
