#include "Platform/Simulated/Notifications.h"

#include <algorithm>

#include "Platform/Simulated/Contracts.h"
#include "Platform/Simulated/Machine.h"

namespace platform {

void CFNotificationCenter::post(std::string_view name) {
    {
        const MutexGuard guard(mutex);
        auto& delivery = deliveries[std::string(name)];
        if (delivery.isUnderWay) {
            delivery.isWantedAgain = true;
            return;
        }
    }
    scheduler.deliver(
        "notification", [this, posted = std::string(name)] { deliver(posted); }, deliveryThread);
}

void CFNotificationCenter::deliver(const std::string& name) {
    std::vector<Registration> observers;
    {
        const MutexGuard guard(mutex);
        deliveries[name].isUnderWay = true;
        observers = observersOf(name);
    }
    for (const auto& registration : observers) {
        {
            const MutexGuard guard(mutex);
            if (!isStillRegistered(registration.number)) continue;
            callUnderWay = Call{registration.observer, std::this_thread::get_id()};
        }
        registration.callback(*this, registration.observer, name, nullptr, nullptr);
        {
            const MutexGuard guard(mutex);
            callUnderWay.reset();
        }
        callEnded.notifyAll();
    }
    bool isWantedAgain = false;
    {
        const MutexGuard guard(mutex);
        auto& delivery = deliveries[name];
        delivery.isUnderWay = false;
        isWantedAgain = std::exchange(delivery.isWantedAgain, false);
    }
    if (isWantedAgain) post(name);
}

std::vector<CFNotificationCenter::Registration> CFNotificationCenter::observersOf(
    std::string_view name) const {
    std::vector<Registration> found;
    for (const auto& registration : registrations)
        if (registration.name == name) found.push_back(registration);
    return found;
}

bool CFNotificationCenter::isStillRegistered(std::uint64_t number) const {
    return std::any_of(registrations.begin(), registrations.end(),
                       [&](const auto& registration) { return registration.number == number; });
}

void CFNotificationCenter::add(void* observer, CFNotificationCallback callback,
                               std::string_view name) {
    {
        const MutexGuard guard(mutex);
        registrations.push_back({observer, callback, std::string(name), ++lastNumber});
    }
    post(name);
}

void CFNotificationCenter::removeEvery(const void* observer) {
    MutexGuard guard(mutex);
    std::erase_if(registrations,
                  [&](const auto& registration) { return registration.observer == observer; });
    while (isCalledElsewhere(observer)) {
        guard.unlock();
        const bool haveOthersGoneOn = scheduler.giveWay();
        guard.lock();
        if (!haveOthersGoneOn && isCalledElsewhere(observer)) callEnded.wait(mutex);
    }
}

bool CFNotificationCenter::isCalledElsewhere(const void* observer) const {
    return callUnderWay && callUnderWay->observer == observer &&
           callUnderWay->thread != std::this_thread::get_id();
}

CFNotificationCenter& CFNotificationCenterGetDarwinNotifyCenter() {
    return simulated::machine().notifications;
}

void CFNotificationCenterAddObserver(CFNotificationCenter& center, void* observer,
                                     CFNotificationCallback callback, std::string_view name,
                                     const void*, CFNotificationSuspensionBehavior) {
    simulated::checkPlatformCall("CFNotificationCenterAddObserver");
    center.add(observer, callback, name);
}

void CFNotificationCenterRemoveEveryObserver(CFNotificationCenter& center, void* observer) {
    simulated::checkPlatformCall("CFNotificationCenterRemoveEveryObserver");
    center.removeEvery(observer);
}

}  // namespace platform
