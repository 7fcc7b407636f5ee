#include "Platform/Simulated/Processes.h"

#include <array>
#include <cstring>

#include "Platform/Common/Text.h"
#include "Platform/Foundation.h"
#include "Platform/LibProc.h"
#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {

Data makeAuditToken(std::uint32_t effectiveUserId, std::int32_t pid, std::uint32_t version) {
    std::array<std::uint32_t, 8> words{};
    words[1] = effectiveUserId;
    words[5] = static_cast<std::uint32_t>(pid);
    words[7] = version;
    std::string bytes(sizeof words, '\0');
    std::memcpy(bytes.data(), words.data(), sizeof words);
    return Data(std::move(bytes));
}

Data Process::auditToken() const { return makeAuditToken(effectiveUserId, pid, version); }

Process Processes::add(Process process) {
    const MutexGuard guard(mutex);
    if (process.pid == 0) process.pid = ++lastPid;
    processes.insert_or_assign(process.pid, process);
    return process;
}

void Processes::end(std::int32_t pid) {
    const MutexGuard guard(mutex);
    processes.erase(pid);
}

void Processes::setParent(std::int32_t pid, std::int32_t parent) {
    const MutexGuard guard(mutex);
    if (const auto found = processes.find(pid); found != processes.end())
        found->second.parent = parent;
}

void Processes::addBundle(std::string_view path, std::optional<std::string> identifier) {
    const MutexGuard guard(mutex);
    bundles.insert_or_assign(std::string(path), std::move(identifier));
}

std::vector<std::string> Processes::bundlesAskedFor() const {
    const MutexGuard guard(mutex);
    return openings;
}

void Processes::forgetQuestions() {
    const MutexGuard guard(mutex);
    openings.clear();
    processQuestions.store(0, std::memory_order_relaxed);
}

std::optional<std::int32_t> Processes::parentOf(std::int32_t pid) {
    processQuestions.fetch_add(1, std::memory_order_relaxed);
    const MutexGuard guard(mutex);
    const auto found = processes.find(pid);
    if (found == processes.end()) return std::nullopt;
    return found->second.parent;
}

std::optional<std::string> Processes::pathOf(std::int32_t pid) {
    processQuestions.fetch_add(1, std::memory_order_relaxed);
    const MutexGuard guard(mutex);
    const auto found = processes.find(pid);
    if (found == processes.end()) return std::nullopt;
    return found->second.path;
}

std::optional<std::optional<std::string>> Processes::bundleAt(std::string_view path) {
    const MutexGuard guard(mutex);
    openings.emplace_back(path);
    const auto found = bundles.find(path);
    if (found == bundles.end()) return std::nullopt;
    return found->second;
}

}  // namespace simulated

using simulated::checkPlatformCall;
using simulated::machine;

int proc_pidinfo(std::int32_t pid, int flavour, std::uint64_t argument, proc_bsdinfo& info) {
    checkPlatformCall("proc_pidinfo");
    if (flavour != PROC_PIDTBSDINFO || argument != 0) return 0;
    const auto parent = machine().processes.parentOf(pid);
    if (!parent) return 0;
    info.pbi_ppid = static_cast<std::uint32_t>(*parent);
    return static_cast<int>(sizeof info);
}

int proc_pidpath(std::int32_t pid, char* buffer, std::uint32_t size) {
    checkPlatformCall("proc_pidpath");
    const auto path = machine().processes.pathOf(pid);
    if (!path) return 0;
    const std::string text = validUTF8(*path);
    if (text.size() >= size) return 0;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return static_cast<int>(text.size());
}

std::optional<NSBundle> NSBundle::bundleWithPath(std::string_view path) {
    checkPlatformCall("NSBundle.bundleWithPath");
    auto bundle = machine().processes.bundleAt(path);
    if (!bundle) return std::nullopt;
    return NSBundle(*std::move(bundle));
}

}  // namespace platform
