#include "Platform/Linux/Attribution/ProcessTable.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/Linux/Attribution/ControlGroupApplication.h"
#include "Platform/Linux/Attribution/FileLook.h"
#include "Platform/Linux/Attribution/InstalledApplications.h"
#include "Platform/Linux/Attribution/StableHash.h"

namespace platform {

namespace {

using namespace std::chrono_literals;

// How long a process that is still the same program keeps its place among the applications without
// another look. A launcher may move it into a control group after it has started.
constexpr auto placeLifetime = 500ms;
// The same where the kernel says that nothing has changed: bundles may have.
constexpr auto notedPlaceLifetime = 10s;
// How long an answer serves those who were led to the process by it.
constexpr auto recallLifetime = 2ms;
// The same where a note confirmed it: the next note would tell of another program.
constexpr auto notedRecallLifetime = 500ms;
// How long a process that has ended is remembered.
constexpr auto memoryOfEnded = 30s;
constexpr std::size_t entryLimit = 4096;
// A process further below an application than this is its own program: the walk up has to end.
constexpr int deepestGeneration = 64;

std::uint64_t ticksOf(std::uint64_t nanoseconds) {
    static const auto perSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    return nanoseconds / (1'000'000'000 / perSecond);
}

bool isBelowApplication(const Process* parent) {
    return parent != nullptr && parent->kind != ProcessKind::ordinaryProgram && !parent->isTerminal;
}

Process processOf(pid_t pid, ProcessStatus status, ProgramFacts facts, const Process* parent) {
    facts.effectiveUserId = status.effectiveUserId;
    facts.isBelowApplication = isBelowApplication(parent);
    auto name = nameOf(facts);
    const bool isStartedByOther = (name.kind == ProcessKind::installedApplication ||
                                   name.kind == ProcessKind::desktopApplication) &&
                                  parent != nullptr &&
                                  parent->signingIdentifier != name.signingIdentifier;
    Process process{.pid = pid,
                    .status = std::move(status),
                    .executable = std::move(facts.path),
                    .kind = name.kind,
                    .isTerminal = name.isTerminal,
                    .signingIdentifier = std::move(name.signingIdentifier),
                    .shownPath = std::move(name.shownPath)};
    if (facts.isBelowApplication && !isStartedByOther) process.shownParentPid = parent->pid;
    return process;
}

}  // namespace

// A note's programs from one place on, told apart from all others by a number for each place.
struct ProcessTable::Chain {
    const SocketNotes& notes;
    const KernelNote& note;
    std::array<std::uint64_t, KERNEL_NOTE_PROGRAMS + 1> numbers{};
    std::size_t count = 0;

