#include "Platform/DarwinNotifications.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <utime.h>

#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "Platform/Linux/HostChannel/DeliveredPosts.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/HostChannel/FolderWatch.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

namespace platform::testing {
namespace {

const std::string folder = places::notificationsFolder;
constexpr const char* changed = "org.quillmere.Vantry.rulesChanged";

bool touch(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK, 0666));
    return file && futimens(file.get(), nullptr) == 0;
}

// Counts deliveries by name. Can hold a delivery up in the middle. Static, as the last delivery may
// still be running when a test ends; it lives longer than the center's thread.
class Observer {
public:
    // Returns when the delivery that comes with each registration is over, and counts from there.
    void observe(const std::vector<const char*>& names) {
        for (const auto* name : names)
            CFNotificationCenterAddObserver(CFNotificationCenterGetDarwinNotifyCenter(), this,
                                            &Observer::delivered, name, nullptr,
                                            CFNotificationSuspensionBehavior::deliverImmediately);
        for (const auto* name : names) ASSERT_TRUE(isDelivered(name, 1));
        const std::lock_guard guard(lock);
        counts.clear();
    }
    void onDelivery(std::function<void()> act) {
        const std::lock_guard guard(hold);
        whenDelivered = std::move(act);
    }
    void stopObserving() {
        CFNotificationCenterRemoveEveryObserver(CFNotificationCenterGetDarwinNotifyCenter(), this);
    }

    int count(const std::string& name) {
        const std::lock_guard guard(lock);
        return counts[name];
    }
    bool isDelivered(const std::string& name, int times) {
        return eventually([&] { return count(name) >= times; });
    }
    // Everything posted before has been delivered when this returns.
    static void settle() {
        const auto delivered = std::make_shared<std::promise<void>>();
        whenPostsAreDelivered([delivered] { delivered->set_value(); });
        delivered->get_future().wait();
    }

    std::mutex hold;

private:
    static void delivered(CFNotificationCenter&, void* observer, std::string_view name,
                          const void* object, const void* userInfo) {
        EXPECT_TRUE(object == nullptr && userInfo == nullptr);
        auto& self = *static_cast<Observer*>(observer);
        {
            const std::lock_guard guard(self.lock);
            ++self.counts[std::string(name)];
        }
        const std::lock_guard held(self.hold);
        if (name == changed) self.whenDelivered();
    }

    std::mutex lock;
    std::map<std::string, int> counts;
    std::function<void()> whenDelivered = [] {};
};

using DarwinNotifications = PrivateMachine;

TEST_F(DarwinNotifications, EveryShapeOfATouchIsOneDelivery) {
    static Observer observer;
    observer.observe({changed});
    const std::string path = folder + "/" + changed;
    const std::string other = folder + "/other";
    const struct {
        const char* what;
        std::function<bool()> act;
        int deliveries;
    } cases[] = {
        {"touch", [&] { return touch(path); }, 1},
        {"the shell's >", [&] { return system((": > " + path).c_str()) == 0; }, 1},
        {"new times for the path", [&] { return utime(path.c_str(), nullptr) == 0; }, 1},
        {"a file moved there",
         [&] { return touch(other) && rename(other.c_str(), path.c_str()) == 0; }, 1},
        {"removed and touched again", [&] { return unlink(path.c_str()) == 0 && touch(path); }, 1},
        {"reading", [&] { return contentOf(path).empty(); }, 0},
        {"a folder", [&] { return mkdir(other.c_str(), 0700) == 0; }, 0},
    };
    for (const auto& each : cases) {
        const int before = observer.count(changed);
        ASSERT_TRUE(each.act()) << each.what;
        Observer::settle();
        EXPECT_EQ(observer.count(changed) - before, each.deliveries) << each.what;
    }
    observer.stopObserving();
}

TEST_F(DarwinNotifications, PostsDuringADeliveryGiveOneMore) {
    static Observer observer;
    observer.observe({changed});
    {
        const std::lock_guard holdsTheDelivery(observer.hold);
        touch(folder + "/" + changed);
        ASSERT_TRUE(observer.isDelivered(changed, 1));
        for (int post = 0; post < 5; ++post) touch(folder + "/" + changed);
    }
    Observer::settle();
    EXPECT_EQ(observer.count(changed), 2);
    observer.stopObserving();
}

TEST_F(DarwinNotifications, NoDeliveryBeginsOnceAnObserverIsRemoved) {
    static Observer leaving;
    static Observer staying;
    // Out of its first delivery: the second registration of the same observer hears nothing more.
    leaving.observe({changed});
    leaving.observe({changed});
    staying.observe({changed});
    const int before = leaving.count(changed);
    leaving.onDelivery([] { leaving.stopObserving(); });
    touch(folder + "/" + changed);
    touch(folder + "/" + changed);
    Observer::settle();
    EXPECT_EQ(leaving.count(changed) - before, 1);
    EXPECT_GE(staying.count(changed), 1);
    staying.stopObserving();
}

TEST_F(DarwinNotifications, RemovingAnObserverWaitsForItsDeliveryToEnd) {
    static Observer observer;
    static std::atomic<bool> hasEnded = false;
    observer.observe({changed});
    observer.onDelivery([] { hasEnded = true; });
    std::future<bool> removal;
    {
        const std::lock_guard holdsTheDelivery(observer.hold);
        touch(folder + "/" + changed);
        ASSERT_TRUE(observer.isDelivered(changed, 1));
        removal = std::async(std::launch::async, [] {
            observer.stopObserving();
            return hasEnded.load();
        });
        EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    }
    EXPECT_TRUE(removal.get());
}

TEST_F(DarwinNotifications, AQueueThatRanOverIsSaid) {
    FolderWatch watch(
        "/run/watched",
        [] { return prepareSharedFolder("/run/watched", FolderAccess::everyoneMayRead); },
        IN_OPEN | IN_ATTRIB);
    ASSERT_TRUE(watch.isWatching());
    const int limit = std::stoi(contentOf("/proc/sys/fs/inotify/max_queued_events"));
    if (limit > 200000) GTEST_SKIP() << "the queue is too long to be filled here";
    for (int count = 0; count <= limit / 2; ++count) touch("/run/watched/file");
    EXPECT_TRUE(watch.read().mayHaveMissedSome);
    EXPECT_FALSE(watch.read().mayHaveMissedSome);
}

TEST_F(DarwinNotifications, AFolderOfAStrangerIsLeftAlone) {
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    ASSERT_EQ(mkdir("/run/strange", 0777), 0);
    ASSERT_EQ(chown("/run/strange", strangerAccount, 0), 0);
    ASSERT_EQ(symlink("/tmp", "/run/link"), 0);
    EXPECT_FALSE(makeSharedFolder("/run/strange", FolderAccess::trustedGroupOnly));
    EXPECT_FALSE(makeSharedFolder("/run/link", FolderAccess::trustedGroupOnly));
    ASSERT_TRUE(makeSharedFolder("/run/ours", FolderAccess::trustedGroupOnly));
    struct stat made {};
    ASSERT_EQ(stat("/run/ours", &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 02770U);
    EXPECT_EQ(made.st_gid, vantryGroupId);
    // Whoever may not give the group a folder keeps it.
    EXPECT_TRUE(succeedsAs(strangerAccount, {}, [] {
        struct stat kept {};
        return makeSharedFolder("/tmp/kept", FolderAccess::trustedGroupOnly) &&
               stat("/tmp/kept", &kept) == 0 && (kept.st_mode & 07777) == 0700;
    }));
}

}  // namespace
}  // namespace platform::testing
