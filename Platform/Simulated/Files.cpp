#include "Platform/Simulated/Files.h"

#include <algorithm>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Machine.h"

namespace platform {
namespace simulated {
namespace {

NSError fileError() { return {"posix", 5, "Input/output error"}; }

}  // namespace

void Files::put(std::string_view path, std::string_view bytes, int permissions) {
    const MutexGuard guard(mutex);
    files.insert_or_assign(std::string(path), File{std::string(bytes), permissions});
}

void Files::remove(std::string_view path) {
    const MutexGuard guard(mutex);
    if (const auto found = files.find(path); found != files.end()) files.erase(found);
}

std::optional<std::string> Files::contents(std::string_view path) const {
    const MutexGuard guard(mutex);
    const auto found = files.find(path);
    if (found == files.end()) return std::nullopt;
    return found->second.bytes;
}

std::optional<int> Files::permissions(std::string_view path) const {
    const MutexGuard guard(mutex);
    const auto found = files.find(path);
    if (found == files.end()) return std::nullopt;
    return found->second.permissions;
}

std::size_t Files::count(FileOperation operation, std::string_view path) const {
    const MutexGuard guard(mutex);
    return static_cast<std::size_t>(std::count_if(log.begin(), log.end(), [&](const auto& access) {
        return access.operation == operation && access.path == path;
    }));
}

void Files::fail(FileOperation operation, std::string_view path, int times, std::size_t partLeft) {
    const MutexGuard guard(mutex);
    faults.push_back({operation, std::string(path), times, partLeft});
}

void Files::failAtRandom(std::uint64_t chances) {
    const MutexGuard guard(mutex);
    randomFaultChances = chances;
}

void Files::stall(FileOperation operation, std::string_view path) {
    const MutexGuard guard(mutex);
    stalled = FileAccess{operation, std::string(path)};
}

void Files::goOn() {
    const MutexGuard guard(mutex);
    stalled.reset();
    changed.notifyAll();
}

void Files::waitUntilStalled() {
    const MutexGuard guard(mutex);
    while (waiting == 0) changed.wait(mutex);
}

void Files::setContainer(std::optional<std::string> path) {
    const MutexGuard guard(mutex);
    containerPath = std::move(path);
}

std::optional<std::string> Files::container() const {
    const MutexGuard guard(mutex);
    return containerPath;
}

std::vector<std::string> Files::containerQuestions() const {
    const MutexGuard guard(mutex);
    return questions;
}

std::optional<std::size_t> Files::takeFault(FileOperation operation, std::string_view path,
                                            std::size_t length) {
    for (auto fault = faults.begin(); fault != faults.end(); ++fault) {
        if (fault->operation != operation) continue;
        if (!fault->path.empty() && fault->path != path) continue;
        const auto left = std::min(fault->partLeft, length);
        if (--fault->times <= 0) faults.erase(fault);
        return left;
    }
    if (randomFaultChances > 0 && scheduler.draw(randomFaultChances) == 0)
        return static_cast<std::size_t>(scheduler.draw(length + 1));
    return std::nullopt;
}

void Files::note(FileOperation operation, std::string_view path) {
    log.push_back({operation, std::string(path)});
}

void Files::waitWhileStalled(FileOperation operation, std::string_view path) {
    ++waiting;
    changed.notifyAll();
    while (stalled && stalled->operation == operation && stalled->path == path) changed.wait(mutex);
    --waiting;
}

std::optional<Data> Files::read(std::string_view path) {
    const MutexGuard guard(mutex);
    waitWhileStalled(FileOperation::read, path);
    const auto found = files.find(path);
    const bool succeeds = found != files.end() && !takeFault(FileOperation::read, path, 0);
    note(FileOperation::read, path);
    if (!succeeds) return std::nullopt;
    return Data(found->second.bytes);
}

std::optional<NSError> Files::writeAtomically(std::string_view bytes, std::string_view path) {
    const MutexGuard guard(mutex);
    waitWhileStalled(FileOperation::writeAtomically, path);
    const bool succeeds = !takeFault(FileOperation::writeAtomically, path, 0);
    note(FileOperation::writeAtomically, path);
    if (!succeeds) return fileError();
    files.insert_or_assign(std::string(path), File{std::string(bytes)});
    return std::nullopt;
}

std::optional<NSError> Files::write(std::string_view bytes, std::string_view path) {
    const MutexGuard guard(mutex);
    waitWhileStalled(FileOperation::write, path);
    const auto partLeft = takeFault(FileOperation::write, path, bytes.size());
    note(FileOperation::write, path);
    auto& file = files[std::string(path)];
    file.bytes = bytes.substr(0, partLeft.value_or(bytes.size()));
    return partLeft ? std::optional(fileError()) : std::nullopt;
}

bool Files::setPermissions(int permissions, std::string_view path) {
    const MutexGuard guard(mutex);
    waitWhileStalled(FileOperation::setPermissions, path);
    const auto found = files.find(path);
    const bool succeeds =
        found != files.end() && !takeFault(FileOperation::setPermissions, path, 0);
    note(FileOperation::setPermissions, path);
    if (succeeds) found->second.permissions = permissions;
    return succeeds;
}

bool Files::removeItem(std::string_view path) {
    const MutexGuard guard(mutex);
    waitWhileStalled(FileOperation::remove, path);
    const auto found = files.find(path);
    const bool succeeds = found != files.end() && !takeFault(FileOperation::remove, path, 0);
    note(FileOperation::remove, path);
    if (succeeds) files.erase(found);
    return succeeds;
}

std::optional<std::string> Files::containerFor(std::string_view groupIdentifier) {
    const MutexGuard guard(mutex);
    questions.emplace_back(groupIdentifier);
    return containerPath;
}

}  // namespace simulated

using simulated::checkPlatformCall;
using simulated::machine;

NSFileManager& NSFileManager::defaultManager() {
    static NSFileManager manager;
    return manager;
}

std::optional<Data> NSFileManager::contentsAtPath(std::string_view path) {
    checkPlatformCall("NSFileManager.contentsAtPath");
    return machine().files.read(path);
}

std::optional<NSError> NSFileManager::writeAtomically(std::string_view bytes,
                                                      std::string_view path) {
    checkPlatformCall("NSFileManager.writeAtomically");
    return machine().files.writeAtomically(bytes, path);
}

std::optional<NSError> NSFileManager::write(std::string_view bytes, std::string_view path) {
    checkPlatformCall("NSFileManager.write");
    return machine().files.write(bytes, path);
}

bool NSFileManager::setPosixPermissions(int permissions, std::string_view path) {
    checkPlatformCall("NSFileManager.setPosixPermissions");
    return machine().files.setPermissions(permissions, path);
}

bool NSFileManager::removeItemAtPath(std::string_view path) {
    checkPlatformCall("NSFileManager.removeItemAtPath");
    return machine().files.removeItem(path);
}

std::optional<std::string> NSFileManager::containerURLForSecurityApplicationGroupIdentifier(
    std::string_view groupIdentifier) {
    checkPlatformCall("NSFileManager.containerURLForSecurityApplicationGroupIdentifier");
    return machine().files.containerFor(groupIdentifier);
}

}  // namespace platform
