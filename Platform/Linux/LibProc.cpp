#include "Platform/LibProc.h"

#include <cstring>
#include <memory>

#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/Recording/RecordedSystem.h"

namespace platform {

int proc_pidinfo(std::int32_t pid, int flavour, std::uint64_t argument, proc_bsdinfo& info) {
    if (flavour != PROC_PIDTBSDINFO || argument != 0) return 0;
    const auto process = ProcessTable::shared().recall(pid);
    if (!process) {
        recording::noteParent(pid, std::nullopt);
        return 0;
    }
    recording::noteParent(pid, process->shownParentPid);
    info.pbi_ppid = static_cast<std::uint32_t>(process->shownParentPid);
    return static_cast<int>(sizeof info);
}

int proc_pidpath(std::int32_t pid, char* buffer, std::uint32_t size) {
    const auto process = ProcessTable::shared().recall(pid);
    if (!process || process->shownPath.size() >= size) {
        recording::notePath(pid, std::nullopt);
        return 0;
    }
    recording::notePath(pid, process->shownPath);
    std::memcpy(buffer, process->shownPath.c_str(), process->shownPath.size() + 1);
    return static_cast<int>(process->shownPath.size());
}

}  // namespace platform
