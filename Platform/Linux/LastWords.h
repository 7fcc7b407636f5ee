// The end of a process that cannot go on because the system refuses it something that it cannot do without:
// says so, for a person, and leaves with a failure, so that the service manager starts it again. Any thread.
#pragma once

namespace platform {

// `what` the system refused ("an event loop"), and the number of its error.
[[noreturn]] void endForLackOf(const char* what, int cause);

// From here on a thread or memory that is refused ends the process in this way, not with a core.
void endInWordsWhereRefused();

}  // namespace platform
