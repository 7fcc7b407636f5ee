#include "Platform/DarwinNotifications.h"
#include "Platform/Common/Mutex.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Common/ThreadAnnotations.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Files/UnreadFile.h"
#include "Platform/Linux/Health/Health.h"
#include "Platform/Linux/HostChannel/DeliveredPosts.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"
#include "Platform/Linux/HostChannel/HostChannelLog.h"
#include "Platform/Linux/HostChannel/NotificationTouches.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Platform/Linux/Recording/Recorder.h"

namespace platform {

namespace {

constexpr int retryMilliseconds = 1000;
constexpr mode_t notificationFileMode = 0660;
constexpr std::size_t longestName = 200;

bool canBeAFileName(std::string_view name) {
    return !name.empty() && name.size() <= longestName && name.front() != '.' &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

Result<> makeNotificationsFolder() {
    auto around = prepareSharedFolder(places::runtimeFolder, FolderAccess::everyoneMayRead);
    if (!around) return around;
    return prepareSharedFolder(places::notificationsFolder, FolderAccess::trustedGroupOnly);
}

}  // namespace

// A file for each name in a folder that only those who may post can write to; posting touches it.
// The first observer starts the thread that delivers, and that thread lives as long as the process.
class CFNotificationCenter {
public:
    CFNotificationCenter() = default;
    ~CFNotificationCenter();
    CFNotificationCenter(const CFNotificationCenter&) = delete;
    CFNotificationCenter& operator=(const CFNotificationCenter&) = delete;

    void addObserver(void* observer, CFNotificationCallback callback, std::string_view name);
    void removeEveryObserver(void* observer);
    void whenDelivered(Completion<> completion);

private:
    struct Registration {
        std::uint64_t number;
        void* observer;
        CFNotificationCallback callback;
        std::string name;
    };

    void startDelivery();
    void makeFile(const std::string& name);
    void runDelivery();
    bool waitForEvents() const;
    void sayWhetherPostsAreSeen();
    void deliverAll(const std::vector<std::string>& names);
    std::vector<std::string> namesToDeliver();
    std::vector<std::string> takeNewlyObserved();
    std::vector<Completion<>> takeWaiting();
    void keepWaiting(std::vector<Completion<>> answers);
    std::vector<std::string> observedNames();
    void deliver(const std::string& name);
    std::vector<std::uint64_t> registrationsOf(const std::string& name);
    std::optional<Registration> beginCall(std::uint64_t number);
    void endCall();
    bool isCalledElsewhere(void* observer) const REQUIRES(lock);

    // An observer being called, and the thread that calls it.
    struct Call {
        void* observer;
        std::thread::id thread;
    };

    Mutex lock;
    std::optional<Call> callUnderWay GUARDED_BY(lock);
    Condition callEnded;
    std::vector<Registration> registrations GUARDED_BY(lock);
    std::uint64_t lastNumber GUARDED_BY(lock) = 0;
    // Names that somebody has begun to observe and that are to be delivered for that.
    std::vector<std::string> newlyObserved GUARDED_BY(lock);
    // Who wants to know when what was posted has been delivered.
    std::vector<Completion<>> waiting GUARDED_BY(lock);

