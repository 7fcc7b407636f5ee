// Which accounts belong to the system and which to people. The extension takes every user id below
// 500 for a system account; Linux gives its own services ids beyond that, so those are shown to it
// as 499. Any thread.
#pragma once

#include <sys/types.h>

#include <set>
#include <string_view>

namespace platform {

// The lowest id of people's accounts that the text of a login.defs file names, 1000 if it names
// none.
uid_t lowestPersonalUserId(std::string_view loginDefinitions);

// `userId` itself for people's accounts and for those below 500. 499 for the accounts between 500
// and the machine's lowest personal id (read once), for nobody, and for the dynamic users of the
// service manager.
uid_t shownUserId(uid_t userId);

// True if `userId` is shown as a system account.
bool isSystemAccount(uid_t userId);

// The user id under which an application is shown that a system account runs: the lowest that the
// extension does not take for a system account's.
inline constexpr uid_t shownUserIdOfApplications = 500;

// Accounts of services that the person at the machine wants to be treated as people's: from now on
// these and no others. They are shown as 1000 or above.
void setPersonalAccounts(std::set<uid_t> userIds);

// True for root, also where our user namespace has no place for the machine's root, whose files look
// like the unknown user's there.
bool isRoot(uid_t userId);

}  // namespace platform
