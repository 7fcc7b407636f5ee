// What the system tells about a process by its id. Any thread, no locks, no state; a process may be
// gone between two calls.
#pragma once

#include <cstdint>

namespace platform {

inline constexpr int PROC_PIDTBSDINFO = 3;

struct proc_bsdinfo {
    std::uint32_t pbi_ppid = 0;  // parent process id; 1 or less: no usable parent
};

// Fills `info` for a running process with flavour PROC_PIDTBSDINFO and argument 0. Returns the
// number of bytes filled in, 0 or less if there is no such process.
int proc_pidinfo(std::int32_t pid, int flavour, std::uint64_t argument, proc_bsdinfo& info);

// Writes the absolute path of the process's executable, NUL-terminated, into a buffer of `size`
// bytes. Returns its length without the NUL; 0 or less if there is no such process or the path does
// not fit. A path that is not valid UTF-8 is made so.
int proc_pidpath(std::int32_t pid, char* buffer, std::uint32_t size);

}  // namespace platform