    std::once_flag deliveryStart;
    const FileDescriptor stopSignal{eventfd(0, EFD_CLOEXEC)};
    const FileDescriptor askedSignal{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    // Made by `startDelivery`, from then on the delivery thread's own.
    std::unique_ptr<FolderWatch> watch;
    NotificationTouches touches;
    // Whose observers could not read what they were to read; delivered again each second.
    std::vector<std::string> unread;
    health::Problem unreadFile{health::Place::hostChannel, "unreadFile",
                               "A file that has changed cannot be read, it is tried again"};
    health::Problem unseen{health::Place::hostChannel, "changesUnseen",
                           "Changes of the rules are not seen"};
    std::thread delivery;
};

CFNotificationCenter::~CFNotificationCenter() {
    if (!delivery.joinable()) return;
    eventfd_write(stopSignal.get(), 1);
    // A delivery may be what ends the process.
    if (delivery.get_id() == std::this_thread::get_id())
        delivery.detach();
    else
        delivery.join();
}

void CFNotificationCenter::addObserver(void* observer, CFNotificationCallback callback,
                                       std::string_view name) {
    if (!canBeAFileName(name)) {
        hostChannelLog.error("The name %{public}s cannot be observed", name);
        return;
    }
    {
        const MutexGuard guard(lock);
        registrations.push_back({++lastNumber, observer, callback, std::string(name)});
    }
    std::call_once(deliveryStart, [this] { startDelivery(); });
    makeFile(std::string(name));
    {
        const MutexGuard guard(lock);
        newlyObserved.emplace_back(name);
    }
    eventfd_write(askedSignal.get(), 1);
}

void CFNotificationCenter::whenDelivered(Completion<> completion) {
    {
        const MutexGuard guard(lock);
        waiting.push_back(std::move(completion));
    }
    eventfd_write(askedSignal.get(), 1);
}

void CFNotificationCenter::removeEveryObserver(void* observer) {
    const MutexGuard guard(lock);
    std::erase_if(registrations, [observer](const auto& r) { return r.observer == observer; });
    while (isCalledElsewhere(observer)) callEnded.wait(lock);
}

void CFNotificationCenter::startDelivery() {
    watch = std::make_unique<FolderWatch>(places::notificationsFolder, makeNotificationsFolder,
                                          NotificationTouches::eventMask);
    delivery = std::thread([this] { runDelivery(); });
}

// Makes the file of a name beforehand, writable for the group whoever touches it first. It appears
// under its name as a link: an event that is no touch.
void CFNotificationCenter::makeFile(const std::string& name) {
    const std::string folder = places::notificationsFolder;
    const std::string path = folder + "/" + name;
    const std::string unfinished = folder + "/." + name;
    if (access(path.c_str(), F_OK) == 0) return;
    const FileDescriptor file(open(unfinished.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                                   notificationFileMode));
    const bool isMade = file && fchmod(file.get(), notificationFileMode) == 0 &&
                        (link(unfinished.c_str(), path.c_str()) == 0 || errno == EEXIST);
    if (!isMade)
        hostChannelLog.error("The file %{public}s cannot be made: %{public}s", path,
                             std::strerror(errno));
    unlink(unfinished.c_str());
}

void CFNotificationCenter::runDelivery() {
    while (waitForEvents()) {
        eventfd_t ignored = 0;
        eventfd_read(askedSignal.get(), &ignored);
        // Taken first: what was posted before they came is read after.
        auto answers = takeWaiting();
        deliverAll(std::exchange(unread, {}));
        deliverAll(takeNewlyObserved());
        deliverAll(namesToDeliver());
        sayWhetherPostsAreSeen();
        if (unread.empty()) {
            for (auto& each : answers) each();
        } else {
            keepWaiting(std::move(answers));
        }
    }
}

// The watch logs it.
void CFNotificationCenter::sayWhetherPostsAreSeen() {
    if (watch->isWatching())
        unseen.end();
    else
        unseen.begin("the journal says why; it is tried again each second");
}

void CFNotificationCenter::deliverAll(const std::vector<std::string>& names) {
    for (const auto& name : names) {
        static_cast<void>(takeUnreadFile());
        deliver(name);
        const auto file = takeUnreadFile();
        if (file && std::ranges::find(unread, name) == unread.end()) unread.push_back(name);
        if (!file) std::erase(unread, name);
        if (file && unreadFile.begin(*file))
            hostChannelLog.error(
                "%{public}s. What has changed in it is not in force; it is tried again each second",
                *file);
        if (unread.empty() && unreadFile.end())
            hostChannelLog.info("What could not be read has been read, and is in force");
    }
}

// False when the center ends.
bool CFNotificationCenter::waitForEvents() const {
    std::array<pollfd, 3> descriptors{{{stopSignal.get(), POLLIN, 0},
                                       {watch->descriptor(), POLLIN, 0},
                                       {askedSignal.get(), POLLIN, 0}}};
    const int timeout = watch->isWatching() && unread.empty() ? -1 : retryMilliseconds;
    poll(descriptors.data(), descriptors.size(), timeout);
    return descriptors[0].revents == 0;
}

// Where posts may have been lost every observer hears of it: a delivery too many does no harm.
std::vector<std::string> CFNotificationCenter::namesToDeliver() {
    const auto batch = watch->read();
    if (!batch.mayHaveMissedSome) return touches.touchedNames(batch.events);
    touches.forget();
    auto names = observedNames();
    for (const auto& name : names) makeFile(name);
    return names;
}

std::vector<std::string> CFNotificationCenter::takeNewlyObserved() {
    const MutexGuard guard(lock);
    return std::exchange(newlyObserved, {});
}

std::vector<Completion<>> CFNotificationCenter::takeWaiting() {
    const MutexGuard guard(lock);
    return std::exchange(waiting, {});
}

void CFNotificationCenter::keepWaiting(std::vector<Completion<>> answers) {
    const MutexGuard guard(lock);
    for (auto& each : answers) waiting.push_back(std::move(each));
}

std::vector<std::string> CFNotificationCenter::observedNames() {
    const MutexGuard guard(lock);
    std::vector<std::string> names;
    for (const auto& each : registrations)
        if (std::ranges::find(names, each.name) == names.end()) names.push_back(each.name);
    return names;
}

void CFNotificationCenter::deliver(const std::string& name) {
    for (const auto number : registrationsOf(name)) {
        const auto present = beginCall(number);
        if (!present) continue;
        recording::Call call(recording::Call::Kind::ofState, "notification");
        call.with().word(name);
        present->callback(*this, present->observer, name, nullptr, nullptr);
        endCall();
    }
}

std::vector<std::uint64_t> CFNotificationCenter::registrationsOf(const std::string& name) {
    const MutexGuard guard(lock);
    std::vector<std::uint64_t> numbers;
    for (const auto& each : registrations)
        if (each.name == name) numbers.push_back(each.number);
    return numbers;
}

// Asked again for each call: an observer may have gone since the list was made.
std::optional<CFNotificationCenter::Registration> CFNotificationCenter::beginCall(
    std::uint64_t number) {
    const MutexGuard guard(lock);
    const auto found = std::ranges::find(registrations, number, &Registration::number);
    if (found == registrations.end()) return std::nullopt;
    callUnderWay = Call{found->observer, std::this_thread::get_id()};
    return *found;
}

void CFNotificationCenter::endCall() {
    {
        const MutexGuard guard(lock);
        callUnderWay.reset();
    }
    callEnded.notifyAll();
}

bool CFNotificationCenter::isCalledElsewhere(void* observer) const {
    return callUnderWay && callUnderWay->observer == observer &&
           callUnderWay->thread != std::this_thread::get_id();
}

CFNotificationCenter& CFNotificationCenterGetDarwinNotifyCenter() {
    static CFNotificationCenter center;
    return center;
}

void CFNotificationCenterAddObserver(CFNotificationCenter& center, void* observer,
                                     CFNotificationCallback callback, std::string_view name,
                                     const void*, CFNotificationSuspensionBehavior) {
    center.addObserver(observer, callback, name);
}

void CFNotificationCenterRemoveEveryObserver(CFNotificationCenter& center, void* observer) {
    center.removeEveryObserver(observer);
}

void whenPostsAreDelivered(Completion<> completion) {
    CFNotificationCenterGetDarwinNotifyCenter().whenDelivered(std::move(completion));
}

}  // namespace platform
