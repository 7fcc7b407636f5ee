#include "Platform/Linux/Attribution/SystemAccounts.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "Platform/Common/Mutex.h"

namespace platform {

namespace {

constexpr uid_t firstPersonalIdShown = shownUserIdOfApplications;
constexpr uid_t shownSystemId = 499;
constexpr uid_t nobody = 65534;  // also what an id without a place in our user namespace looks like
constexpr uid_t firstDynamicUser = 61184;  // the service manager's DynamicUser= range
constexpr uid_t lastDynamicUser = 65519;

constexpr uid_t lowestShownAsPersonal = 1000;

// Which accounts the preferences name. There are none on nearly every machine: asking is one load.
class PersonalAccounts {
public:
    static PersonalAccounts& shared() {
        static PersonalAccounts accounts;
        return accounts;
    }
    void set(std::set<uid_t> userIds) {
        const MutexGuard guard(lock);
        hasAny = !userIds.empty();
        accounts = std::move(userIds);
    }
    bool contain(uid_t userId) {
        if (!hasAny) return false;
        const MutexGuard guard(lock);
        return accounts.contains(userId);
    }

private:
    std::atomic<bool> hasAny{false};
    Mutex lock;
    std::set<uid_t> accounts GUARDED_BY(lock);
};

uid_t readRootAsSeenHere() {
    std::ifstream map("/proc/self/uid_map");
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    std::uint64_t count = 0;
    while (map >> inside >> outside >> count) {
        if (inside == 0 && count > 0) return 0;
    }
    return nobody;
}

std::string readLoginDefinitions() {
    std::ifstream file("/etc/login.defs");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

uid_t lowestPersonalUserId(std::string_view loginDefinitions) {
    constexpr uid_t usual = 1000;
    std::istringstream lines{std::string(loginDefinitions)};
    for (std::string line; std::getline(lines, line);) {
        if (line.find("UID_MIN") == std::string::npos) continue;
        std::istringstream words(line);
        std::string name;
        uid_t value = 0;
        if (words >> name && name == "UID_MIN") return words >> value ? value : usual;
    }
    return usual;
}

uid_t shownUserId(uid_t userId) {
    static const uid_t firstPersonalId = lowestPersonalUserId(readLoginDefinitions());
    if (PersonalAccounts::shared().contain(userId)) return std::max(userId, lowestShownAsPersonal);
    if (userId < firstPersonalIdShown) return userId;
    const bool isDynamic = userId >= firstDynamicUser && userId <= lastDynamicUser;
    const bool isSystem = userId < firstPersonalId || userId == nobody || isDynamic;
    return isSystem ? shownSystemId : userId;
}

void setPersonalAccounts(std::set<uid_t> userIds) {
    PersonalAccounts::shared().set(std::move(userIds));
}

bool isRoot(uid_t userId) {
    static const uid_t root = readRootAsSeenHere();
    return userId == 0 || userId == root;
}

bool isSystemAccount(uid_t userId) { return shownUserId(userId) < firstPersonalIdShown; }

}  // namespace platform
