#include "Platform/Linux/ThreadPriority.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace platform {

namespace {
// Ahead even of a crowd of ordinary programs, without shutting them out for as long as work goes on.
constexpr int niceness = -15;
}  // namespace

void runBeforeOrdinaryPrograms() {
    const sched_param ordinary{};
    ::sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &ordinary);
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), niceness);
}

}  // namespace platform
