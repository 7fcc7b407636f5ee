// The notification center of the simulated machine. One thread delivers, one delivery at a time;
// posts while a name is being delivered give one more delivery of it. Any thread may post.
#pragma once

#include <condition_variable>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/DarwinNotifications.h"
#include "Platform/Simulated/Scheduler.h"

namespace platform {

class CFNotificationCenter {
public:
    explicit CFNotificationCenter(simulated::Scheduler& source)
        : scheduler(source), deliveryThread(source.makeLane()) {}
    CFNotificationCenter(const CFNotificationCenter&) = delete;
    CFNotificationCenter& operator=(const CFNotificationCenter&) = delete;

    void post(std::string_view name);

    // The core's side.
    void add(void* observer, CFNotificationCallback callback, std::string_view name);
    void removeEvery(const void* observer);

private:
    struct Registration {
        void* observer;
        CFNotificationCallback callback;
        std::string name;
        std::uint64_t number;
    };
    struct Delivery {
        bool isUnderWay = false;
        bool isWantedAgain = false;
    };

    // An observer being called, and the thread that calls it.
    struct Call {
        void* observer;
        std::thread::id thread;
    };

    void deliver(const std::string& name);
    std::vector<Registration> observersOf(std::string_view name) const REQUIRES(mutex);
    bool isStillRegistered(std::uint64_t number) const REQUIRES(mutex);
    bool isCalledElsewhere(const void* observer) const REQUIRES(mutex);

    simulated::Scheduler& scheduler;
    const simulated::Scheduler::Lane deliveryThread;
    mutable Mutex mutex;
    std::vector<Registration> registrations GUARDED_BY(mutex);
    std::map<std::string, Delivery, std::less<>> deliveries GUARDED_BY(mutex);
    std::optional<Call> callUnderWay GUARDED_BY(mutex);
    Condition callEnded;
    std::uint64_t lastNumber GUARDED_BY(mutex) = 0;
};

}  // namespace platform
