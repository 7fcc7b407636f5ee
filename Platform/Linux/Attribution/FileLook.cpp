#include "Platform/Linux/Attribution/FileLook.h"

#include <memory>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/ThreadPriority.h"

namespace platform {

namespace {

constexpr std::size_t mostAtOnce = 32;

struct Look {
    bool isOver = false;
    bool isLate = false;  // somebody has waited in vain
};

// The looks that have not come back. Never destroyed: one of them may outlive everything else.
struct Looks {
    Mutex lock;
    Condition someAreOver;
    std::unordered_map<std::string, std::shared_ptr<Look>> running GUARDED_BY(lock);
};

Looks& looks() {
    static auto& all = *new Looks;
    return all;
}

void finishLook(const std::string& key) {
    auto& all = looks();
    const MutexGuard guard(all.lock);
    const auto found = all.running.find(key);
    found->second->isOver = true;
    all.running.erase(found);
    all.someAreOver.notifyAll();
}

bool beginLook(const std::string& key, std::function<void()> look) {
    try {
        std::thread([key, work = std::move(look)] {
            runBeforeOrdinaryPrograms();
            work();
            finishLook(key);
        }).detach();
        return true;
    } catch (const std::system_error&) {
        finishLook(key);
        return false;
    }
}

}  // namespace

bool lookWithPatience(const std::string& key, std::function<void()> look) {
    auto& all = looks();
    MutexGuard guard(all.lock);
    const auto [place, isNew] = all.running.try_emplace(key);
    if (isNew) place->second = std::make_shared<Look>();
    const auto awaited = place->second;
    if (isNew && all.running.size() > mostAtOnce) {
        all.running.erase(place);
        return false;
    }
    if (isNew) {
        guard.unlock();
        const bool hasBegun = beginLook(key, std::move(look));
        guard.lock();
        if (!hasBegun) return false;
    }
    const auto deadline = Condition::Clock::now() + patienceWithFiles;
    while (!awaited->isOver && !awaited->isLate)
        if (!all.someAreOver.waitUntil(all.lock, deadline)) awaited->isLate = !awaited->isOver;
    return awaited->isOver;
}

}  // namespace platform
