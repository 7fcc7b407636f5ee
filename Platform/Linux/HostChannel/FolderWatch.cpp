#include "Platform/Linux/HostChannel/FolderWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "Platform/Linux/HostChannel/HostChannelLog.h"

namespace platform {

namespace {

// The folder itself went, or went elsewhere. Its parent is watched for the same, as a folder that
// moves with its parent gets no event of its own.
constexpr std::uint32_t selfMask = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t goneMask = selfMask | IN_IGNORED | IN_UNMOUNT;

std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

FolderWatch::FolderWatch(std::string folderPath, MakeFolder makeTheFolder, std::uint32_t eventMask)
    : folder(std::move(folderPath)), makeFolder(std::move(makeTheFolder)), mask(eventMask) {
    watch();
}

// A failure is reported once, not at every new attempt.
void FolderWatch::watch() {
    auto watched = makeFolder();
    if (watched) watched = addWatches();
    if (!watched && !hasReportedFailure)
        hostChannelLog.error("Changes in %{public}s go unseen for now: %{public}s", folder,
                             watched.error().text());
    hasReportedFailure = !watched;
}

Result<> FolderWatch::addWatches() {
    // Each account may have a few only, and containers may have taken them.
    if (!inotify) inotify = FileDescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!inotify) return Error::last("watch files");
    parentWatch = inotify_add_watch(inotify.get(), parentOf(folder).c_str(), selfMask | IN_ONLYDIR);
    folderWatch = inotify_add_watch(inotify.get(), folder.c_str(),
                                    mask | selfMask | IN_ONLYDIR | IN_DONT_FOLLOW);
    return folderWatch < 0 ? Error::last() : Result<>();
}

void FolderWatch::stopWatching() {
    if (folderWatch >= 0) inotify_rm_watch(inotify.get(), folderWatch);
    if (parentWatch >= 0) inotify_rm_watch(inotify.get(), parentWatch);
    folderWatch = parentWatch = -1;
}

bool FolderWatch::replacesTheFolder(int watchNumber, std::uint32_t eventMask) const {
    return (watchNumber == folderWatch || watchNumber == parentWatch) &&
           (eventMask & goneMask) != 0;
}

FolderWatch::Batch FolderWatch::read() {
    Batch batch;
    bool isReplaced = !isWatching();
    alignas(inotify_event) std::array<char, 64 * 1024> buffer;
    for (;;) {
        const ssize_t length = ::read(inotify.get(), buffer.data(), buffer.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) break;
        for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
            const auto& event = *reinterpret_cast<const inotify_event*>(buffer.data() + at);
            at += sizeof event + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) batch.mayHaveMissedSome = true;
            if (replacesTheFolder(event.wd, event.mask)) isReplaced = true;
            if (event.wd == folderWatch && event.len > 0 && (event.mask & IN_ISDIR) == 0)
                batch.events.push_back({event.name, event.mask});
        }
    }
    if (!isReplaced) return batch;
    stopWatching();
    watch();
    batch.mayHaveMissedSome = isWatching();
    return batch;
}

}  // namespace platform
