// Tells the host application of direct flows that found no physical interface: an object in a file of
// the shared container, at most one per application in 30 seconds, the newest 50 kept. The notice never
// influences the flow; a file that cannot be written is not reported.

#include <map>

#include "Extension/TransparentProxyProvider.h"
#include "Platform/Foundation.h"

namespace vantry {

using platform::Date;
using platform::NSFileManager;
using platform::NSLockGuard;

namespace {

constexpr std::string_view groupIdentifier = "group.org.quillmere.Vantry";
constexpr std::string_view failureFileName = "connection_failures.json";
constexpr std::size_t keptBesidesTheNew = 49;

// An object of the file; keys that are not ours live on.
using Notice = std::map<std::string, std::string, std::less<>>;

// The file's objects, oldest first; none if it cannot be read or holds anything else.
std::vector<Notice> readNotices(const std::string& path) {
    const auto file = NSFileManager::defaultManager().contentsAtPath(path);
    if (!file) return {};
    const auto parsed = platform::parseJSON(file->bytes().value_or(std::string_view{}));
    const auto* document = std::get_if<platform::JSONValue>(&parsed);
    const auto* array = document ? document->as<platform::JSONArray>() : nullptr;
    if (!array) return {};
    std::vector<Notice> notices;
    for (const auto& value : *array) {
        auto notice = platform::stringTable(value);
        if (!notice) return {};
        notices.emplace_back(notice->begin(), notice->end());
    }
    return notices;
}

std::optional<std::string> encodeNotices(const std::vector<Notice>& notices) {
    platform::JSONWriter writer;
    writer.beginArray();
    for (const auto& notice : notices) {
        writer.beginObject();
        for (const auto& [key, value] : notice) {
            writer.key(key);
            writer.string(value);
        }
        writer.endObject();
    }
    writer.endArray();
    return writer.finish();
}

}  // namespace

void TransparentProxyProvider::notifyDirectConnectionFailed(const std::string& bundleId,
                                                            const std::string& host) {
    const auto now = Date::now();
    if (!passesFailureCooldown(bundleId, now)) return;
    logger.error("Direct connection failed for %s -> %s", bundleId, host);

    const NSLockGuard oneUpdateAtATime(failureFileLock);
    const auto container = resolvedSharedContainer();
    if (!container) return;
    const auto path = *container + "/" + std::string(failureFileName);
    auto notices = readNotices(path);
    if (notices.size() > keptBesidesTheNew)
        notices.erase(notices.begin(),
                      notices.end() - static_cast<std::ptrdiff_t>(keptBesidesTheNew));
    notices.push_back({{"bundleId", bundleId},
                       {"host", host},
                       {"timestamp", platform::NSISO8601DateFormatter().stringFromDate(now)}});
    if (const auto document = encodeNotices(notices))
        NSFileManager::defaultManager().write(*document, path);
}

// Starts the cooldown if it passes, before anything is written.
bool TransparentProxyProvider::passesFailureCooldown(const std::string& bundleId, Date now) {
    const NSLockGuard hold(failureTimesLock);
    const auto last = lastFailureNotificationTime.find(bundleId);
    if (last != lastFailureNotificationTime.end() &&
        now.timeIntervalSince(last->second) < failureNotificationCooldown)
        return false;
    lastFailureNotificationTime.insert_or_assign(bundleId, now);
    return true;
}

// The platform is asked once, also when it has no container to give.
std::optional<std::string> TransparentProxyProvider::resolvedSharedContainer() {
    if (!sharedContainer)
        sharedContainer =
            NSFileManager::defaultManager().containerURLForSecurityApplicationGroupIdentifier(
                groupIdentifier);
    return *sharedContainer;
}

}  // namespace vantry
