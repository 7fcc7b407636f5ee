// Tells the host application of direct flows that found no physical interface: an object in a file of
// the shared container, at most one per application in 30 seconds, the newest 50 kept. The notice never
// influences the flow; a file that cannot be written is not reported.

#include <algorithm>
#include <deque>

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
constexpr double failureNotificationCooldown = 30.0;  // seconds

bool isObjectOfTexts(const platform::JSONValue& value) {
    const auto* object = value.as<platform::JSONObject>();
    return object && std::ranges::all_of(*object, [](const auto& member) {
               return member.second.template as<std::string>() != nullptr;
           });
}

// The newest of the file's objects, oldest first, with whatever keys they have; none if the file cannot be
// read or holds anything else. Somebody may have left a large file there: it is read an object at a time.
std::deque<platform::JSONValue> readNewestNotices(const std::string& path) {
    const auto file = NSFileManager::defaultManager().contentsAtPath(path);
    if (!file) return {};
    std::deque<platform::JSONValue> notices;
    bool areNotices = true;
    const auto failure = platform::readJSONArray(
        file->bytes().value_or(std::string_view{}), [&](platform::JSONValue notice) {
            areNotices = areNotices && isObjectOfTexts(notice);
            notices.push_back(std::move(notice));
            if (notices.size() > keptBesidesTheNew) notices.pop_front();
        });
    if (failure || !areNotices) return {};
    return notices;
}

std::optional<std::string> encodeNotices(const std::deque<platform::JSONValue>& notices) {
    platform::JSONWriter writer;
    writer.beginArray();
    for (const auto& notice : notices) writer.value(notice);
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
    auto notices = readNewestNotices(path);
    notices.emplace_back(platform::JSONObject{
        {"bundleId", bundleId},
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
