#include "Platform/Linux/Attribution/SystemAccounts.h"

#include <fstream>
#include <sstream>
#include <string>

namespace platform {

namespace {

constexpr uid_t firstPersonalIdShown = 500;
constexpr uid_t shownSystemId = 499;
constexpr uid_t nobody = 65534;  // also what an id without a place in our user namespace looks like
constexpr uid_t firstDynamicUser = 61184;  // the service manager's DynamicUser= range
constexpr uid_t lastDynamicUser = 65519;

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
    if (userId < firstPersonalIdShown) return userId;
    const bool isDynamic = userId >= firstDynamicUser && userId <= lastDynamicUser;
    const bool isSystem = userId < firstPersonalId || userId == nobody || isDynamic;
    return isSystem ? shownSystemId : userId;
}

bool isSystemAccount(uid_t userId) { return shownUserId(userId) < firstPersonalIdShown; }

}  // namespace platform
