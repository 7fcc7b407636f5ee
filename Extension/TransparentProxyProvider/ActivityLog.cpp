// The list of observed flows, and the file that mirrors it for the host application about once a
// second at most. The proxy's flows join the list as they are decided, the filter's records when a
// write collects them, so the order is that of joining. A failed write keeps the old file and all
// entries; the next recorded flow tries again. One write is under way at a time, and a flow never waits
// for that of another, however slow the disk is.

#include <iterator>
#include <utility>

#include "Extension/FlowKillCoordinator.h"
#include "Extension/TransparentProxyProvider.h"
#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Platform/Common/Text.h"
#include "Platform/Foundation.h"

namespace vantry {

using platform::Date;
using platform::NSError;
using platform::NSFileManager;
using platform::NSLockGuard;

namespace {

constexpr std::string_view activityLogPath = "/tmp/org.quillmere.Vantry.activitylog.json";
constexpr int readableByAll = 0644;
// The least distance, in seconds, between two writes that the throttle aims for.
constexpr double activityLogWriteInterval = 1.0;

// Encodes the entries and replaces the file by them.
std::optional<NSError> writeFile(std::vector<ActivityLogEntryIPC> entries) {
    const auto document = ActivityLogResponseIPC{.entries = std::move(entries)}.encode();
    if (!document)
        return NSError{.domain = "JSON",
                       .code = 0,
                       .localizedDescription = "The activity log cannot be expressed as JSON"};
    return NSFileManager::defaultManager().writeAtomically(*document, activityLogPath);
}

}  // namespace

void TransparentProxyProvider::recordActivity(const std::string& bundleId,
                                              const std::string& routingDecision,
                                              std::optional<std::string> actualRoute,
                                              std::optional<std::string> sourceIp,
                                              const std::string& destinationHost,
                                              std::uint16_t destinationPort,
                                              std::string protocolType, bool isVpnConnected) {
    ActivityLogEntryIPC entry{.id = platform::UUID::random(),
                              .timestamp = Date::now(),
                              .bundleId = bundleId,
                              .appName = std::string(platform::lastComponent(bundleId)),
                              .routingDecision = routingDecision,
                              .actualRoute = std::move(actualRoute),
                              .sourceIp = std::move(sourceIp),
                              .destinationIp = destinationHost,
                              .destinationPort = destinationPort,
                              .protocolType = std::move(protocolType),
                              .isVpnConnected = isVpnConnected};
    {
        const NSLockGuard hold(activityLogLock);
        activityLog.push_back(std::move(entry));
        trimActivityLog();
    }
    scheduleActivityLogWrite();
}

void TransparentProxyProvider::trimActivityLog() {
    while (activityLog.size() > maxActivityLogEntries) activityLog.pop_front();
}

void TransparentProxyProvider::scheduleActivityLogWrite() {
    double elapsed = 0;
    {
        const NSLockGuard hold(activityLogLock);
        elapsed = Date::now().timeIntervalSince(activityLogLastWriteTime);
        if (elapsed >= activityLogWriteInterval) {
            if (!beginsActivityLogWrite()) return;
        } else {
            if (activityLogWritePending) return;
            activityLogWritePending = true;
        }
    }
    if (elapsed >= activityLogWriteInterval) return performActivityLogWrite();
    writeActivityLogAfter(activityLogWriteInterval - elapsed);
}

void TransparentProxyProvider::writeActivityLogAfter(double seconds) {
    platform::DispatchQueue::main().asyncAfter(seconds, [weakSelf = weak_from_this()] {
        const auto self = weakSelf.lock();
        if (!self) return;
        {
            const NSLockGuard hold(self->activityLogLock);
            self->activityLogWritePending = false;
            if (!self->beginsActivityLogWrite()) return;
        }
        self->performActivityLogWrite();
    });
}

// False where a write is under way: no one waits for a slow disk in a row. What has joined the list
// since is written after it.
bool TransparentProxyProvider::beginsActivityLogWrite() {
    if (activityLogWriteUnderWay) {
        activityLogWriteFollows = true;
        return false;
    }
    activityLogWriteUnderWay = true;
    activityLogLastWriteTime = Date::now();
    return true;
}

void TransparentProxyProvider::performActivityLogWrite() {
    {
        const NSLockGuard noClearing(activityLogWriterLock);
        if (const auto error = writeFile(activityLogWithDrainedBlocks()))
            logger.error("Failed to write activity log file: %{public}s",
                         error->localizedDescription);
        else
            NSFileManager::defaultManager().setPosixPermissions(readableByAll, activityLogPath);
    }
    endActivityLogWrite();
}

// The write that follows runs on the main queue, not on the thread of the flow that made this one.
void TransparentProxyProvider::endActivityLogWrite() {
    double elapsed = 0;
    {
        const NSLockGuard hold(activityLogLock);
        activityLogWriteUnderWay = false;
        if (!std::exchange(activityLogWriteFollows, false) || activityLogWritePending) return;
        activityLogWritePending = true;
        elapsed = Date::now().timeIntervalSince(activityLogLastWriteTime);
    }
    writeActivityLogAfter(activityLogWriteInterval - elapsed);
}

// The list after the filter's records have joined it.
std::vector<ActivityLogEntryIPC> TransparentProxyProvider::activityLogWithDrainedBlocks() {
    auto blocks = FlowKillCoordinator::shared().drainQuicBlocks();
    const NSLockGuard hold(activityLogLock);
    if (!blocks.empty()) {
        activityLog.insert(activityLog.end(), std::make_move_iterator(blocks.begin()),
                           std::make_move_iterator(blocks.end()));
        trimActivityLog();
    }
    return {activityLog.begin(), activityLog.end()};
}

// Waits for a write that is under way, so that it does not bring the cleared entries back.
std::optional<platform::Data> TransparentProxyProvider::clearActivityLog() {
    {
        const NSLockGuard noWrite(activityLogWriterLock);
        {
            const NSLockGuard hold(activityLogLock);
            activityLog.clear();
        }
        NSFileManager::defaultManager().removeItemAtPath(activityLogPath);
    }
    return encodeResponse(ExtensionResponse::success());
}

}  // namespace vantry
