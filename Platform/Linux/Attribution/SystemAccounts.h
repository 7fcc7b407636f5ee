// Which accounts belong to the system and which to people. The extension takes every user id below
// 500 for a system account; Linux gives its own services ids beyond that, so those are shown to it
// as 499. Any thread.
#pragma once

#include <sys/types.h>

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

}  // namespace platform