    Chain(const SocketNotes& allNotes, const KernelNote& oneNote) : notes(allNotes), note(oneNote) {
        count = std::min<std::size_t>(note.programCount, KERNEL_NOTE_PROGRAMS);
        StableHash hash;
        for (auto place = count; place-- > 0;) {
            const auto& program = note.programs[place];
            hash.add({reinterpret_cast<const char*>(&program), sizeof program});
            numbers[place] = hash.value() | 1;
        }
    }
};

AuditToken Process::auditToken() const {
    return makeAuditToken({.effectiveUserId = status.effectiveUserId,
                           .pid = pid,
                           .startTime = status.startTime,
                           .executable = executable,
                           .signingIdentifier = signingIdentifier,
                           .isApplication = isApplication(kind)});
}

ProcessTable& ProcessTable::shared() {
    static auto& table = *new ProcessTable;  // a look may outlive everything else
    return table;
}

std::shared_ptr<const Process> ProcessTable::examine(pid_t pid) { return examine(pid, 0); }

std::shared_ptr<const Process> ProcessTable::recall(pid_t pid) {
    const auto known = find(pid);
    const auto age = Clock::now() - known.confirmed;
    const auto lifetime = known.noted != 0 ? notedRecallLifetime : recallLifetime;
    if (known.process && age <= lifetime) return known.process;
    if (auto process = examine(pid, 0)) return process;
    return known.process && age <= memoryOfEnded ? known.process : nullptr;
}

std::shared_ptr<const Process> ProcessTable::examine(pid_t pid, int generation) {
    if (pid <= 0 || generation > deepestGeneration) return nullptr;
    const auto now = Clock::now();
    const auto folder = openProcess(pid);
    auto status = readProcessStatus(folder);
    if (!status) return nullptr;
    auto known = find(pid);
    const auto applications = InstalledApplications::shared().version();
    if (known.process && known.process->status == *status && known.applications == applications &&
        now - known.named <= placeLifetime) {
        known.confirmed = now;
        return store(known);
    }
    auto executable = executableOf(pid, *status);
    const auto parent = examineParent(*status, generation);
    const auto groups = readProcessFile(folder, "cgroup");
    ProgramFacts facts{.path = std::move(executable.path),
                       .owner = executable.owner,
                       .controlGroup = std::string(controlGroupPath(groups))};
    auto process = std::make_shared<const Process>(
        processOf(pid, *std::move(status), std::move(facts), parent.get()));
    return store({std::move(process), 0, applications, now, now});
}

std::shared_ptr<const Process> ProcessTable::examineParent(const ProcessStatus& status,
                                                           int generation) {
    return status.parentPid > 1 ? examine(status.parentPid, generation + 1) : nullptr;
}

// Where the file system hangs, its path is all that is known.
Executable ProcessTable::executableOf(pid_t pid, const ProcessStatus& status) {
    const auto key =
        std::to_string(pid) + " " + std::to_string(status.startTime) + " " + status.executableLink;
    if (auto known = executables.find(key)) return *std::move(known);
    lookWithPatience("executable " + key, [this, key, pid, link = status.executableLink] {
        executables.remember(key, lookAtExecutable(openProcess(pid), link));
    });
    auto found = executables.find(key);
    return found ? *std::move(found) : Executable{status.executableLink, std::nullopt};
}

std::shared_ptr<const Process> ProcessTable::ofNote(const SocketNotes& notes,
                                                    const KernelNote& note) {
    return ofNote(Chain(notes, note), 0);
}

std::shared_ptr<const Process> ProcessTable::ofNote(const Chain& chain, std::size_t place) {
    if (place >= chain.count) return nullptr;
    if (auto known = findNoted(chain, place)) return known;
    const auto& program = chain.note.programs[place];
    const auto pid = static_cast<pid_t>(program.pid);
    auto path = chain.notes.pathOf(program.executable);
    // The note ends here, or does not name the program: /proc may know more.
    const bool isLast = place + 1 == KERNEL_NOTE_PROGRAMS;
    if (!path || isLast) {
        auto process = examine(pid, 0);
        const bool isSame = process && process->status.startTime == ticksOf(program.started);
        if (isSame) return process;
        if (!path) return nullptr;
    }
    const auto now = Clock::now();
    const auto parent = ofNote(chain, place + 1);
    const bool hasParent = place + 1 < chain.count;
    ProcessStatus status{
        .parentPid = hasParent ? static_cast<pid_t>(chain.note.programs[place + 1].pid) : 1,
        .startTime = ticksOf(program.started),
        .effectiveUserId = program.effectiveUserId,
        .executableLink = *path};
    auto group = chain.notes.controlGroupPath(program.controlGroup);
    // Without the unified hierarchy all are in its root.
    if (group.empty()) group = controlGroupPath(readProcessFile(openProcess(pid), "cgroup"));
    ProgramFacts facts{.path = *std::move(path),
                       .owner = program.executableOwner,
                       .controlGroup = std::move(group)};
    const auto applications = InstalledApplications::shared().version();
    auto process = std::make_shared<const Process>(
        processOf(pid, std::move(status), std::move(facts), parent.get()));
    return store({std::move(process), chain.numbers[place], applications, now, now});
}

// What is known of this program at this place, unless it has to be looked up again.
std::shared_ptr<const Process> ProcessTable::findNoted(const Chain& chain, std::size_t place) {
    const auto now = Clock::now();
    const auto applications = InstalledApplications::shared().version();
    const MutexGuard guard(lock);
    ProcessPointer result;
    for (auto each = place; each < chain.count; ++each) {
        const auto found = entries.find(static_cast<pid_t>(chain.note.programs[each].pid));
        if (found == entries.end() || found->second.noted != chain.numbers[each]) break;
        auto& entry = found->second;
        const bool isOld =
            entry.applications != applications || now - entry.named > notedPlaceLifetime;
        if (each == place && isOld) return nullptr;
        if (each == place) result = entry.process;
        entry.confirmed = now;
    }
    return result;
}

ProcessTable::Entry ProcessTable::find(pid_t pid) {
    const MutexGuard guard(lock);
    const auto found = entries.find(pid);
    return found == entries.end() ? Entry{} : found->second;
}

std::shared_ptr<const Process> ProcessTable::store(const Entry& entry) {
    const MutexGuard guard(lock);
    if (entries.size() >= entryLimit) makeRoom(entry.confirmed);
    entries.insert_or_assign(entry.process->pid, entry);
    return entry.process;
}

void ProcessTable::makeRoom(Clock::time_point now) {
    std::erase_if(entries,
                  [&](const auto& entry) { return now - entry.second.confirmed > memoryOfEnded; });
    if (entries.size() >= entryLimit) entries.clear();
}

}  // namespace platform
