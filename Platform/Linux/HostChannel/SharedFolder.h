// The folders that the daemon shares with the host application. Whoever comes first makes them: the
// daemon at its start, or the tool when it stores a rule before the daemon has ever run.
#pragma once

#include <string>

#include "Platform/Linux/Result.h"

namespace platform {

enum class FolderAccess {
    everyoneMayRead,   // only its owner changes what is in it
    trustedGroupOnly,  // the members of the trusted group may change what is in it
};

// Makes the folder if it is missing and gives it the owner group and the mode that `access` asks
// for; without a trusted group, or where this process may not give it the folder, it is the owner's
// alone; the latter is said. A folder that belongs to somebody who is not trusted, or a link in its
// place, is left alone. False if the folder cannot be used as asked, with one line that says why.
// Any thread.
bool makeSharedFolder(const std::string& path, FolderAccess access);

// The same without a line; the error is a sentence for people.
Result<> prepareSharedFolder(const std::string& path, FolderAccess access);

}  // namespace platform
