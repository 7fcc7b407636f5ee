// The place of a thread among all that wants to run on the machine. For the threads on which the
// machine's connections wait; any thread may call, for itself.
#pragma once

namespace platform {

// Lets the calling thread run before ordinary programs, but none of the threads that it makes. For work
// that others wait for and that is soon done. It counts among what shares the process's scheduling group,
// such as its session or its service. Where this process may not, everything stays as it is.
void runBeforeOrdinaryPrograms();

}  // namespace platform
